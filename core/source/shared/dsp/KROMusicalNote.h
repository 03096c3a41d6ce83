// A note as the note-driven voices receive it, a plain value with
// no behaviour beyond its accessors. A host thread may write a note while a
// performer reads it, so both fields are relaxed atomics (DESIGN.md
// section 5).
#pragma once

#include <atomic>
#include <memory>

#include "KROObject.h"

class KROMusicalNote : public KROObject {
    KRO_DECLARE_CLASS(KROMusicalNote)

public:
    KROMusicalNote() = default;
    KROMusicalNote(float semitone, float level);
    KROMusicalNote(const KROMusicalNote& other);
    KROMusicalNote& operator=(const KROMusicalNote& other);

    static std::shared_ptr<KROMusicalNote> noteWithSemitone(float semitone, float level);

    // A MIDI-style semitone number: 69 is 440 Hz; fractions are allowed.
    float semitone() const { return semitone_.load(std::memory_order_relaxed); }
    void setSemitone(float semitone) { semitone_.store(semitone, std::memory_order_relaxed); }
    // In decibels.
    float level() const { return level_.load(std::memory_order_relaxed); }
    void setLevel(float level) { level_.store(level, std::memory_order_relaxed); }

    std::string description() const override;

private:
    std::atomic<float> semitone_{0.0f};
    std::atomic<float> level_{0.0f};
};
