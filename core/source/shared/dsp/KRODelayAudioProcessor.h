// Delays every channel by a whole number of frames, up to maximumFrameDelay,
// through a ring of maximumFrameDelay plus one block. Each block is written
// into the ring before the delayed frames are read from it, so a delay of 0
// passes the audio through unchanged. A change of the delay takes effect at
// the next block with no crossfade: the ring keeps what it held, and the
// frames between the old and the new position play as they stand.
//
// The delay may change from any thread while audio runs; rendering
// allocates nothing. There is no push path, no settings and no reset: the
// ring keeps its contents until the next initialisation.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "KROAudioProcessor.h"

class KROAudioBufferList;

class KRODelayAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KRODelayAudioProcessor)

public:
    static constexpr std::uint64_t defaultMaximumFrameDelay = 48000;

    // Makes the ring and the read buffer, failing with their error; the input
    // connection takes the output connection's format.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // Set before initialisation: it sizes the ring.
    std::uint64_t maximumFrameDelay() const { return maximumFrameDelay_; }
    void setMaximumFrameDelay(std::uint64_t frames) { maximumFrameDelay_ = frames; }
    std::uint64_t frameDelay() const { return frameDelay_.load(std::memory_order_relaxed); }
    // Values above maximumFrameDelay store maximumFrameDelay.
    void setFrameDelay(std::uint64_t frames);

private:
    std::uint64_t maximumFrameDelay_ = defaultMaximumFrameDelay;
    std::atomic<std::uint64_t> frameDelay_{0};
    std::shared_ptr<KROAudioBufferList> delayBuffer_;
    std::shared_ptr<KROAudioBufferList> readBuffer_;
    std::uint64_t readCursor_ = 0;
};
