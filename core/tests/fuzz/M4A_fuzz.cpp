// libFuzzer target for the M4A handler's parse and first reads.
#include "KROAudioFileM4AContent.h"
#include "KROFuzzCodecContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzCodecContent<KROAudioFileM4AContent>(data, size);
}
