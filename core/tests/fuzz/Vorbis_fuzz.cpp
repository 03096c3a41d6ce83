// libFuzzer target for the Vorbis handler's parse and first reads.
#include "KROAudioFileVorbisContent.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileVorbisContent>(data, size, false);
}
