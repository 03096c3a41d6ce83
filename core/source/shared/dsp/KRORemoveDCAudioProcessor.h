// Removes direct current with a one-pole, one-zero high-pass filter,
//     y[n] = x[n] - x[n-1] + (1 - 126 / sr) y[n-1],
// a zero at 0 Hz and a pole whose corner lies near 126 / (2 pi) = 20.05 Hz at
// any rate. Each channel keeps its state between blocks; turning the filter
// off keeps that state, so turning it on again resumes from it until reset.
// At a sample rate of 0 the audio passes unfiltered.
//
// Setting: "enabled" (boolean). Rendering allocates nothing.
#pragma once

#include <atomic>
#include <vector>

#include "KROAudioProcessor.h"

struct kro_biquadm_setup;

class KRORemoveDCAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KRORemoveDCAudioProcessor)

public:
    KRORemoveDCAudioProcessor() = default;
    ~KRORemoveDCAudioProcessor() override;

    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;
    KROPropertyList settings() const override;

    // Makes the filter for the output connection's rate and channels; a
    // filter that cannot be made fails with KROError code 1.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // Frees the filter.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Every channel's state back to silence.
    bool reset(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }

    // The filter's pole at a sample rate.
    static double poleForSampleRate(double sampleRate) { return 1.0 - 126.0 / sampleRate; }

private:
    void destroySetup();

    std::atomic<bool> enabled_{true};
    kro_biquadm_setup* setup_ = nullptr;
    // One pointer for each channel of the filter, filled at each block.
    std::vector<float*> channels_;
};
