#include "SignalAnalysis.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "KROAudioBufferList.h"
#include "KROPitchDetectorAudioProcessor.h"
#include "OfflineRender.h"

namespace {

double decibelsOf(double amplitude) {
    return amplitude > 0.0 ? 20.0 * std::log10(amplitude)
                           : -std::numeric_limits<double>::infinity();
}

} // namespace

bool SignalAnalysis::measure(std::shared_ptr<KROAudioGenerator> source, double sampleRate,
                             std::uint32_t channels, std::uint64_t frames, SignalReport& report,
                             const Progress& progress, KROErrorPtr* error) {
    auto detector = std::make_shared<KROPitchDetectorAudioProcessor>();
    detector->init();
    detector->setSemitoneSmoothingEnabled(false);
    // One block per analysis, so that every step of the track is seen.
    OfflineRender render(std::move(source), sampleRate, channels, pitchStep);
    render.append(detector);

    std::vector<double> peaks(channels, 0.0);
    std::vector<double> squares(channels, 0.0);
    report.pitch.clear();
    report.stepSeconds = double(pitchStep) / sampleRate;
    const bool rendered = render.run(
        frames,
        [&](const KROAudioBufferList& block, std::uint64_t done) {
            for (std::uint32_t channel = 0; channel < channels; ++channel) {
                const float* samples = block.channel(channel);
                for (std::uint64_t i = 0; i < block.frames(); ++i) {
                    peaks[channel] = std::max(peaks[channel], double(std::fabs(samples[i])));
                    squares[channel] += double(samples[i]) * double(samples[i]);
                }
            }
            // The window of two steps ends with this block; the tracker
            // places its result in the middle of the newer step.
            const float semitone = detector->semitone();
            if (block.frames() == pitchStep && semitone != 0.0f) {
                report.pitch.push_back(
                    {(double(done) - double(pitchStep) / 2.0) / sampleRate, double(semitone)});
            }
            if (progress) {
                progress(double(done) / double(frames));
            }
        },
        error);
    if (!rendered) {
        return false;
    }
    report.levels.clear();
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        const double meanSquare = frames ? squares[channel] / double(frames) : 0.0;
        report.levels.push_back({decibelsOf(peaks[channel]), decibelsOf(std::sqrt(meanSquare))});
    }
    return true;
}
