// The equaliser beside an FFTW overlap-add convolution with a filter of the
// same length, in the same run: 1 s of stereo noise at 48 kHz, ours in blocks
// of 512 frames at resolution 14 (n = 16384) and two qualities, the peer in
// segments that fill an FFT of twice the filter's power of two (it has the
// latency of a whole segment, ours only the filter's delay). Every benchmark
// reports x_realtime, seconds of audio filtered per second; the table at the
// end gives the ratio ours / peer.
#include <benchmark/benchmark.h>

#include <fftw3.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROBenchmarkSupport.h"
#include "KROSpectralEQAudioProcessor.h"

namespace {

constexpr double kRate = 48000.0;
constexpr std::size_t kBlock = 512;
constexpr std::size_t kFrames = 48000;

const std::vector<float>& noise() {
    static const std::vector<float> samples = [] {
        std::vector<float> values(kFrames);
        std::mt19937 random(5);
        std::normal_distribution<float> gaussian(0.0f, 0.1f);
        for (float& sample : values) {
            sample = gaussian(random);
        }
        return values;
    }();
    return samples;
}

// An equaliser between two connections with open far ends, a high shelf and
// a bandpass set.
struct EQ {
    explicit EQ(float quality) : buffer(KROAudioBufferList::bufferListWithChannels(2, kBlock)) {
        eq->init();
        eq->setQuality(quality);
        auto shelf = std::make_shared<KROSpectralEQAudioProcessorBandHighShelf>();
        shelf->setScalar(0.5);
        auto bell = std::make_shared<KROSpectralEQAudioProcessorBandBandpass>();
        bell->setScalar(2.0);
        eq->addBand(shelf);
        eq->addBand(bell);
        eq->inputBus()->setConnection(&in);
        in.setOutput(eq->inputBus());
        eq->outputBus()->setConnection(&out);
        out.setInput(eq->outputBus());
        out.setSampleRate(kRate);
        out.setNumberOfChannels(2);
        out.setMaxFrames(kBlock);
        eq->initializeForRender();
    }
    std::shared_ptr<KROSpectralEQAudioProcessor> eq =
        std::make_shared<KROSpectralEQAudioProcessor>();
    KROAudioConnection in, out;
    KROAudioStreamRenderInfo info;
    std::shared_ptr<KROAudioBufferList> buffer;
};

void reportRealTime(benchmark::State& state) {
    state.counters["x_realtime"] = benchmark::Counter(
        double(kFrames) / kRate * double(state.iterations()), benchmark::Counter::kIsRate);
}

void ours(benchmark::State& state, float quality) {
    EQ eq(quality);
    const float* samples = noise().data();
    for (auto _ : state) {
        for (std::size_t done = 0; done < kFrames; done += kBlock) {
            const std::size_t count = std::min(kBlock, kFrames - done);
            eq.buffer->setFrames(std::uint32_t(count));
            for (std::uint32_t channel = 0; channel < 2; ++channel) {
                std::copy_n(samples + done, count, eq.buffer->channel(channel));
            }
            eq.eq->render(*eq.buffer, *eq.eq->outputBus(), eq.info);
        }
        benchmark::DoNotOptimize(eq.buffer->channel(1)[0]);
    }
    reportRealTime(state);
}

// Overlap-add of a filter of taps coefficients over both channels.
void fftwOverlapAdd(benchmark::State& state, std::size_t taps) {
    std::size_t n = 1;
    while (n < taps) {
        n *= 2;
    }
    n *= 2;
    const std::size_t segment = n - taps + 1;
    float* time = fftwf_alloc_real(n);
    fftwf_complex* spectrum = fftwf_alloc_complex(n / 2 + 1);
    fftwf_plan forward = fftwf_plan_dft_r2c_1d(int(n), time, spectrum, FFTW_MEASURE);
    fftwf_plan inverse = fftwf_plan_dft_c2r_1d(int(n), spectrum, time, FFTW_MEASURE);
    // Any filter of that length: its spectrum, kept.
    std::vector<std::complex<float>> filter(n / 2 + 1);
    std::fill(time, time + n, 0.0f);
    for (std::size_t i = 0; i < taps; ++i) {
        time[i] = float(std::sin(double(i)) / double(taps));
    }
    fftwf_execute(forward);
    for (std::size_t k = 0; k <= n / 2; ++k) {
        filter[k] = {spectrum[k][0], spectrum[k][1]};
    }
    std::vector<float> output(kFrames + n);
    const float* samples = noise().data();
    for (auto _ : state) {
        for (int channel = 0; channel < 2; ++channel) {
            std::fill(output.begin(), output.end(), 0.0f);
            for (std::size_t done = 0; done < kFrames; done += segment) {
                const std::size_t count = std::min(segment, kFrames - done);
                std::copy_n(samples + done, count, time);
                std::fill(time + count, time + n, 0.0f);
                fftwf_execute(forward);
                for (std::size_t k = 0; k <= n / 2; ++k) {
                    const std::complex<float> product =
                        std::complex<float>(spectrum[k][0], spectrum[k][1]) * filter[k];
                    spectrum[k][0] = product.real();
                    spectrum[k][1] = product.imag();
                }
                fftwf_execute(inverse);
                for (std::size_t i = 0; i < n; ++i) {
                    output[done + i] += time[i] / float(n);
                }
            }
            benchmark::DoNotOptimize(output[kFrames / 2]);
        }
    }
    fftwf_destroy_plan(forward);
    fftwf_destroy_plan(inverse);
    fftwf_free(time);
    fftwf_free(spectrum);
    reportRealTime(state);
}

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("x_realtime") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-12s %18s %18s %8s\n", "taps", "ours x real time", "peer x real time",
                    "ratio");
        for (const char* taps : {"16383", "4095"}) {
            const double a = figure(std::string("kro/") + taps);
            const double b = figure(std::string("fftw-ola/") + taps);
            std::printf("%-12s %18.1f %18.1f %8.3f\n", taps, a, b, b > 0 ? a / b : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("kro/16383", ours, 1.0f)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("fftw-ola/16383", fftwOverlapAdd, 16383)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("kro/4095", ours, 0.25f)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("fftw-ola/4095", fftwOverlapAdd, 4095)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
