// libFuzzer target for the MP3 handler's parse and first reads.
#include "KROAudioFileMP3Content.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileMP3Content>(data, size, false);
}
