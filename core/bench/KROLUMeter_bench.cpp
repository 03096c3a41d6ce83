// The loudness meter beside libebur128 in the same run: 20 s of stereo noise
// at 48 kHz in blocks of 512 frames, each reading (momentary, short-term,
// integrated) taken every 100 ms, as the meter makes it. libebur128 is given
// the same interleaved samples and asked for the same reading at each 100 ms.
// Every benchmark reports x_realtime, seconds of audio measured per second;
// the table at the end gives both and the ratio ours / libebur128. Goal:
// above 1.
//
// "tail" renders a tone and then silence, for which the filters decay towards
// zero: its cost per block must stay that of the tone (ratio about 1), as it
// does when the decaying filters never reach the slow subnormal numbers.
#include <benchmark/benchmark.h>

#include <ebur128.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROBenchmarkSupport.h"
#include "KROLUMeterAudioProcessor.h"

namespace {

constexpr double kRate = 48000.0;
constexpr std::size_t kBlock = 512;
constexpr double kSeconds = 20.0;
constexpr std::size_t kFrames = std::size_t(kSeconds * kRate);

// Stereo noise at about -20 dBFS, interleaved.
const std::vector<float>& noise() {
    static const std::vector<float> samples = [] {
        std::vector<float> interleaved(2 * kFrames);
        std::mt19937 random(17);
        std::normal_distribution<float> gaussian(0.0f, 0.1f);
        for (float& sample : interleaved) {
            sample = gaussian(random);
        }
        return interleaved;
    }();
    return samples;
}

// A meter between two connections with open far ends, rendering in place.
struct Meter {
    explicit Meter(const char* type)
        : buffer(KROAudioBufferList::bufferListWithChannels(2, kBlock)) {
        meter->init();
        meter->setMeasurementType(type);
        meter->inputBus()->setConnection(&in);
        in.setOutput(meter->inputBus());
        meter->outputBus()->setConnection(&out);
        out.setInput(meter->outputBus());
        out.setSampleRate(kRate);
        out.setNumberOfChannels(2);
        out.setMaxFrames(kBlock);
        meter->initializeForRender();
    }
    void render(const float* interleaved, std::size_t frames) {
        buffer->setFrames(frames);
        float* left = buffer->channel(0);
        float* right = buffer->channel(1);
        for (std::size_t frame = 0; frame < frames; ++frame) {
            left[frame] = interleaved[2 * frame];
            right[frame] = interleaved[2 * frame + 1];
        }
        meter->render(*buffer, *meter->outputBus(), info);
    }

    std::shared_ptr<KROLUMeterAudioProcessor> meter = std::make_shared<KROLUMeterAudioProcessor>();
    KROAudioConnection in, out;
    KROAudioStreamRenderInfo info;
    std::shared_ptr<KROAudioBufferList> buffer;
};

void reportRealTime(benchmark::State& state) {
    state.counters["x_realtime"] = benchmark::Counter(
        kSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void ours(benchmark::State& state, const char* type) {
    Meter meter(type);
    const float* samples = noise().data();
    for (auto _ : state) {
        for (std::size_t done = 0; done < kFrames; done += kBlock) {
            meter.render(samples + 2 * done, std::min(kBlock, kFrames - done));
        }
        benchmark::DoNotOptimize(meter.meter->level());
    }
    reportRealTime(state);
}

void libebur128(benchmark::State& state, int mode, int (*reading)(ebur128_state*, double*)) {
    const float* samples = noise().data();
    for (auto _ : state) {
        ebur128_state* meter = ebur128_init(2, unsigned(kRate), mode);
        std::size_t sinceReading = 0;
        double value = 0.0;
        for (std::size_t done = 0; done < kFrames; done += kBlock) {
            const std::size_t frames = std::min(kBlock, kFrames - done);
            ebur128_add_frames_float(meter, samples + 2 * done, frames);
            sinceReading += frames;
            if (sinceReading >= 4800) {
                sinceReading -= 4800;
                reading(meter, &value);
            }
        }
        benchmark::DoNotOptimize(value);
        ebur128_destroy(&meter);
    }
    reportRealTime(state);
}

// A tone for the first half, silence after; each half timed on its own.
void tail(benchmark::State& state, bool silentHalf) {
    std::vector<float> tone(2 * kFrames / 2);
    for (std::size_t frame = 0; frame < kFrames / 2; ++frame) {
        tone[2 * frame] = tone[2 * frame + 1] = float(0.5 * std::sin(0.13 * double(frame)));
    }
    const std::vector<float> silence(tone.size(), 0.0f);
    Meter meter(KROLUMeterMeasurementTypeMomentary);
    for (auto _ : state) {
        state.PauseTiming();
        meter.meter->reset();
        if (silentHalf) {
            for (std::size_t done = 0; done < kFrames / 2; done += kBlock) {
                meter.render(tone.data() + 2 * done, std::min(kBlock, kFrames / 2 - done));
            }
        }
        state.ResumeTiming();
        const std::vector<float>& half = silentHalf ? silence : tone;
        for (std::size_t done = 0; done < kFrames / 2; done += kBlock) {
            meter.render(half.data() + 2 * done, std::min(kBlock, kFrames / 2 - done));
        }
        benchmark::DoNotOptimize(meter.meter->level());
    }
    state.counters["x_realtime"] = benchmark::Counter(
        kSeconds / 2.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("x_realtime") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-11s %18s %18s %8s\n", "reading", "ours x real time", "peer x real time",
                    "ratio");
        const std::pair<std::string, std::string> rows[] = {
            {"kro/momentary", "libebur128/momentary"},
            {"kro/shortTerm", "libebur128/shortTerm"},
            {"kro/integrated", "libebur128/integrated"},
            {"kro/tail/silence", "kro/tail/tone"}};
        for (const auto& [mine, theirs] : rows) {
            const double a = figure(mine), b = figure(theirs);
            std::printf("%-11s %18.1f %18.1f %8.2f\n", mine.substr(4).c_str(), a, b,
                        b > 0 ? a / b : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    const struct {
        const char* type;
        int mode;
        int (*reading)(ebur128_state*, double*);
    } readings[] = {
        {KROLUMeterMeasurementTypeMomentary, EBUR128_MODE_M, ebur128_loudness_momentary},
        {KROLUMeterMeasurementTypeShortTerm, EBUR128_MODE_S, ebur128_loudness_shortterm},
        {KROLUMeterMeasurementTypeIntegrated, EBUR128_MODE_I, ebur128_loudness_global},
    };
    for (const auto& reading : readings) {
        benchmark::RegisterBenchmark((std::string("kro/") + reading.type).c_str(), ours,
                                     reading.type)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark((std::string("libebur128/") + reading.type).c_str(),
                                     libebur128, reading.mode, reading.reading)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    benchmark::RegisterBenchmark("kro/tail/tone", tail, false)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("kro/tail/silence", tail, true)->Unit(benchmark::kMillisecond);
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
