// Follows the pitch of channel 0 through the ko_sst tracker and publishes a
// smoothed semitone (69 is referenceFrequency) and a level for a display.
// The audio passes unchanged, on the pull path and on the push path.
//
// Semitone smoothing keeps the last ten raw results: the published value
// follows the most common whole semitone among them, so a note shows once it
// outnumbers the silent steps before it, and silence wins back the same way.
// Power smoothing decays to 1% in 0.3 s.
//
// Threads: the tracker runs under `lock` on the render or input thread;
// setAnalysisFrames and setReferenceFrequency rebuild it under the same lock
// from a host thread. semitone() and power() may be read from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "KROAudioProcessor.h"
#include "ko_sst.h"

class KROPitchDetectorAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROPitchDetectorAudioProcessor)

public:
    ~KROPitchDetectorAudioProcessor() override;

    // Build the tracker at the output's (or, for input, the input's) rate.
    // They succeed even when the tracker cannot be made (a rate of 0, too
    // many analysis frames): the detector then stays silent.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    // Builds the tracker again at the input's rate; the smoothing and the
    // published values stay.
    bool reset(KROErrorPtr* error = nullptr) override;

    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

    // The tracker's results, on the render thread.
    void didDetectSemitone(float semitone);
    void didDetectPower(float power);

    std::uint64_t analysisFrames() const { return analysisFrames_; }
    void setAnalysisFrames(std::uint64_t frames);
    double referenceFrequency() const { return referenceFrequency_; }
    void setReferenceFrequency(double hertz);
    bool isSemitoneSmoothingEnabled() const { return semitoneSmoothing_.load(); }
    void setSemitoneSmoothingEnabled(bool enabled) { semitoneSmoothing_.store(enabled); }
    bool isPowerSmoothingEnabled() const { return powerSmoothing_.load(); }
    void setPowerSmoothingEnabled(bool enabled) { powerSmoothing_.store(enabled); }
    float semitone() const { return semitone_.load(std::memory_order_relaxed); }
    float power() const { return power_.load(std::memory_order_relaxed); }

private:
    // Under lock_: the tracker for a rate, or none.
    void rebuild(double sampleRate);
    void analyse(const KROAudioBufferList& buffer);

    ko_sst_t* sst_ = nullptr;
    double referenceFrequency_ = 440.0;
    std::uint64_t analysisFrames_ = 1024;
    std::mutex lock_;
    std::array<float, 10> previousDetectedSemitones_{};
    std::uint64_t cursor_ = 0;
    std::atomic<bool> semitoneSmoothing_{true};
    std::atomic<bool> powerSmoothing_{false};
    std::atomic<float> semitone_{0.0f};
    std::atomic<float> power_{0.0f};
};
