// Eight generators into a mixer through eight faders, each fader following
// an automation of its gain in real time (one ramp a block), two channels:
// the graph's time per block beside the same work written by hand as one
// plain loop, measured in the same run. Two kinds of source: the library's
// sine generator (the work a real graph does) and a constant (no work, so
// that what remains is the cost of the graph itself).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioAutomation.h"
#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROBenchmarkSupport.h"
#include "KROClassRegistry.h"
#include "KROFaderAudioProcessor.h"
#include "KROHeadAudioProcessor.h"
#include "KROSineWaveAudioGenerator.h"

namespace {

constexpr int kSources = 8;
constexpr std::uint32_t kChannels = 2;
constexpr double kRate = 48000.0;
// Each fader's automation: -30 dB to 0 dB over 100 s, in decibels.
constexpr double kAutomationLength = 100.0;
constexpr float kFrom = -30.0f;
constexpr float kTo = 0.0f;

float frequencyOf(int source) {
    return 220.0f * float(source + 1);
}

float constantOf(int source) {
    return 0.01f * float(source + 1);
}

class KROBenchConstant : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROBenchConstant)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& /*info*/) override {
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            std::fill_n(buffer.channel(channel), buffer.frames(), value);
        }
    }
    float value = 0.0f;
};

// A real-time head on a running transport.
class KROBenchRealtimeHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROBenchRealtimeHead)

public:
    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer = KROAudioBufferList::bufferListWithChannels(kChannels, frames, error);
        KROAudioConnection* const connection = inputConnection();
        connection->setSampleRate(kRate);
        connection->setNumberOfChannels(kChannels);
        connection->setMaxFrames(frames);
        info()->setRunning(true);
        return buffer != nullptr;
    }
    bool start(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    bool stop(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void renderBlock() {
        info()->setSampleTime(sampleTime);
        inputBus()->render(*buffer, *info());
        sampleTime += std::int64_t(frames);
    }

    std::uint64_t frames = 64;
    std::int64_t sampleTime = 0;
    std::shared_ptr<KROAudioBufferList> buffer;
};

KROPropertyList entry(const std::string& className, const std::string& identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    entry.setObjectForKey("identifier", identifier);
    return entry;
}

KROPropertyList join(const std::string& from, const std::string& to) {
    KROPropertyList entry;
    entry.setObjectForKey("input", from);
    entry.setObjectForKey("output", to);
    return entry;
}

KROPropertyList automation() {
    KROPropertyList automation;
    automation.setObjectForKey("parameterKey", "gain");
    automation.setObjectForKey("length", kAutomationLength);
    automation.setObjectForKey("minimum", double(kFrom));
    automation.setObjectForKey("maximum", double(kTo));
    return automation;
}

KROPropertyList graph(const std::string& sourceClass) {
    KROPropertyList head = entry("KROBenchRealtimeHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList mixer = entry("KROMixerAudioProcessor", "mixer");
    KROPropertyList::Array buses;
    KROPropertyList::Array processors{head};
    KROPropertyList::Array connections{join("mixer", "head")};
    for (int source = 0; source < kSources; ++source) {
        const std::string n = std::to_string(source);
        KROPropertyList bus;
        bus.setObjectForKey("identifier", "in" + n);
        buses.push_back(bus);
        KROPropertyList fader = entry("KROFaderAudioProcessor", "fader" + n);
        fader.setObjectForKey("automations", KROPropertyList::Array{automation()});
        processors.push_back(fader);
        processors.push_back(entry(sourceClass, "source" + n));
        connections.push_back(join("source" + n, "fader" + n));
        connections.push_back(join("fader" + n, "in" + n));
    }
    mixer.setObjectForKey("inputBuses", std::move(buses));
    processors.push_back(mixer);
    KROPropertyList description;
    description.setObjectForKey("processors", std::move(processors));
    description.setObjectForKey("connections", std::move(connections));
    return description;
}

void ours(benchmark::State& state, const std::string& sourceClass) {
    KROAudioStream stream;
    if (!stream.initWithDescription(graph(sourceClass))) {
        state.SkipWithError("the graph could not be built");
        return;
    }
    auto head =
        std::dynamic_pointer_cast<KROBenchRealtimeHead>(stream.processorWithIdentifier("head"));
    head->frames = std::uint64_t(state.range(0));
    for (int source = 0; source < kSources; ++source) {
        const auto processor = stream.processorWithIdentifier("source" + std::to_string(source));
        if (auto sine = std::dynamic_pointer_cast<KROSineWaveAudioGenerator>(processor)) {
            sine->setFrequency(frequencyOf(source));
        } else if (auto constant = std::dynamic_pointer_cast<KROBenchConstant>(processor)) {
            constant->value = constantOf(source);
        }
    }
    if (!stream.initialize() || !stream.start()) {
        state.SkipWithError("the graph could not be initialised");
        return;
    }
    for (auto _ : state) {
        head->renderBlock();
        benchmark::DoNotOptimize(head->buffer->channel(0));
        benchmark::ClobberMemory();
    }
    state.counters["ns_per_block"] = benchmark::Counter(
        double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The same sources, gains and sum as one plain loop over plain arrays.
void byHand(benchmark::State& state, bool sine) {
    const auto frames = std::size_t(state.range(0));
    std::vector<float> source(frames);
    std::vector<float> ramp(frames);
    std::array<std::vector<float>, kChannels> mix{std::vector<float>(frames),
                                                  std::vector<float>(frames)};
    std::array<double, kSources> phase{};
    std::int64_t sampleTime = 0;
    const auto gainAt = [](double seconds) {
        const double decibels = kFrom + (kTo - kFrom) * seconds / kAutomationLength;
        return std::pow(10.0f, float(decibels) / 20.0f);
    };
    for (auto _ : state) {
        const double t0 = double(sampleTime) / kRate;
        const float start = gainAt(t0);
        const float step = (gainAt(t0 + double(frames) / kRate) - start) / float(frames);
        for (std::size_t i = 0; i < frames; ++i) {
            ramp[i] = start + float(int(i)) * step;
        }
        for (auto& channel : mix) {
            std::fill(channel.begin(), channel.end(), 0.0f);
        }
        for (int s = 0; s < kSources; ++s) {
            if (sine) {
                const double increment = frequencyOf(s) * 6.283185307179586 / kRate;
                for (std::size_t i = 0; i < frames; ++i) {
                    source[i] = float(std::sin(double(i) * increment + phase[std::size_t(s)]));
                }
                phase[std::size_t(s)] += double(frames) * increment;
            } else {
                std::fill(source.begin(), source.end(), constantOf(s));
            }
            for (auto& channel : mix) {
                for (std::size_t i = 0; i < frames; ++i) {
                    channel[i] += source[i] * ramp[i];
                }
            }
        }
        sampleTime += std::int64_t(frames);
        benchmark::DoNotOptimize(mix[0].data());
        benchmark::ClobberMemory();
    }
    state.counters["ns_per_block"] = benchmark::Counter(
        double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The console output, then the time per block of the graph beside the plain
// loop and their ratio.
class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("ns_per_block", 1e9) {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-12s %14s %14s %8s\n", "case", "graph ns/block", "loop ns/block", "ratio");
        for (const char* kind : {"sine", "constant"}) {
            for (const int frames : {64, 512}) {
                const std::string suffix = std::string(kind) + "/" + std::to_string(frames);
                const double graph = figure("graph/" + suffix);
                const double loop = figure("loop/" + suffix);
                std::printf("%-12s %14.0f %14.0f %8.2f\n", suffix.c_str(), graph, loop,
                            loop > 0 ? graph / loop : 0.0);
            }
        }
    }
};

} // namespace

KRO_REGISTER_CLASS(KROBenchConstant, KROAudioGenerator)
KRO_REGISTER_CLASS(KROBenchRealtimeHead, KROHeadAudioProcessor)

int main(int argc, char** argv) {
    for (const int frames : {64, 512}) {
        benchmark::RegisterBenchmark("graph/sine", ours, "KROSineWaveAudioGenerator")->Arg(frames);
        benchmark::RegisterBenchmark("loop/sine", byHand, true)->Arg(frames);
        benchmark::RegisterBenchmark("graph/constant", ours, "KROBenchConstant")->Arg(frames);
        benchmark::RegisterBenchmark("loop/constant", byHand, false)->Arg(frames);
    }
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
