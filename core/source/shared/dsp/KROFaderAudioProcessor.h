// A gain with click-free block ramps and automation. A new gain asked for
// with setScalar or setGain is reached by a linear ramp over the next block;
// automations of the parameters "scalar" (linear) and "gain" (dB) shape the
// gain over their stretch of the timeline, against the sample time of the
// render info. In real time, and while the transport stands, a curve is
// followed by one linear ramp for each block (a constant at the block's start
// while standing); offline each frame gets the curve's exact value.
// Overlapping automations each apply in turn, so their gains multiply.
//
// Threads: setScalar and setGain may come from any thread; the render thread
// holds scalarLock for a whole block, so a writer waits at most one block.
// The render path takes the processor's automationsLock first, then
// scalarLock; it allocates nothing.
//
// Settings: "scalar" (number, the reached gain; reading it asks for it) and
// "enabled" (boolean). Parameters "scalar" and "gain".
#pragma once

#include <atomic>
#include <mutex>

#include "KROAudioProcessor.h"
#include "KRORange.h"

class KROAudioAutomation;

class KROFaderAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROFaderAudioProcessor)

public:
    // Scalar 1, enabled, and the two parameter descriptions.
    bool init(KROErrorPtr* error = nullptr) override;
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;
    KROPropertyList settings() const override;

    // Both directions: the far connection takes the near one's format, and
    // the gain jumps to the one asked for: no ramp at the start.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    // Pulls, then scales when enabled.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    // Scales when enabled, then passes the buffer on.
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

    // "scalar" and "gain" as numbers.
    std::optional<KROPropertyList> valueForParameterKey(const std::string& key) const override;
    void setValue(const KROPropertyList& value, const std::string& key) override;

    // The linear gain reached at the end of the last block.
    float scalar() const { return scalar_.load(std::memory_order_relaxed); }
    // Asks for a gain; reached over the next block.
    void setScalar(float scalar);
    // The reached gain in dB, 20 log10(scalar), not the one asked for.
    float gain() const;
    void setGain(float gain);
    // When off, audio passes untouched and the asked gain waits.
    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }

    // Scales one block in place by the gain and the automations; the sample
    // time and the transport come from info.
    void process(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);

private:
    // Where one automation meets the block.
    struct Overlap {
        const KROAudioAutomation* automation;
        bool inDecibels;
        NSLongRange before;
        NSLongRange automated;
        NSLongRange after;
        double start;
        double end;
    };

    // Applies one automation that meets the block of frames from t0 seconds.
    void applyAutomation(KROAudioBufferList& buffer, const KROAudioStreamRenderInfo& info,
                         const Overlap& overlap, double t0, double sampleRate);
    std::optional<Overlap> overlapOf(const KROAudioAutomation& automation, std::int64_t sampleTime,
                                     std::uint64_t frames, double sampleRate) const;
    double outputSampleRate() const;

    std::atomic<float> scalar_{1.0f};
    std::atomic<float> nextScalar_{1.0f};
    std::atomic<bool> enabled_{true};
    std::mutex scalarLock_;
};
