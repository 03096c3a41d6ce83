// libFuzzer target for the disc image reader: the input holds the files of
// an image one after another, separated by "\n@@\n", in the order DDPID,
// DDPMS, PQ_DESCR, CDTEXT.BIN, image.dat (missing parts are missing files).
// They are laid out in a directory and parsed; when the image parses, its
// first and last frames are read. Any crash, read past a buffer, leak or
// sanitizer report is a finding.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "KROAudioFileDDPContent.h"
#include "KROFuzzInputFile.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view separator = "\n@@\n";
constexpr const char* names[] = {"DDPID", "DDPMS", "PQ_DESCR", "CDTEXT.BIN", "image.dat"};

void layOut(std::string_view input) {
    const fs::path& directory = KROFuzzScratchDirectory();
    for (const char* name : names) {
        fs::remove(directory / name);
    }
    for (const char* name : names) {
        const std::size_t end = std::min(input.find(separator), input.size());
        std::ofstream(directory / name, std::ios::binary)
            .write(input.data(), static_cast<std::streamsize>(end));
        if (end == input.size()) {
            return;
        }
        input.remove_prefix(end + separator.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    layOut(std::string_view(reinterpret_cast<const char*>(data), size));
    KROAudioFileDDPContent content;
    content.setURL(KROFuzzScratchDirectory());
    if (content.parse()) {
        const auto buffer = KROAudioBufferList::bufferListWithChannels(2, 16);
        for (const std::uint64_t frame : {std::uint64_t{0}, content.frames() - 1}) {
            buffer->setFrames(16);
            content.getAudio(*buffer, frame);
        }
    }
    return 0;
}
