#include "KROAudioFileAudioGeneratorPlaybackBuffer.h"

std::shared_ptr<KROAudioFileAudioGeneratorPlaybackBuffer>
KROAudioFileAudioGeneratorPlaybackBuffer::playbackBufferWithChannels(std::uint32_t channels,
                                                                     std::uint64_t frameCapacity,
                                                                     KROErrorPtr* error) {
    auto buffer = std::make_shared<KROAudioFileAudioGeneratorPlaybackBuffer>();
    return buffer->initWithChannels(channels, frameCapacity, error) ? buffer : nullptr;
}

void KROAudioFileAudioGeneratorPlaybackBuffer::relocate(NSLongRange range) {
    setRange(range);
    clear();
    loadLocation_.store(range.location, std::memory_order_relaxed);
    // Published last: a load that sees the new generation sees the new range.
    const std::uint64_t next = ((state_.load(std::memory_order_relaxed) >> 1) + 1) << 1;
    state_.store(next, std::memory_order_release);
}

bool KROAudioFileAudioGeneratorPlaybackBuffer::markReady(std::uint64_t generation) {
    std::uint64_t expected = generation << 1;
    return state_.compare_exchange_strong(expected, expected | 1u, std::memory_order_acq_rel);
}
