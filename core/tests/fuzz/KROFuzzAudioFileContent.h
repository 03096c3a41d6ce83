// The body of the fuzz targets of the format handlers: the input is a file,
// parsed by the handler; when it parses, frames at its start, middle and end
// are read and then the start again, so that a decoder runs over damaged
// frames and seeks back into them; with writes, its labels and metadata are
// written to a new file and read back, so that whatever a damaged file makes
// of them reaches the writer too. Any crash, sanitizer report, leak, hang or
// allocation beyond the file's size is a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "KROAudioFileContent.h"
#include "KROFuzzInputFile.h"

template <typename Content> void KROFuzzReadEdges(Content& content) {
    // Files of many channels are left alone, as a player of any file would
    // size its buffer by them.
    if (content.numberOfChannels() > 64) {
        return;
    }
    const auto buffer = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(content.numberOfChannels()), 512);
    const std::uint64_t frames = content.frames();
    for (const std::uint64_t frame : {std::uint64_t{0}, frames / 2, frames - 1, std::uint64_t{0}}) {
        buffer->setFrames(512);
        content.getAudio(*buffer, frame);
    }
}

template <typename Content> void KROFuzzWriteBack(const Content& read) {
    Content content;
    content.setSampleRate(read.sampleRate());
    content.setNumberOfChannels(1);
    content.setBitDepth(16);
    content.setWritingDirectory("/dev/shm");
    content.labels() = read.labels();
    content.metadata() = read.metadata();
    if (content.beginWrite()) {
        content.endWrite();
        Content again;
        again.setURL(content.URL());
        again.parse();
    }
    std::error_code ignored;
    std::filesystem::remove(content.URL(), ignored);
}

template <typename Content>
int KROFuzzAudioFileContent(const std::uint8_t* data, std::size_t size, bool writes) {
    Content content;
    content.setURL(KROFuzzInputPath(data, size));
    if (content.parse()) {
        KROFuzzReadEdges(content);
        if (writes) {
            KROFuzzWriteBack(content);
        }
    }
    return 0;
}
