// libFuzzer target for the CAF handler: parse, read, write back
// (KROFuzzAudioFileContent.h).
#include "KROAudioFileCAFContent.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileCAFContent>(data, size, true);
}
