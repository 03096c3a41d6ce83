#include "LoudnessMeasurement.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "KROAudioBufferList.h"
#include "KROLUMeterAudioProcessor.h"
#include "KROLevelMeterAudioProcessor.h"
#include "OfflineRender.h"

namespace {

// Readings of the meters are in LU from -23 LUFS.
constexpr double referenceLoudness = -23.0;
// Short-term readings before this many steps of 100 ms see a window not yet
// full, and are left out of the range.
constexpr std::size_t shortTermWindowSteps = 30;

double energyOf(double lufs) {
    return std::pow(10.0, lufs / 10.0);
}

std::shared_ptr<KROLUMeterAudioProcessor> loudnessMeter(const char* type) {
    auto meter = std::make_shared<KROLUMeterAudioProcessor>();
    meter->init();
    meter->setMeasurementType(type);
    return meter;
}

} // namespace

double LoudnessMeasurement::loudnessRange(std::vector<double> shortTerm) {
    std::erase_if(shortTerm, [](double lufs) { return !(lufs >= -70.0); });
    if (shortTerm.empty()) {
        return 0.0;
    }
    double mean = 0.0;
    for (const double lufs : shortTerm) {
        mean += energyOf(lufs);
    }
    const double relativeGate = 10.0 * std::log10(mean / double(shortTerm.size())) - 20.0;
    std::erase_if(shortTerm, [&](double lufs) { return lufs < relativeGate; });
    std::sort(shortTerm.begin(), shortTerm.end());
    // The nearest ranks of the two percentiles.
    const auto rank = [&](double percentile) {
        return shortTerm[std::size_t(double(shortTerm.size() - 1) * percentile + 0.5)];
    };
    return rank(0.95) - rank(0.10);
}

bool LoudnessMeasurement::measure(std::shared_ptr<KROAudioGenerator> source, double sampleRate,
                                  std::uint32_t channels, std::uint64_t frames,
                                  LoudnessReport& report, const Progress& progress,
                                  KROErrorPtr* error) {
    const auto momentary = loudnessMeter(KROLUMeterMeasurementTypeMomentary);
    const auto shortTerm = loudnessMeter(KROLUMeterMeasurementTypeShortTerm);
    const auto integrated = loudnessMeter(KROLUMeterMeasurementTypeIntegrated);
    auto peak = std::make_shared<KROLevelMeterAudioProcessor>();
    peak->init();
    peak->setBallistic("none");
    peak->setMeasurement("peak");

    // One block per analysis of the loudness meters, so that every reading is
    // seen.
    const auto step = static_cast<std::uint64_t>(sampleRate * 0.1);
    OfflineRender render(std::move(source), sampleRate, channels, std::max<std::uint64_t>(step, 1));
    for (const auto& meter : {momentary, shortTerm, integrated}) {
        render.append(meter);
    }
    render.append(peak);

    double momentaryMaximum = -std::numeric_limits<double>::infinity();
    double shortTermMaximum = momentaryMaximum;
    double largestMagnitude = 0.0;
    float integratedLevel = KROLUMeterAudioProcessor::silentLevel;
    std::vector<double> shortTermReadings;
    const bool rendered = render.run(
        frames,
        [&](const KROAudioBufferList& block, std::uint64_t done) {
            largestMagnitude = std::max(largestMagnitude, double(peak->level()));
            integratedLevel = integrated->level();
            if (block.frames() == step) {
                const double shortTermLUFS = shortTerm->level() + referenceLoudness;
                momentaryMaximum =
                    std::max(momentaryMaximum, momentary->level() + referenceLoudness);
                shortTermMaximum = std::max(shortTermMaximum, shortTermLUFS);
                shortTermReadings.push_back(shortTermLUFS);
            }
            if (progress) {
                progress(double(done) / double(frames));
            }
        },
        error);
    if (!rendered) {
        return false;
    }
    report.integrated = integratedLevel == KROLUMeterAudioProcessor::silentLevel
                            ? -std::numeric_limits<double>::infinity()
                            : integratedLevel + referenceLoudness;
    const auto firstFull = std::min(shortTermReadings.size(), shortTermWindowSteps - 1);
    report.range = loudnessRange(
        {shortTermReadings.begin() + std::ptrdiff_t(firstFull), shortTermReadings.end()});
    report.momentaryMaximum = momentaryMaximum;
    report.shortTermMaximum = shortTermMaximum;
    report.samplePeak = 20.0 * std::log10(largestMagnitude);
    return true;
}
