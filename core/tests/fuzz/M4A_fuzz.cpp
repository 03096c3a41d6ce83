// libFuzzer target for the M4A handler's parse and first reads.
#include "KROAudioFileM4AContent.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileM4AContent>(data, size, false);
}
