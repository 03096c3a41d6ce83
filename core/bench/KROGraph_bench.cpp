// The cost of the graph itself. A render head pulls one
// block through a chain of N pass-through processors from a generator; the
// pass-throughs do no audio work, so the time is that of the buses,
// connections (activeLock) and calls. per_crossing is the time of one
// block divided by the N + 1 connections it crosses (CPU time).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <string>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"

namespace {

class KROBenchGenerator : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROBenchGenerator)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& /*info*/) override {
        const std::uint64_t frames = buffer.frames();
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            std::fill_n(buffer.channel(channel), frames, 0.25f);
        }
    }
};

class KROBenchPassThrough : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROBenchPassThrough)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override {
        if (KROAudioConnection* connection = inputConnection()) {
            connection->conformToConnection(outputConnection());
        }
        return true;
    }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        inputBus()->render(buffer, info);
    }
};

class KROBenchHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROBenchHead)

public:
    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer = KROAudioBufferList::bufferListWithChannels(2, frames, error);
        if (KROAudioConnection* connection = inputConnection()) {
            connection->setSampleRate(48000.0);
            connection->setNumberOfChannels(2);
            connection->setMaxFrames(frames);
        }
        return buffer != nullptr;
    }
    bool start(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    bool stop(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void renderBlock() {
        info()->setSampleTime(sampleTime);
        inputBus()->render(*buffer, *info());
        sampleTime += static_cast<std::int64_t>(frames);
    }

    std::uint64_t frames = 64;
    std::int64_t sampleTime = 0;
    std::shared_ptr<KROAudioBufferList> buffer;
};

KROPropertyList processorEntry(const char* className, const std::string& identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    entry.setObjectForKey("identifier", identifier);
    return entry;
}

KROPropertyList chain(int passThroughs) {
    KROPropertyList::Array processors;
    KROPropertyList head = processorEntry("KROBenchHead", "head");
    head.setObjectForKey("isRenderHead", true);
    processors.push_back(head);
    KROPropertyList::Array connections;
    std::string downstream = "head";
    for (int index = 0; index <= passThroughs; ++index) {
        const bool last = index == passThroughs;
        const std::string name = last ? "generator" : "p" + std::to_string(index);
        processors.push_back(
            processorEntry(last ? "KROBenchGenerator" : "KROBenchPassThrough", name));
        KROPropertyList connection;
        connection.setObjectForKey("input", name);
        connection.setObjectForKey("output", downstream);
        connections.push_back(connection);
        downstream = name;
    }
    KROPropertyList description;
    description.setObjectForKey("processors", std::move(processors));
    description.setObjectForKey("connections", std::move(connections));
    return description;
}

void BM_GraphChain(benchmark::State& state) {
    const int passThroughs = static_cast<int>(state.range(0));
    const auto frames = static_cast<std::uint64_t>(state.range(1));
    KROAudioStream stream;
    KROErrorPtr error;
    if (!stream.initWithDescription(chain(passThroughs), &error)) {
        state.SkipWithError("the chain could not be built");
        return;
    }
    const auto head =
        std::dynamic_pointer_cast<KROBenchHead>(stream.processorWithIdentifier("head"));
    head->frames = frames;
    if (!stream.initialize(&error) || !stream.start(&error)) {
        state.SkipWithError("the chain could not be initialised");
        return;
    }
    for (auto _ : state) {
        head->renderBlock();
        benchmark::DoNotOptimize(head->buffer->channel(0));
        benchmark::ClobberMemory();
    }
    const double crossings = passThroughs + 1;
    // Shown as a time per crossing (seconds with an SI prefix, such as 40ns).
    state.counters["per_crossing"] = benchmark::Counter(
        crossings, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["crossings"] = crossings;
}

} // namespace

KRO_REGISTER_CLASS(KROBenchGenerator, KROAudioGenerator)
KRO_REGISTER_CLASS(KROBenchPassThrough, KROAudioProcessor)
KRO_REGISTER_CLASS(KROBenchHead, KROHeadAudioProcessor)

BENCHMARK(BM_GraphChain)
    ->ArgNames({"processors", "frames"})
    ->ArgsProduct({{1, 10, 100}, {64, 512}});

BENCHMARK_MAIN();
