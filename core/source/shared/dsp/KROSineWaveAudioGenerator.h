// A fixed sine tone on every channel of its output, at the
// frequency of a plain property. It has no settings keys of its own.
#pragma once

#include <atomic>
#include <cstdint>

#include "KROAudioGenerator.h"

class KROSineWaveAudioGenerator : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROSineWaveAudioGenerator)

public:
    // 2 pi to the digits that the tone has always been made with.
    static constexpr double twoPi = 6.283185307179586;
    static constexpr float defaultFrequency = 1000.0f;

    // Base initialisation, then frequency 1000 Hz.
    bool init(KROErrorPtr* error = nullptr) override;
    // lastPhase = 0; succeeds.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // As initializeForRender.
    bool reset(KROErrorPtr* error = nullptr) override;
    // sin(i * w + lastPhase) in double on channel 0, w = 2 pi f / sr, copied
    // to every other channel. Looks at neither the render info nor the bus.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // In hertz. Any thread: read at the start of a block and again at its
    // end, so a value written during a block takes effect in part.
    float frequency() const { return frequency_.load(std::memory_order_relaxed); }
    void setFrequency(float frequency) { frequency_.store(frequency, std::memory_order_relaxed); }
    // Radians: the phase at the next block's first frame.
    float lastPhase() const { return lastPhase_; }

    // The phase update at the end of a block, shared with the sine voices:
    // lastPhase plus the fractional cycles of the block, never folded back
    // below 2 pi. A result that is not finite (an infinite frequency, a
    // sample rate of 0) keeps the old phase, so that one bad block cannot
    // leave the generator making nothing but NaN.
    static float advancedPhase(float lastPhase, std::uint64_t frames, double sampleRate,
                               float frequency);
    // The sample rate of the output connection, 0 without one.
    double outputSampleRate() const;

private:
    std::atomic<float> frequency_{0.0f};
    float lastPhase_ = 0.0f;
};
