// libFuzzer target for the WAVE handler: parse, read, write back
// (KROFuzzAudioFileContent.h).
#include "KROAudioFileWAVEContent.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileWAVEContent>(data, size, true);
}
