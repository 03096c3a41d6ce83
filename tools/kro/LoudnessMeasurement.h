// The loudness of a whole programme, measured offline by loudness meters
// (momentary, short-term, integrated) and a level meter on one chain over a
// source: what `kro loudness` prints, for any command that measures a file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioGenerator.h"
#include "KROError.h"

struct LoudnessReport {
    // LUFS; minus infinity when no block was loud enough to count.
    double integrated = 0.0;
    // LU, between the 10th and 95th percentiles of the short-term readings.
    double range = 0.0;
    // LUFS: the loudest reading of each window.
    double momentaryMaximum = 0.0;
    double shortTermMaximum = 0.0;
    // dBFS: the largest magnitude of any sample.
    double samplePeak = 0.0;
};

class LoudnessMeasurement {
public:
    // Told the fraction done after each block.
    using Progress = std::function<void(double fraction)>;

    // The short-term readings of a programme, LUFS, one each 100 ms, once the
    // window is full: the loudness range over them, gated at -70 LUFS and 20
    // LU below their mean.
    static double loudnessRange(std::vector<double> shortTerm);

    // Measures frames of the source, of the rate and channel count given.
    static bool measure(std::shared_ptr<KROAudioGenerator> source, double sampleRate,
                        std::uint32_t channels, std::uint64_t frames, LoudnessReport& report,
                        const Progress& progress = nullptr, KROErrorPtr* error = nullptr);
};
