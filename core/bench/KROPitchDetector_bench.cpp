// The pitch detector beside aubio's yin on the same hop, in the same run: 5 s
// of a stereo sawtooth at 48 kHz rendered in blocks of 512 frames through our
// processor (analysing channel 0 every 1024 frames over 2048), and aubio's
// yin (and, for scale, its FFT variant yinfft) with a buffer of 2048 and a
// hop of 1024 on the same channel. Every benchmark reports x_realtime, seconds
// of audio analysed per second; the table gives the ratio ours / peer.
#include <benchmark/benchmark.h>

#include <aubio/aubio.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROBenchmarkSupport.h"
#include "KROPitchDetectorAudioProcessor.h"

namespace {

constexpr double kRate = 48000.0;
constexpr std::size_t kBlock = 512;
constexpr std::size_t kHop = 1024;
constexpr std::size_t kFrames = 5 * 48000;

const std::vector<float>& sawtooth() {
    static const std::vector<float> samples = [] {
        std::vector<float> values(kFrames);
        for (std::size_t i = 0; i < kFrames; ++i) {
            const double phase = std::fmod(220.0 * double(i) / kRate, 1.0);
            values[i] = float(0.5 * (2.0 * phase - 1.0));
        }
        return values;
    }();
    return samples;
}

void reportRealTime(benchmark::State& state) {
    state.counters["x_realtime"] = benchmark::Counter(
        double(kFrames) / kRate * double(state.iterations()), benchmark::Counter::kIsRate);
}

void ours(benchmark::State& state) {
    auto detector = std::make_shared<KROPitchDetectorAudioProcessor>();
    detector->init();
    KROAudioConnection in, out;
    KROAudioStreamRenderInfo info;
    detector->inputBus()->setConnection(&in);
    in.setOutput(detector->inputBus());
    detector->outputBus()->setConnection(&out);
    out.setInput(detector->outputBus());
    out.setSampleRate(kRate);
    out.setNumberOfChannels(2);
    out.setMaxFrames(kBlock);
    detector->initializeForRender();
    auto buffer = KROAudioBufferList::bufferListWithChannels(2, kBlock);
    const float* samples = sawtooth().data();
    for (auto _ : state) {
        for (std::size_t done = 0; done < kFrames; done += kBlock) {
            const std::size_t count = std::min(kBlock, kFrames - done);
            buffer->setFrames(std::uint32_t(count));
            std::copy_n(samples + done, count, buffer->channel(0));
            std::copy_n(samples + done, count, buffer->channel(1));
            detector->render(*buffer, *detector->outputBus(), info);
        }
        benchmark::DoNotOptimize(detector->semitone());
    }
    reportRealTime(state);
}

void aubio(benchmark::State& state, const char* method) {
    aubio_pitch_t* pitch = new_aubio_pitch(method, 2 * kHop, kHop, uint_t(kRate));
    fvec_t* input = new_fvec(kHop);
    fvec_t* output = new_fvec(1);
    const float* samples = sawtooth().data();
    for (auto _ : state) {
        for (std::size_t done = 0; done + kHop <= kFrames; done += kHop) {
            std::copy_n(samples + done, kHop, input->data);
            aubio_pitch_do(pitch, input, output);
        }
        benchmark::DoNotOptimize(output->data[0]);
    }
    del_fvec(output);
    del_fvec(input);
    del_aubio_pitch(pitch);
    reportRealTime(state);
}

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("x_realtime") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        const double mine = figure("kro");
        std::printf("\n%-14s %18s %18s %8s\n", "peer", "ours x real time", "peer x real time",
                    "ratio");
        for (const char* peer : {"aubio/yin", "aubio/yinfft"}) {
            const double theirs = figure(peer);
            std::printf("%-14s %18.1f %18.1f %8.2f\n", peer, mine, theirs,
                        theirs > 0 ? mine / theirs : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("kro", ours)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("aubio/yin", aubio, "yin")
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("aubio/yinfft", aubio, "yinfft")
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
