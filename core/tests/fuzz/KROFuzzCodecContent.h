// What the fuzz targets of the codec handlers share: the input is a file,
// parsed by the handler; when it parses, frames at its start, middle and
// end are read, so that the decoder runs over damaged frames and seeks
// into them. Any crash, sanitizer report, leak or hang is a finding.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KROFuzzInputFile.h"

template <typename Content> int KROFuzzCodecContent(const std::uint8_t* data, std::size_t size) {
    Content content;
    content.setURL(KROFuzzInputPath(data, size));
    if (!content.parse() || content.numberOfChannels() > 64) {
        return 0;
    }
    const auto buffer = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(content.numberOfChannels()), 512);
    const std::uint64_t frames = content.frames();
    for (const std::uint64_t frame : {std::uint64_t{0}, frames / 2, frames - 1, std::uint64_t{0}}) {
        buffer->setFrames(512);
        content.getAudio(*buffer, frame);
    }
    return 0;
}
