// libFuzzer target for the FLAC handler's parse and first reads.
#include "KROAudioFileFLACContent.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileFLACContent>(data, size, false);
}
