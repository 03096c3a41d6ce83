// The levels of each channel and the pitch track of channel 0 of a whole
// programme, measured offline by one chain over a source: what `kro analyze`
// prints beside the loudness.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "KROAudioGenerator.h"
#include "KROError.h"

struct SignalReport {
    struct Levels {
        // dBFS; minus infinity for a silent channel.
        double peak = 0.0;
        double rms = 0.0;
    };
    struct PitchStep {
        // The middle of the newest analysis window.
        double seconds = 0.0;
        // MIDI note number with fractions, 69 being 440 Hz.
        double semitone = 0.0;
    };
    std::vector<Levels> levels;
    // Only the steps that found a pitch, in time order.
    std::vector<PitchStep> pitch;
    // Seconds between analyses.
    double stepSeconds = 0.0;
};

class SignalAnalysis {
public:
    using Progress = std::function<void(double fraction)>;

    // Frames analysed at a time by the pitch tracker: its own default.
    static constexpr std::uint64_t pitchStep = 1024;

    static bool measure(std::shared_ptr<KROAudioGenerator> source, double sampleRate,
                        std::uint32_t channels, std::uint64_t frames, SignalReport& report,
                        const Progress& progress = nullptr, KROErrorPtr* error = nullptr);
};
