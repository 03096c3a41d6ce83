// The render-path operations of KROAudioBufferList at 64, 512 and
// 4096 frames of 2 channels, each beside memcpy and memset of the same bytes
// in the same run. Every benchmark reports ns/frame; the table printed at the
// end gives each operation's time as a multiple of memcpy's (and memset's).
// Goal at 4096 frames: copy, clear, scale and mix within 1.5x of memcpy, the
// statistics within 2x. Times are CPU times. On a busy machine run with
// --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true: the
// table then takes the medians.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <xmmintrin.h>

#include "KROAudioBufferList.h"
#include "KROBenchmarkSupport.h"

namespace {

constexpr std::uint32_t kChannels = 2;
constexpr int kFrameCounts[] = {64, 512, 4096};

std::shared_ptr<KROAudioBufferList> makeNoise(std::uint64_t frames, std::uint32_t seed) {
    auto list = KROAudioBufferList::bufferListWithChannels(kChannels, frames);
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            list->setValue(distribution(generator), frame, channel);
        }
    }
    return list;
}

void reportFrames(benchmark::State& state, std::uint64_t frames) {
    // Seconds per frame, shown with an SI prefix: "per_frame=1.2n" is 1.2 ns/frame.
    state.counters["per_frame"] = benchmark::Counter(static_cast<double>(frames),
                                                     benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
    state.SetBytesProcessed(
        static_cast<std::int64_t>(state.iterations() * frames * kChannels * sizeof(float)));
}

// Runs body(list, other) on two lists of noise of state.range(0) frames.
template <typename Body> void runOnLists(benchmark::State& state, Body body) {
    const auto frames = static_cast<std::uint64_t>(state.range(0));
    auto list = makeNoise(frames, 1);
    auto other = makeNoise(frames, 2);
    for (auto _ : state) {
        body(*list, *other);
        benchmark::ClobberMemory();
    }
    reportFrames(state, frames);
}

template <typename Statistic> void runStatistic(benchmark::State& state, Statistic statistic) {
    runOnLists(state, [&](KROAudioBufferList& list, KROAudioBufferList&) {
        benchmark::DoNotOptimize(statistic(list));
    });
}

void peerMemcpy(benchmark::State& state) {
    runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList& other) {
        for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
            std::memcpy(list.channel(channel), other.channel(channel), other.length());
        }
    });
}

void peerMemset(benchmark::State& state) {
    runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList&) {
        for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
            std::memset(list.channel(channel), 0, list.length());
        }
    });
}

struct Operation {
    const char* name;
    void (*run)(benchmark::State&);
};

const Operation kOperations[] = {
    {"memcpy", peerMemcpy},
    {"memset", peerMemset},
    {"copy",
     [](benchmark::State& state) {
         runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList& other) {
             list.copyBufferList(other);
         });
     }},
    {"clear",
     [](benchmark::State& state) {
         runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList&) { list.clear(); });
     }},
    {"scale",
     [](benchmark::State& state) {
         runOnLists(state,
                    [](KROAudioBufferList& list, KROAudioBufferList&) { list.scale(-1.0f); });
     }},
    {"ramp",
     [](benchmark::State& state) {
         runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList&) {
             list.scaleWithRampStart(1.0f, -1.0f);
         });
     }},
    {"mix",
     [](benchmark::State& state) {
         runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList& other) {
             list.mixAudioBufferList(other);
         });
     }},
    {"reverse",
     [](benchmark::State& state) {
         runOnLists(state, [](KROAudioBufferList& list, KROAudioBufferList&) { list.reverse(); });
     }},
    {"maximum",
     [](benchmark::State& state) {
         runStatistic(state, [](const KROAudioBufferList& list) { return list.maximum(); });
     }},
    {"minimum",
     [](benchmark::State& state) {
         runStatistic(state, [](const KROAudioBufferList& list) { return list.minimum(); });
     }},
    {"magnitude",
     [](benchmark::State& state) {
         runStatistic(state, [](const KROAudioBufferList& list) { return list.magnitude(); });
     }},
    {"rms",
     [](benchmark::State& state) {
         runStatistic(state, [](const KROAudioBufferList& list) { return list.rms(); });
     }},
    {"average",
     [](benchmark::State& state) {
         runStatistic(state, [](const KROAudioBufferList& list) { return list.average(); });
     }},
    {"energy",
     [](benchmark::State& state) {
         runStatistic(state, [](const KROAudioBufferList& list) { return list.energy(); });
     }},
};

// The console output, then a table of ns/frame and of the ratio to the peers
// measured in the same run.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (run.run_type != Run::RT_Iteration && !median)) {
                continue;
            }
            const std::pair key{run.run_name.function_name, std::stoi(run.run_name.args)};
            // With repetitions the median stands for the operation.
            if (median || !medians_.contains(key)) {
                nanoseconds_[key] = run.GetAdjustedCPUTime();
            }
            if (median) {
                medians_.insert(key);
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-10s %6s %10s %10s %10s\n", "operation", "frames", "ns/frame", "x memcpy",
                    "x memset");
        for (const Operation& operation : kOperations) {
            for (int frames : kFrameCounts) {
                printRow(operation.name, frames);
            }
        }
    }

private:
    void printRow(const std::string& name, int frames) {
        const double time = nanoseconds(name, frames);
        if (time == 0.0) {
            return;
        }
        std::printf("%-10s %6d %10.4f %10s %10s\n", name.c_str(), frames, time / frames,
                    ratio(time, nanoseconds("memcpy", frames)).c_str(),
                    ratio(time, nanoseconds("memset", frames)).c_str());
    }

    double nanoseconds(const std::string& name, int frames) const {
        const auto found = nanoseconds_.find({name, frames});
        return found == nanoseconds_.end() ? 0.0 : found->second;
    }

    static std::string ratio(double time, double peer) {
        if (peer == 0.0) {
            return "-";
        }
        char text[32];
        std::snprintf(text, sizeof text, "%.2f", time / peer);
        return text;
    }

    std::map<std::pair<std::string, int>, double> nanoseconds_;
    std::set<std::pair<std::string, int>> medians_;
};

} // namespace

int main(int argc, char** argv) {
    // Flush denormals so that repeated scaling keeps a constant cost.
    _mm_setcsr(_mm_getcsr() | 0x8040);
    for (const Operation& operation : kOperations) {
        auto* benchmark = benchmark::RegisterBenchmark(operation.name, operation.run);
        benchmark->Unit(benchmark::kNanosecond);
        for (int frames : kFrameCounts) {
            benchmark->Arg(frames);
        }
    }
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
