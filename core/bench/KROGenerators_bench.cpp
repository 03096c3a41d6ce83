// 60 s of stereo at 48 kHz rendered by the sine generator
// and by the pink noise generator through a level meter ("vu", "peak") into
// an offline head, in blocks of 512 frames, beside sox making the same 60 s
// in the same run:
//
//   sox -n -t f32 -c 2 - synth 60 sine 440      (sox's default rate, 48 kHz)
//   sox -n -t f32 -c 2 - synth 60 pinknoise
//
// sox runs through popen with its output sent to /dev/null, and its wall
// time, process start included, is the iteration's time. Every benchmark
// reports x_realtime, seconds of audio made per second of wall time; the
// table at the end gives both and the ratio ours / sox. Goal: above 1.
//
// Each iteration makes the whole 60 s, so `ctest`'s single iteration with
// --benchmark_min_time=0.001 runs each of the four once, which takes about a
// second in all: no shorter quick mode is needed, and the figures printed
// there are those of the full length.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <sys/wait.h>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioStream.h"
#include "KROBenchmarkSupport.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"
#include "KROLevelMeterAudioProcessor.h"

namespace {

constexpr double kSampleRate = 48000.0;
constexpr std::uint32_t kChannels = 2;
constexpr std::uint64_t kBlockFrames = 512;
constexpr double kSeconds = 60.0;

// An offline render head: one buffer of one block, pulled on demand.
class KROGeneratorsBenchHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROGeneratorsBenchHead)

public:
    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer = KROAudioBufferList::bufferListWithChannels(kChannels, kBlockFrames, error);
        if (KROAudioConnection* connection = inputConnection()) {
            connection->setSampleRate(kSampleRate);
            connection->setNumberOfChannels(kChannels);
            connection->setMaxFrames(kBlockFrames);
        }
        info()->setRealtime(false);
        info()->setRunning(true);
        return buffer != nullptr;
    }
    void renderBlock(std::uint64_t frames) {
        buffer->setFrames(frames);
        inputBus()->render(*buffer, *info());
        info()->setSampleTime(info()->sampleTime() + static_cast<std::int64_t>(frames));
    }

    std::shared_ptr<KROAudioBufferList> buffer;
};

KRO_REGISTER_CLASS(KROGeneratorsBenchHead, KROHeadAudioProcessor)

KROPropertyList entry(const char* className, const char* identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    entry.setObjectForKey("identifier", identifier);
    return entry;
}

KROPropertyList link(const char* input, const char* output) {
    KROPropertyList link;
    link.setObjectForKey("input", input);
    link.setObjectForKey("output", output);
    return link;
}

// source -> meter -> head.
KROPropertyList chainDescription(const char* sourceClass) {
    KROPropertyList head = entry("KROGeneratorsBenchHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList description;
    description.setObjectForKey(
        "processors", KROPropertyList::Array{head, entry("KROLevelMeterAudioProcessor", "meter"),
                                             entry(sourceClass, "source")});
    description.setObjectForKey(
        "connections", KROPropertyList::Array{link("source", "meter"), link("meter", "head")});
    return description;
}

void reportRealTime(benchmark::State& state) {
    state.counters["x_realtime"] = benchmark::Counter(
        kSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void ours(benchmark::State& state, const char* sourceClass) {
    KROAudioStream stream;
    if (!stream.initWithDescription(chainDescription(sourceClass)) || !stream.initialize()) {
        state.SkipWithError("the stream could not be built");
        return;
    }
    auto head = std::dynamic_pointer_cast<KROGeneratorsBenchHead>(stream.renderHeadProcessor());
    auto meter = std::dynamic_pointer_cast<KROLevelMeterAudioProcessor>(
        stream.processorWithIdentifier("meter"));
    const auto totalFrames = static_cast<std::uint64_t>(kSeconds * kSampleRate);
    for (auto _ : state) {
        for (std::uint64_t done = 0; done < totalFrames; done += kBlockFrames) {
            head->renderBlock(std::min(kBlockFrames, totalFrames - done));
        }
        benchmark::DoNotOptimize(meter->level());
        benchmark::ClobberMemory();
    }
    reportRealTime(state);
}

void sox(benchmark::State& state, const char* synth) {
    const std::string command =
        "exec sox -n -t f32 -c 2 - synth 60 " + std::string(synth) + " > /dev/null 2>&1";
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        FILE* pipe = ::popen(command.c_str(), "r");
        const int status = pipe ? ::pclose(pipe) : -1;
        const auto end = std::chrono::steady_clock::now();
        if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("sox did not run (scripts/install-deps installs it)");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    reportRealTime(state);
}

// The console output, then a table of multiples of real time and the ratio
// ours / sox, measured in the same run.
class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("x_realtime") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-8s %18s %18s %8s\n", "case", "ours x real time", "sox x real time",
                    "ratio");
        for (const char* name : {"sine", "pink"}) {
            const double mine = figure(std::string("kro/") + name);
            const double theirs = figure(std::string("sox/") + name);
            std::printf("%-8s %18.1f %18.1f %8.2f\n", name, mine, theirs,
                        theirs > 0 ? mine / theirs : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("kro/sine", ours, "KROSineWaveAudioGenerator")
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("sox/sine", sox, "sine 440")
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
    benchmark::RegisterBenchmark("kro/pink", ours, "KROPinkNoiseAudioGenerator")
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("sox/pink", sox, "pinknoise")
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
