// Processors, buses and connections: pull and push, settings, real-time and threads.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <thread>

#include "KROAllocationGuard.h"
#include "KROAudioAutomation.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROGraphTestClasses.h"

using namespace kro_graph_test;

namespace {

class KROTestAutomation : public KROAudioAutomation {
    KRO_DECLARE_CLASS(KROTestAutomation)
};

// One connection from upstream's bus 0 to downstream's bus 0, with a format.
struct Link {
    Link(KROAudioProcessor& upstream, KROAudioProcessor& downstream, std::uint64_t channels = 2,
         std::uint64_t maxFrames = 64)
        : connection(std::make_shared<KROAudioConnection>()) {
        KROAudioStream().connectOutputBus(*upstream.outputBus(), *connection);
        KROAudioStream().connectInputBus(*downstream.inputBus(), *connection);
        connection->setNumberOfChannels(channels);
        connection->setMaxFrames(maxFrames);
    }
    std::shared_ptr<KROAudioConnection> connection;
};

// Settings whose "automations" name these classes and keys.
KROPropertyList automations(const std::vector<std::pair<const char*, const char*>>& elements) {
    KROPropertyList::Array array;
    for (const auto& [className, key] : elements) {
        array.push_back(entry(className, nullptr));
        array.back().setObjectForKey("parameterKey", key);
    }
    KROPropertyList settings;
    settings.setObjectForKey("automations", std::move(array));
    return settings;
}

// "class:key" of each automation, marked when it has lost its processor.
std::vector<std::string> automationsOf(const KROAudioProcessor& processor) {
    std::vector<std::string> keys;
    for (const auto& automation : processor.enumeratorOfAutomations()) {
        keys.push_back(automation->className() + ":" + automation->parameterKey() +
                       (automation->processor() == &processor ? "" : " (no processor)"));
    }
    return keys;
}

} // namespace

KRO_REGISTER_CLASS(KROTestAutomation, KROAudioAutomation)

// A pull meets silence, an untouched buffer (refused format) or the source;
// bus targets surround it, each held once.
TEST(KROAudioConnection, APullMeetsSilenceAnUntouchedBufferOrTheSource) {
    using Change = std::function<void(KROAudioConnection&)>;
    const Change none = [](auto&) {};
    const struct {
        const char* what;
        Change change;
        std::uint64_t channels, maxFrames;
        float expected;
    } cases[] = {
        {"inactive", [](auto& c) { c.setActive(false); }, 2, 64, 0.0f},
        {"other channel count", none, 1, 64, 0.25f},
        {"maxFrames below the frames", none, 2, 63, 0.25f},
        {"cleared", [](auto& c) { c.clear(); }, 2, 64, 0.25f},
        {"open upstream end", [](auto& c) { KROAudioStream().disconnectOutputBus(*c.outputBus()); },
         2, 64, 0.25f},
        {"exactly maxFrames", none, 2, 64, 0.5f},
        {"active again", [](auto& c) { c.setActive(false), c.setActive(true); }, 2, 64, 0.5f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto generator = make<KROTestGenerator>();
        auto processor = make<KROTestPassThrough>();
        Link link(*generator, *processor, c.channels, c.maxFrames);
        c.change(*link.connection);
        KROTestObserver onInput, onOutput;
        processor->inputBus()->addPreRenderTarget(&onInput);
        processor->inputBus()->addPreRenderTarget(&onInput);
        processor->inputBus()->addPostRenderTarget(&onInput);
        generator->outputBus()->addPostRenderTarget(&onOutput);
        auto buffer = filledBuffer(0.25f);
        KROAudioStreamRenderInfo info;
        processor->inputBus()->render(*buffer, info);
        EXPECT_TRUE(allSamplesAre(*buffer, c.expected));
        const int renders = c.expected == 0.5f ? 1 : 0;
        EXPECT_EQ(generator->renderCount.load(), std::uint64_t(renders));
        EXPECT_EQ(std::tuple(onInput.willRenderCount, onInput.didRenderCount,
                             onInput.firstSampleBefore, onInput.firstSampleAfter,
                             onOutput.didRenderCount),
                  std::tuple(1, 1, 0.25f, c.expected, renders));
        processor->inputBus()->removePreRenderTarget(&onInput);
        processor->inputBus()->removePostRenderTarget(&onInput);
        processor->inputBus()->render(*buffer, info);
        EXPECT_EQ(onInput.willRenderCount + onInput.didRenderCount, 2);
        generator->outputBus()->removePostRenderTarget(&onOutput);
    }
    auto buffer = filledBuffer(0.25f);
    KROAudioStreamRenderInfo info;
    make<KROTestPassThrough>()->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.0f));
    fill(*buffer, 0.25f);
    KROAudioOutputBus().render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.0f));
}

// A push goes only through active connections of its format and processors that pass it on.
TEST(KROAudioConnection, APushGoesOnlyWhereItFits) {
    const struct {
        const char* what;
        std::uint64_t channels;
        bool active, plainBetween, arrives;
    } cases[] = {
        {"active, same format", 2, true, false, true},
        {"inactive", 2, false, false, false},
        {"other channel count", 1, true, false, false},
        {"a processor that does not pass it on", 2, true, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto source = make<KROTestPassThrough>();
        auto plain = make<KROTestPlainProcessor>();
        auto sink = make<KROTestPassThrough>();
        sink->gain = 2.0f;
        Link first(*source, c.plainBetween ? static_cast<KROAudioProcessor&>(*plain) : *sink,
                   c.channels);
        std::optional<Link> second;
        if (c.plainBetween) {
            second.emplace(*plain, *sink);
        }
        first.connection->setActive(c.active);
        KROTestObserver observer;
        sink->inputBus()->addPreRenderTarget(&observer);
        auto buffer = filledBuffer(0.25f);
        KROAudioStreamRenderInfo info;
        source->outputBus()->input(*buffer, info);
        EXPECT_EQ(sink->inputCount, c.arrives ? 1 : 0);
        EXPECT_TRUE(allSamplesAre(*buffer, c.arrives ? 0.5f : 0.25f));
        EXPECT_EQ(observer.willRenderCount, 0);
        sink->inputBus()->removePreRenderTarget(&observer);
    }
}

// Refused bus counts report their code (initialised first); shrinking keeps the first buses.
TEST(KROAudioProcessor, BusCountsChangeWithinTheirLimits) {
    const struct {
        std::shared_ptr<KROAudioProcessor> processor;
        bool initialised, inputs;
        std::uint64_t count;
        std::int64_t code;
    } cases[] = {
        {make<KROTestGenerator>(), false, true, 1, 2},
        {make<KROTestPassThrough>(), false, false, 2, 2},
        {make<KROTestPassThrough>(), true, true, 1, 1},
        {make<KROTestPassThrough>(), true, false, 1, 1},
    };
    for (const auto& c : cases) {
        c.processor->setInitialized(c.initialised);
        KROErrorPtr error;
        EXPECT_FALSE(c.inputs ? c.processor->setNumberOfInputBuses(c.count, &error)
                              : c.processor->setNumberOfOutputBuses(c.count, &error));
        expectError<KROAudioProcessorError>(
            error, c.code,
            KROLocalizedString(c.inputs ? "KROAudioProcessor_action_settingNumberOfInputBuses"
                                        : "KROAudioProcessor_action_settingNumberOfOutputBuses"));
        EXPECT_EQ(c.processor->numberOfOutputBuses(), 1u);
    }
    auto processor = make<KROTestMultiBusProcessor>();
    ASSERT_TRUE(processor->setNumberOfInputBuses(3));
    const auto buses = processor->inputBuses();
    EXPECT_EQ(buses[2]->destination(), processor.get());
    ASSERT_TRUE(processor->setNumberOfInputBuses(2));
    EXPECT_EQ(processor->inputBuses(),
              KROAudioProcessor::InputBuses(buses.begin(), buses.end() - 1));
}

// The base initialise for input fails with the class name in its action (for
// render: KROAudioStream's rollback test).
TEST(KROAudioProcessor, AClassThatDoesNotInitialiseSaysSo) {
    KROErrorPtr error;
    EXPECT_FALSE(make<KROTestPlainProcessor>()->initializeForInput(&error));
    expectError<KROAudioProcessorError>(
        error, 6,
        KROStringWithFormatArguments(
            KROLocalizedString("KROAudioProcessor_action_initializeForInput"),
            "KROTestPlainProcessor"));
}

// Values of the wrong type count as absent. Kept: a generator has no input bus
// nor channel configuration until settings give one.
TEST(KROAudioProcessor, SettingsOfAProcessorAndAGenerator) {
    auto processor = make<KROAudioProcessor>();
    const KROPropertyList settings = processor->settings();
    EXPECT_EQ(
        *settings.objectForKey("channelConfigurations"),
        KROPropertyList(KROPropertyList::Array{KROPropertyList(KROPropertyList::Array{-1, -1})}));
    KROPropertyList wrong;
    wrong.setObjectForKey("identifier", 12);
    wrong.setObjectForKey("automations", "none");
    for (const KROPropertyList& configurations :
         {KROPropertyList(2),
          KROPropertyList(KROPropertyList::Array{KROPropertyList(KROPropertyList::Array{1})})}) {
        wrong.setObjectForKey("channelConfigurations", configurations);
        EXPECT_TRUE(processor->setSettings(wrong));
        EXPECT_EQ(processor->settings(), settings);
    }
    auto generator = make<KROAudioGenerator>();
    EXPECT_EQ(generator->numberOfInputBuses(), 0u);
    EXPECT_FALSE(generator->parameters() || generator->channelConfigurations());
    KROPropertyList given;
    given.setObjectForKey("channelConfigurations",
                          KROPropertyList::Array{KROPropertyList(KROPropertyList::Array{0, 2})});
    ASSERT_TRUE(generator->setSettings(given));
    EXPECT_EQ(*generator->channelConfigurations(), (std::vector<KROChannelConfiguration>{{0, 2}}));
}

// "automations" replaces the list, unknown classes as KROAudioAutomation. Kept:
// removing at one index leaves every other automation without its processor.
TEST(KROAudioProcessor, AutomationsComeFromSettingsAndLeaveTogether) {
    auto processor = make<KROTestPassThrough>();
    ASSERT_TRUE(processor->setSettings(automations(
        {{"KRONoSuch", "a"}, {"", "b"}, {"KROTestAutomation", "c"}, {"KROTestPassThrough", "d"}})));
    const std::vector<std::string> made = {"KROAudioAutomation:a", "KROAudioAutomation:b",
                                           "KROTestAutomation:c", "KROAudioAutomation:d"};
    EXPECT_EQ(automationsOf(*processor), made);
    EXPECT_TRUE(processor->setSettings(KROPropertyList::dictionary()));
    EXPECT_EQ(automationsOf(*processor), made);
    auto inserted = KROAudioAutomation::automation();
    inserted->setParameterKey("e");
    processor->insertAutomationsAtIndexes({inserted}, {1});
    processor->insertAutomationsAtIndexes({inserted}, {9});
    processor->removeAutomationsAtIndexes({0, 2});
    EXPECT_EQ(automationsOf(*processor),
              (std::vector<std::string>{"KROAudioAutomation:e (no processor)",
                                        "KROTestAutomation:c (no processor)",
                                        "KROAudioAutomation:d (no processor)"}));
    inserted->setProcessor(processor.get());
    EXPECT_TRUE(processor->setSettings(automations({})));
    EXPECT_EQ(processor->countOfAutomations(), 0u);
    EXPECT_EQ(inserted->processor(), nullptr);
    inserted->setLength(2.0);
    inserted->setStart(1.5);
    EXPECT_EQ(inserted->end(), 2.0) << "setStart keeps the end";
    const auto bus = make<KROTestPassThrough>()->inputBuses().front();
    EXPECT_EQ(bus->destination(), nullptr);
}

// After the first block a chain of ten pulls and pushes without allocating.
TEST(KROAudioProcessor, AChainOfTenRendersAndPushesWithoutAllocating) {
    KROAudioStream pulled;
    ASSERT_TRUE(pulled.initWithDescription(chainDescription(9, 2.0f)) && pulled.initialize());
    const auto head = processorOf<KROTestHead>(pulled, "head");
    KROTestObserver observer;
    head->inputBus()->addPostRenderTarget(&observer);
    head->renderBlock();
    KRO_EXPECT_NO_ALLOCATION(for (int block = 0; block < 1000; ++block) head->renderBlock());
    EXPECT_EQ(processorOf<KROTestGenerator>(pulled, "generator")->renderCount.load(), 1001u);
    EXPECT_EQ(observer.didRenderCount, 1001);
    EXPECT_TRUE(allSamplesAre(*head->buffer, 256.0f));
    head->inputBus()->removePostRenderTarget(&observer);

    KROPropertyList::Array processors{headEntry("p0", false, true)};
    KROPropertyList::Array connections;
    for (int index = 1; index <= 9; ++index) {
        const std::string name = "p" + std::to_string(index);
        processors.push_back(entry("KROTestPassThrough", name.c_str()));
        processors.back().setObjectForKey("gain", 2.0);
        connections.push_back(
            connection(nullptr, ("p" + std::to_string(index - 1)).c_str(), name.c_str()));
    }
    KROAudioStream pushed;
    ASSERT_TRUE(pushed.initWithDescription(description(processors, connections)) &&
                pushed.initialize());
    const auto input = processorOf<KROTestHead>(pushed, "p0");
    input->pushBlock(1.0f);
    KRO_EXPECT_NO_ALLOCATION(for (int block = 0; block < 1000; ++block) input->pushBlock(1.0f));
    EXPECT_EQ(processorOf<KROTestPassThrough>(pushed, "p9")->inputCount, 1001);
    EXPECT_TRUE(allSamplesAre(*input->buffer, 512.0f));
}

// Once setActive(false) has returned, no block reaches the generator behind it.
TEST(KROAudioConnection, NoBlockCrossesOnceSetActiveFalseHasReturned) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(3)) && stream.initialize());
    const auto head = processorOf<KROTestHead>(stream, "head");
    const auto generator = processorOf<KROTestGenerator>(stream, "generator");
    const auto connection = stream.connectionWithIdentifier("c4");
    std::atomic<bool> done{false};
    std::thread renderer([&] {
        while (!done.load()) {
            head->renderBlock();
        }
    });
    int rounds = 0;
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
         std::chrono::steady_clock::now() < end; ++rounds) {
        connection->setActive(false);
        generator->closed.store(true);
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        generator->closed.store(false);
        connection->setActive(true);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    done.store(true);
    renderer.join();
    EXPECT_GT(rounds, 10);
    EXPECT_GT(generator->renderCount.load(), 0u);
    EXPECT_EQ(generator->violations.load(), 0u);
}

// A push and a pull on the same connection exclude each other.
TEST(KROAudioConnection, APushAndAPullExcludeEachOther) {
    auto source = make<KROTestPassThrough>();
    auto sink = make<KROTestPassThrough>();
    Link link(*source, *sink);
    auto pulled = filledBuffer(0.0f);
    auto pushed = filledBuffer(0.0f);
    std::atomic<bool> done{false};
    std::thread puller([&] {
        KROAudioStreamRenderInfo info;
        while (!done.load()) {
            sink->inputBus()->render(*pulled, info);
        }
    });
    KROAudioStreamRenderInfo info;
    for (int block = 0; block < 20000; ++block) {
        source->outputBus()->input(*pushed, info);
        if (block % 1000 == 0) {
            link.connection->setActive(false);
            link.connection->setActive(true);
        }
    }
    done.store(true);
    puller.join();
    EXPECT_EQ(sink->inputCount, 20000);
}
