// A monophonic FM voice: one sine modulator at the note's pitch drives two
// carriers, each with its own tuning, envelope and LFO; their sum passes a
// tanh distortion, an amplitude ramp and a feedback delay of up to two
// seconds, and is copied to every channel. Envelopes, LFOs and the release
// move once every 32 frames, at a thirty-second of the sample rate.
//
// Settings keys: "carriers" (up to two carrier property dictionaries; more
// are ignored), "distortion", "delayTime", "delayFeedback", "transpose"
// (numbers; an absent key reads as 0).
//
// Threads: notes and setters may come from any thread while rendering runs;
// rendering reads them without a lock and allocates nothing.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "KROAudioGenerator.h"
#include "KROFMSynthCarrier.h"
#include "KROMusicalNotePerformer.h"

class KROFMSynthAudioGenerator : public KROAudioGenerator, public KROMusicalNotePerformer {
    KRO_DECLARE_CLASS(KROFMSynthAudioGenerator)

public:
    static constexpr std::size_t numberOfCarriers = 2;
    static constexpr std::uint64_t framesPerControlTick = 32;

    // Base initialisation and two default carriers.
    bool init(KROErrorPtr* error = nullptr) override;
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;

    // The modulator's phase to 0, the amplitude to its target, and a zeroed
    // delay line of two seconds at the output's rate.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // notesChanged, then the envelopes start again.
    void notesBegan(const KROMusicalNoteSet& notes) override;
    // Any one note of the set sets the pitch of the modulator and carriers
    // and the target amplitude; the envelopes go on. A note whose pitch is
    // not finite, or whose level is NaN or above 1000 dB, is ignored.
    void notesChanged(const KROMusicalNoteSet& notes) override;
    // The envelopes release and the amplitude falls to 0 in 200 control
    // ticks, whatever the carriers' release; pitch and target stay.
    void notesEnded(const KROMusicalNoteSet& notes) override;

    // None past the end.
    std::shared_ptr<KROFMSynthCarrier> carrierAtIndex(std::size_t index) const;

    float transpose() const { return transpose_.load(std::memory_order_relaxed); }
    void setTranspose(float semitones) { transpose_.store(semitones, std::memory_order_relaxed); }
    float distortion() const { return distortion_.load(std::memory_order_relaxed); }
    // At least 0.
    void setDistortion(float distortion);
    double delayTime() const { return delayTime_.load(std::memory_order_relaxed); }
    // At most 2 seconds.
    void setDelayTime(double seconds);
    float delayFeedback() const { return delayFeedback_.load(std::memory_order_relaxed); }
    // At most 1: a feedback of 1 repeats for ever.
    void setDelayFeedback(float feedback);
    float modFreq() const { return modFreq_.load(std::memory_order_relaxed); }
    float amp() const { return amp_; }
    float nextAmp() const { return nextAmp_.load(std::memory_order_relaxed); }
    std::uint64_t controlIndex() const { return controlIndex_.load(std::memory_order_relaxed); }
    bool releasing() const { return releasing_.load(std::memory_order_relaxed); }

private:
    void controlTick(double ticksPerSecond, double lfoStep, float& a);
    float delayed(float y, double sampleRate);

    std::vector<std::shared_ptr<KROFMSynthCarrier>> carriers_;
    std::atomic<float> transpose_{0.0f};
    std::atomic<float> modFreq_{0.0f};
    float modPhase_ = 0.0f;
    std::atomic<float> distortion_{0.0f};
    float amp_ = 0.0f;
    std::atomic<float> nextAmp_{0.0f};
    std::vector<float> delayBuffer_;
    std::uint64_t delayIndex_ = 0;
    std::atomic<double> delayTime_{0.0};
    std::atomic<float> delayFeedback_{0.0f};
    std::atomic<std::uint64_t> controlIndex_{0};
    std::atomic<bool> releasing_{false};
};
