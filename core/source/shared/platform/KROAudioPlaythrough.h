// Joins an input chain to a render chain across the two clocks of
// two devices. The input side stores each block in a ring of four blocks at
// its sample time; the render side reads at a distance of latency frames
// behind, from the moment both clocks have been seen once. Drift between the
// clocks is not corrected. The ring is written by the input thread and read
// by the render thread with no lock; its length of four blocks is the margin.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "KROIOAudioProcessor.h"

class KROAudioRingBufferList;

class KROAudioPlaythrough : public KROIOAudioProcessor {
    KRO_DECLARE_CLASS(KROAudioPlaythrough)

public:
    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }

    // The same operation mirrored, as the stream's walks reach this processor
    // from both sides: whichever side comes first allocates the ring, the
    // second checks the channels and computes the latency (safety offset plus
    // buffer frames of the input device and of the output device).
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    bool reset(KROErrorPtr* error = nullptr) override;

    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    std::uint64_t latency() const override { return latency_; }
    std::int64_t firstStoredFrame() const {
        return firstStoredFrame_.load(std::memory_order_relaxed);
    }
    std::int64_t firstRenderFrame() const {
        return firstRenderFrame_.load(std::memory_order_relaxed);
    }

private:
    bool arrive(std::uint64_t channels, std::uint64_t maxFrames, const char* action,
                KROErrorPtr* error);
    std::uint64_t computeLatency() const;

    std::atomic<bool> enabled_{false};
    std::shared_ptr<KROAudioRingBufferList> ringBuffer_;
    std::atomic<std::int64_t> firstStoredFrame_{-1};
    std::atomic<std::int64_t> firstRenderFrame_{-1};
    std::int64_t offset_ = 0;
    std::uint64_t latency_ = 0;
};
