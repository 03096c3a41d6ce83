// A note-driven sine voice. Notes set its frequency and its target
// level; each block ramps the gain linearly from the level reached at the end
// of the previous block to the target, so that successive blocks join
// without a step. It has no settings keys of its own.
#pragma once

#include <atomic>
#include <bit>

#include "KROAudioGenerator.h"
#include "KROMusicalNotePerformer.h"

class KROSineWaveSynthAudioGenerator : public KROAudioGenerator, public KROMusicalNotePerformer {
    KRO_DECLARE_CLASS(KROSineWaveSynthAudioGenerator)

public:
    static constexpr float defaultFrequency = 1000.0f;
    // The silence level is the most negative finite float, bits
    // 0xff7fffff; powf(10, silence / 20) is 0.
    static constexpr float silenceLevel = std::bit_cast<float>(0xff7fffffu);

    // Base initialisation, then frequency 1000 Hz and the silence level.
    bool init(KROErrorPtr* error = nullptr) override;
    // lastPhase = 0 and lastLevel = the silence level (not level); succeeds.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // As initializeForRender.
    bool reset(KROErrorPtr* error = nullptr) override;
    // The sine of the tone times a gain ramp from powf(10, lastLevel / 20)
    // to powf(10, level / 20) that reaches the target only at the frame after
    // the block, so that blocks join without a step; then lastLevel becomes
    // level. Looks at neither the render info nor the bus.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // Calls notesChanged.
    void notesBegan(const KROMusicalNoteSet& notes) override;
    // Takes the set's first member, whichever that is, and ignores the rest:
    // frequency := 440 * 2^((semitone - 69) / 12), level := its level.
    void notesChanged(const KROMusicalNoteSet& notes) override;
    // Level := the silence level; frequency is kept.
    void notesEnded(const KROMusicalNoteSet& notes) override;

    // In hertz; any thread, read at a block's start and again at its end.
    float frequency() const { return frequency_.load(std::memory_order_relaxed); }
    void setFrequency(float frequency) { frequency_.store(frequency, std::memory_order_relaxed); }
    // Target level in decibels; any thread, read at a block's start and at
    // its end.
    float level() const { return level_.load(std::memory_order_relaxed); }
    void setLevel(float level) { level_.store(level, std::memory_order_relaxed); }
    // Radians: the phase at the next block's first frame.
    float lastPhase() const { return lastPhase_; }
    // The level reached at the end of the previous block, in decibels.
    float lastLevel() const { return lastLevel_; }

    // The frequency of a semitone: the subtraction and division in single
    // precision, the exponential and the product in double.
    static float frequencyOfSemitone(float semitone);

private:
    std::atomic<float> frequency_{0.0f};
    std::atomic<float> level_{0.0f};
    float lastPhase_ = 0.0f;
    float lastLevel_ = 0.0f;
};
