// libFuzzer target for the CAF handler: the input is a file, parsed as a
// CAF file; when it parses, its first and last frames are read, and its
// labels and metadata are written to a new file and read back. Any crash,
// read past a buffer, leak, sanitizer report or allocation beyond the
// file's size is a finding.
#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "KROAudioFileCAFContent.h"
#include "KROFuzzInputFile.h"

namespace {

void readEdges(KROAudioFileCAFContent& content) {
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

void writeBack(const KROAudioFileCAFContent& read) {
    KROAudioFileCAFContent content;
    content.setSampleRate(read.sampleRate());
    content.setNumberOfChannels(1);
    content.setBitDepth(16);
    content.setWritingDirectory("/dev/shm");
    content.labels() = read.labels();
    content.metadata() = read.metadata();
    if (content.beginWrite()) {
        content.endWrite();
        KROAudioFileCAFContent again;
        again.setURL(content.URL());
        again.parse();
    }
    std::error_code ignored;
    std::filesystem::remove(content.URL(), ignored);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KROAudioFileCAFContent content;
    content.setURL(KROFuzzInputPath(data, size));
    if (content.parse()) {
        readEdges(content);
        writeBack(content);
    }
    return 0;
}
