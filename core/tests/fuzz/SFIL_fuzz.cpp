// libFuzzer target for the Sound Designer I handler: parse, read, write back
// (KROFuzzAudioFileContent.h). Any crash, sanitizer report or allocation
// beyond the file's size is a finding.
#include "KROAudioFileSFILContent.h"
#include "KROFuzzAudioFileContent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return KROFuzzAudioFileContent<KROAudioFileSFILContent>(data, size, false);
}
