// libFuzzer target for the Sound Designer II handler, whose description lives
// in the resource fork beside the file: the input is a 4-byte little-endian
// fork length, the fork, then the data fork. Both are written as a file and
// its "._" sidecar, parsed, and read at the edges (KROFuzzAudioFileContent.h).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "KROAudioFileSDIIContent.h"
#include "KROFuzzAudioFileContent.h"

namespace {

void writeBytes(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint32_t forkLength = 0;
    if (size < 4) {
        return 0;
    }
    std::memcpy(&forkLength, data, 4);
    forkLength = static_cast<std::uint32_t>(std::min<std::size_t>(forkLength, size - 4));
    const auto path = KROFuzzScratchDirectory() / "take.sd2";
    writeBytes(KROFuzzScratchDirectory() / "._take.sd2", data + 4, forkLength);
    writeBytes(path, data + 4 + forkLength, size - 4 - forkLength);
    KROAudioFileSDIIContent content;
    content.setURL(path);
    if (content.parse()) {
        KROFuzzReadEdges(content);
    }
    return 0;
}
