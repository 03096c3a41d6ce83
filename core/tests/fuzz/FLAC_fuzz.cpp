// libFuzzer target for the FLAC handler's parse and first reads.
#include "KROAudioFileFLACContent.h"
#include "KROFuzzCodecContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzCodecContent<KROAudioFileFLACContent>(data, size);
}
