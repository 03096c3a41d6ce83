// One carrier of the FM voice: a sine at the note's pitch plus tuning, its
// frequency swung by the voice's modulator times (modulationIndex times the
// envelope, plus the LFO), weighted by mix in the voice's sum. The envelope
// and the LFO move at the voice's control rate.
//
// Threads: the settings may be set from any thread while the voice renders;
// phase, lfoPhase, lfoValue and envelopeValue belong to the render thread.
#pragma once

#include <atomic>

#include "KROObject.h"
#include "KROPropertyList.h"

class KROFMSynthCarrier : public KROObject {
    KRO_DECLARE_CLASS(KROFMSynthCarrier)

public:
    // "modulationIndex", "tuning", "lfoFrequency", "lfoDepth", "attack",
    // "decay", "sustain", "release", "mix": all nine, an absent key as 0.
    void setProperties(const KROPropertyList& properties);

    float modulationIndex() const { return modulationIndex_.load(std::memory_order_relaxed); }
    void setModulationIndex(float value) {
        modulationIndex_.store(value, std::memory_order_relaxed);
    }
    // Semitones added to the note.
    float tuning() const { return tuning_.load(std::memory_order_relaxed); }
    void setTuning(float value) { tuning_.store(value, std::memory_order_relaxed); }
    float lfoFrequency() const { return lfoFrequency_.load(std::memory_order_relaxed); }
    void setLfoFrequency(float hertz) { lfoFrequency_.store(hertz, std::memory_order_relaxed); }
    float lfoDepth() const { return lfoDepth_.load(std::memory_order_relaxed); }
    void setLfoDepth(float value) { lfoDepth_.store(value, std::memory_order_relaxed); }
    // Seconds.
    float attackLength() const { return attackLength_.load(std::memory_order_relaxed); }
    void setAttackLength(float seconds) { attackLength_.store(seconds, std::memory_order_relaxed); }
    float decayLength() const { return decayLength_.load(std::memory_order_relaxed); }
    void setDecayLength(float seconds) { decayLength_.store(seconds, std::memory_order_relaxed); }
    // The sustain level, 0 to 1, under the name hosts have always stored.
    float sustainLength() const { return sustainLength_.load(std::memory_order_relaxed); }
    void setSustainLength(float level) { sustainLength_.store(level, std::memory_order_relaxed); }
    // Seconds, at least 1e-6.
    float releaseLength() const { return releaseLength_.load(std::memory_order_relaxed); }
    void setReleaseLength(float seconds);
    float mix() const { return mix_.load(std::memory_order_relaxed); }
    void setMix(float value) { mix_.store(value, std::memory_order_relaxed); }
    // Hz, set by the voice from its note.
    float frequency() const { return frequency_.load(std::memory_order_relaxed); }
    void setFrequency(float hertz) { frequency_.store(hertz, std::memory_order_relaxed); }

    // Render-thread state.
    float phase = 0.0f;
    float lfoPhase = 0.0f;
    float lfoValue = 0.0f;
    float envelopeValue = 0.0f;

private:
    std::atomic<float> modulationIndex_{1.0f};
    std::atomic<float> tuning_{0.0f};
    std::atomic<float> lfoFrequency_{0.0f};
    std::atomic<float> lfoDepth_{0.0f};
    std::atomic<float> attackLength_{0.0f};
    std::atomic<float> decayLength_{0.0f};
    std::atomic<float> sustainLength_{0.0f};
    std::atomic<float> releaseLength_{1e-06f};
    std::atomic<float> mix_{0.0f};
    std::atomic<float> frequency_{0.0f};
};
