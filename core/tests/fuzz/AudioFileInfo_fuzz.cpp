// libFuzzer target for the header probe: the input is a file, probed with
// every parser that its magic leads to, the fallback included.
#include "KROAudioFileInfo.h"
#include "KROFuzzInputFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KROAudioFileInfo info;
    KROErrorPtr error;
    info.initWithURL(KROFuzzInputPath(data, size), &error);
    return 0;
}
