// The compressor's real-time factor: 20 s of stereo noise at 48 kHz in blocks
// of 512 frames through KRODynamicsAudioProcessor compressing 4:1 above
// -30 dB, beside the same samples only copied through the same processor with
// nothing to do (its table the identity), in the same run. Each benchmark
// reports x_realtime, seconds of audio per second; the table gives both and
// the cost of the engine as a fraction of a 512-frame block at 48 kHz
// (10.7 ms). "silence" renders the engine's tail into silence, whose cost
// must stay that of sound.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROBenchmarkSupport.h"
#include "KRODynamicsAudioProcessor.h"

namespace {

constexpr double kRate = 48000.0;
constexpr std::size_t kBlock = 512;
constexpr double kSeconds = 20.0;
constexpr std::size_t kFrames = std::size_t(kSeconds * kRate);

struct Compressor {
    explicit Compressor(bool compress)
        : buffer(KROAudioBufferList::bufferListWithChannels(2, kBlock)) {
        dynamics->init();
        dynamics->inputBus()->setConnection(&in);
        in.setOutput(dynamics->inputBus());
        dynamics->outputBus()->setConnection(&out);
        out.setInput(dynamics->outputBus());
        out.setSampleRate(kRate);
        out.setNumberOfChannels(2);
        out.setMaxFrames(kBlock);
        dynamics->initializeForRender();
        dynamics->setCompressionEnabled(compress);
        dynamics->setCompressionThreshold(-30.0f);
        dynamics->setCompressionSlope(4.0f);
        dynamics->update();
    }
    void render(const std::vector<float>& samples, std::size_t start) {
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            std::copy_n(samples.begin() + std::ptrdiff_t(start), kBlock, buffer->channel(channel));
        }
        dynamics->render(*buffer, *dynamics->outputBus(), info);
    }

    std::shared_ptr<KRODynamicsAudioProcessor> dynamics =
        std::make_shared<KRODynamicsAudioProcessor>();
    KROAudioConnection in, out;
    KROAudioStreamRenderInfo info;
    std::shared_ptr<KROAudioBufferList> buffer;
};

const std::vector<float>& noise() {
    static const std::vector<float> samples = [] {
        std::vector<float> values(kFrames);
        std::mt19937 random(5);
        std::normal_distribution<float> gaussian(0.0f, 0.2f);
        for (float& value : values) {
            value = gaussian(random);
        }
        return values;
    }();
    return samples;
}

void run(benchmark::State& state, bool compress, bool silent) {
    Compressor compressor(compress);
    const std::vector<float> silence(kFrames, 0.0f);
    const std::vector<float>& samples = silent ? silence : noise();
    for (std::size_t start = 0; silent && start + kBlock <= kFrames; start += kBlock) {
        compressor.render(noise(), start);
    }
    for (auto _ : state) {
        for (std::size_t start = 0; start + kBlock <= kFrames; start += kBlock) {
            compressor.render(samples, start);
        }
        benchmark::DoNotOptimize(compressor.dynamics->currentScalar());
    }
    state.counters["x_realtime"] = benchmark::Counter(
        kSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

class RealTimeReporter : public KROCounterReporter {
public:
    RealTimeReporter() : KROCounterReporter("x_realtime") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-22s %16s %22s\n", "case", "x real time", "share of a 512 block");
        for (const char* name : {"kro/compress", "kro/compress/silence", "kro/identity"}) {
            const double factor = figure(name);
            std::printf("%-22s %16.1f %21.2f%%\n", name, factor, factor > 0 ? 100.0 / factor : 0.0);
        }
        const double silence = figure("kro/compress/silence"), sound = figure("kro/compress");
        std::printf("silence / sound: %.2f\n", sound > 0 ? silence / sound : 0.0);
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("kro/compress", run, true, false)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("kro/compress/silence", run, true, true)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("kro/identity", run, false, false)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    RealTimeReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
