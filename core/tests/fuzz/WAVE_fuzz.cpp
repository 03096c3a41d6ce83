// libFuzzer target for the WAVE handler: the input is a file, parsed as a
// WAVE file; when it parses, its first and last frames are read, and its
// labels and metadata are written to a new file and read back, so that
// whatever a damaged file makes of them reaches the writer too. Any crash,
// read past a buffer, leak, sanitizer report or allocation beyond the
// file's size is a finding.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "KROAudioFileWAVEContent.h"

namespace {

// The file of the current input, in memory, reached by a path.
std::string inputPath(const std::uint8_t* data, std::size_t size) {
    static const int descriptor = ::memfd_create("wave", 0);
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, data, size, 0) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    return "/proc/self/fd/" + std::to_string(descriptor);
}

void readEdges(KROAudioFileWAVEContent& content) {
    // Files of many channels read one frame at a time, as a player of any
    // file would size its buffer.
    if (content.numberOfChannels() > 64) {
        return;
    }
    const auto buffer = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(content.numberOfChannels()), 16);
    for (const std::uint64_t frame : {std::uint64_t{0}, content.frames() - 1}) {
        buffer->setFrames(16);
        content.getAudio(*buffer, frame);
    }
}

void writeBack(const KROAudioFileWAVEContent& read) {
    KROAudioFileWAVEContent content;
    content.setSampleRate(read.sampleRate());
    content.setNumberOfChannels(1);
    content.setBitDepth(16);
    content.setWritingDirectory("/dev/shm");
    content.labels() = read.labels();
    content.metadata() = read.metadata();
    if (content.beginWrite()) {
        content.endWrite();
        KROAudioFileWAVEContent again;
        again.setURL(content.URL());
        again.parse();
    }
    std::error_code ignored;
    std::filesystem::remove(content.URL(), ignored);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KROAudioFileWAVEContent content;
    content.setURL(inputPath(data, size));
    if (content.parse()) {
        readEdges(content);
        writeBack(content);
    }
    return 0;
}
