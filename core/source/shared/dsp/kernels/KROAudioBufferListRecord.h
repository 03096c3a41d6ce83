// The platform's AudioBufferList record, declared here because the
// platform headers are absent on Linux. The record is variable-length: it is
// allocated with room for mNumberBuffers buffers, of which mBuffers names the
// first. Reach buffer i through KROAudioBufferAt so that no fixed-size array
// is indexed past its declared bound.
#pragma once

#include <cstddef>
#include <cstdint>

struct AudioBuffer {
    std::uint32_t mNumberChannels;
    std::uint32_t mDataByteSize;
    void* mData;
};

struct AudioBufferList {
    std::uint32_t mNumberBuffers;
    AudioBuffer mBuffers[1];
};

// The byte size of a record with room for count buffers (at least one).
constexpr std::size_t KROAudioBufferListByteSize(std::uint32_t count) {
    return offsetof(AudioBufferList, mBuffers) +
           sizeof(AudioBuffer) * (count == 0 ? std::size_t{1} : std::size_t{count});
}

inline AudioBuffer& KROAudioBufferAt(AudioBufferList& list, std::uint32_t index) {
    AudioBuffer* const buffers = list.mBuffers;
    return buffers[index];
}

inline const AudioBuffer& KROAudioBufferAt(const AudioBufferList& list, std::uint32_t index) {
    const AudioBuffer* const buffers = list.mBuffers;
    return buffers[index];
}
