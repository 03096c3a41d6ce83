// The DC remover's filter rendering the tail of an impulse into silence:
// the time of a block of 512 frames at the start of the tail, 0.75 s into it
// (where its samples, as floats, would be subnormal) and 5.75 s into it
// (where the state, as doubles, would be). Beside it, the same one-pole
// filter as a plain loop without the flush of a silent state. The program
// leaves the processor's flush-to-zero mode as the system sets it (off), as
// a head that forgot it would.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KROBenchmarkSupport.h"
#include "KROBiquad.h"

namespace {

constexpr std::size_t kFrames = 512;
constexpr double kPole = 1.0 - 126.0 / 48000.0;
constexpr int kTimedBlocks = 8;
const double kSeconds[] = {0.0, 0.75, 5.75};

// The plain filter: y[n] = x[n] - x[n-1] + p y[n-1], in double.
struct PlainFilter {
    double x1 = 0.0;
    double y1 = 0.0;
    void run(const float* in, float* out, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) {
            const double y = double(in[i]) - x1 + kPole * y1;
            x1 = in[i];
            y1 = y;
            out[i] = float(y);
        }
    }
};

// Renders an impulse and then silence up to the start block untimed, and
// times kTimedBlocks blocks from there.
template <typename Render> void tail(benchmark::State& state, Render makeRenderer) {
    const auto start = std::size_t(state.range(0));
    std::vector<float> impulse(kFrames, 0.0f);
    impulse[0] = 1.0f;
    const std::vector<float> silence(kFrames, 0.0f);
    std::vector<float> out(kFrames);
    for (auto _ : state) {
        auto render = makeRenderer();
        render(impulse.data(), out.data());
        for (std::size_t block = 1; block < start; ++block) {
            render(silence.data(), out.data());
        }
        const auto begin = std::chrono::steady_clock::now();
        for (int block = 0; block < kTimedBlocks; ++block) {
            render(silence.data(), out.data());
            benchmark::DoNotOptimize(out.data());
        }
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - begin).count() / kTimedBlocks);
    }
    state.counters["ns_per_block"] = benchmark::Counter(
        double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void ours(benchmark::State& state) {
    tail(state, [] {
        const double coefficients[5] = {1.0, -1.0, 0.0, -kPole, 0.0};
        std::shared_ptr<kro_biquadm_setup> setup(kro_biquadm_create_setup(coefficients, 1, 1),
                                                 kro_biquadm_destroy_setup);
        return [setup](const float* in, float* out) {
            kro_biquadm(setup.get(), &in, 1, &out, 1, kFrames);
        };
    });
}

void plain(benchmark::State& state) {
    tail(state, [] {
        return [filter = PlainFilter()](const float* in, float* out) mutable {
            filter.run(in, out, kFrames);
        };
    });
}

std::string blockArgument(double seconds) {
    return std::to_string(std::size_t(seconds * 48000.0 / double(kFrames)));
}

class TailReporter : public KROCounterReporter {
public:
    TailReporter() : KROCounterReporter("ns_per_block", 1e9) {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-10s %16s %16s\n", "tail at", "ours ns/block", "plain ns/block");
        for (const double seconds : kSeconds) {
            std::printf("%8.2f s %16.0f %16.0f\n", seconds,
                        figure("dc/ours/" + blockArgument(seconds)),
                        figure("dc/plain/" + blockArgument(seconds)));
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    for (const double seconds : kSeconds) {
        const auto block = std::int64_t(seconds * 48000.0 / double(kFrames));
        for (auto* benchmark : {benchmark::RegisterBenchmark("dc/ours", ours),
                                benchmark::RegisterBenchmark("dc/plain", plain)}) {
            benchmark->Arg(block)->UseManualTime()->Iterations(20);
            benchmark->Unit(benchmark::kNanosecond);
        }
    }
    TailReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
