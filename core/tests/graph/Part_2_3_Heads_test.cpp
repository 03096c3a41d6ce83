// Part 2.3: head processors and render info, the dock, the I/O mark and the
// hardware head.
#include <gtest/gtest.h>

#include "KROAudioProcessorDock.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROGraphTestClasses.h"
#include "KROHardwareAudioProcessor.h"

using namespace kro_graph_test;

namespace {

// Stands for the platform's device head of Part 9.1 while a test registers it.
class KROTestDeviceHead : public KROHardwareAudioProcessor {
    KRO_DECLARE_CLASS(KROTestDeviceHead)

public:
    bool init(KROErrorPtr* error = nullptr) override {
        if (!KROHardwareAudioProcessor::init(error)) {
            return false;
        }
        madeWithInit = true;
        return true;
    }

    bool madeWithInit = false;
};

void registerDeviceHead(bool present) {
    KROClassRegistry::sharedRegistry().registerClass(
        KROHardwareAudioProcessor::deviceHeadClassName, "KROHardwareAudioProcessor",
        present ? KROClassRegistry::Factory([] { return std::make_shared<KROTestDeviceHead>(); })
                : KROClassRegistry::Factory());
}

// head <- dock <- generator, or with a processor in the dock.
KROPropertyList dockDescription() {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    return description(
        {head, entry("KROAudioProcessorDock", "dock"), entry("KROTestGenerator", "g")},
        {connection("in", "g", "dock"), connection("out", "dock", "head")});
}

} // namespace

KRO_REGISTER_CLASS(KROTestDeviceHead, KROHardwareAudioProcessor)

// Edge cases worth testing.

TEST(Part_2_3, ANewRenderInfoHasIsRealtimeTrueIsRunningFalseSampleTime0) {
    KROAudioStreamRenderInfo info;
    EXPECT_TRUE(info.isRealtime());
    EXPECT_FALSE(info.isRunning());
    EXPECT_FALSE(info.isReverse());
    EXPECT_EQ(info.sampleTime(), 0);
    EXPECT_EQ(info.sampleTimeCursor(), 0u);
    EXPECT_EQ(info.hostTime(), 0u);
    EXPECT_EQ(info.conductor(), nullptr);
    EXPECT_EQ(info.numberOfInputBuses(), 0u);
    EXPECT_EQ(info.numberOfOutputBuses(), 0u);
}

TEST(Part_2_3, SixteenPushesLeaveTheCursorAt15AndSampleTimeAtTheFifteenthPushedValue) {
    KROAudioStreamRenderInfo info;
    info.setSampleTime(1000);
    for (std::int64_t value = 1; value <= 16; ++value) {
        info.pushSampleTime(value * 10);
    }
    EXPECT_EQ(info.sampleTimeCursor(), 15u);
    EXPECT_EQ(info.sampleTime(), 150);
    // Part 2.3 Algorithm 2: the dropped push's pop still pops, so the stack
    // unwinds early.
    info.popSampleTime();
    EXPECT_EQ(info.sampleTime(), 140);
    for (int pop = 0; pop < 14; ++pop) {
        info.popSampleTime();
    }
    EXPECT_EQ(info.sampleTimeCursor(), 0u);
    EXPECT_EQ(info.sampleTime(), 1000);
}

TEST(Part_2_3, PopSampleTimeAtTheBottomLeavesTheCursorAt0AndTheBaseEntryIntact) {
    KROAudioStreamRenderInfo info;
    info.setSampleTime(42);
    info.popSampleTime();
    info.popSampleTime();
    EXPECT_EQ(info.sampleTimeCursor(), 0u);
    EXPECT_EQ(info.sampleTime(), 42);
}

TEST(Part_2_3, SetSampleTimeAfterAPushChangesThePushedEntryAfterThePopTheBaseEntryIsAsBefore) {
    KROAudioStreamRenderInfo info;
    info.setSampleTime(7);
    info.pushSampleTime(100);
    EXPECT_EQ(info.sampleTime(), 100);
    info.setSampleTime(200);
    EXPECT_EQ(info.sampleTime(), 200);
    info.popSampleTime();
    EXPECT_EQ(info.sampleTime(), 7);
}

TEST(Part_2_3, StartOnAPlainKROHeadAudioProcessorReturnsFalse) {
    auto head = make<KROHeadAudioProcessor>();
    const auto sentinel = KROError::errorWithCode(99, "Sentinel");
    KROErrorPtr error = sentinel;
    EXPECT_FALSE(head->start(&error));
    EXPECT_FALSE(head->stop(&error));
    EXPECT_EQ(error, sentinel);
    EXPECT_FALSE(head->isRunning());
    EXPECT_EQ(head->stress(), 0.0f);

    // The stream passes the false on, with no error of its own.
    KROPropertyList entryOfHead = entry("KROHeadAudioProcessor", "h");
    entryOfHead.setObjectForKey("isInputHead", true);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description({entryOfHead}, {})));
    EXPECT_FALSE(stream.initialize());
    stream.processorWithIdentifier("h")->setInitialized(true);
    KROErrorPtr streamError;
    EXPECT_FALSE(stream.start(&streamError));
    EXPECT_EQ(streamError, nullptr);
}

TEST(Part_2_3, SetSettingsWithIsRenderHeadTrueMakesRenderHeadProcessorFindTheHead) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestPassThrough", "p"), entry("KROTestHead", "h")}, {})));
    const auto head = processorOf<KROTestHead>(stream, "h");
    EXPECT_EQ(stream.renderHeadProcessor(), nullptr);
    KROPropertyList settings;
    settings.setObjectForKey("isRenderHead", true);
    ASSERT_TRUE(head->setSettings(settings));
    EXPECT_EQ(stream.renderHeadProcessor(), head);
    EXPECT_EQ(stream.inputHeadProcessor(), nullptr);
}

TEST(Part_2_3, SetSettingsWithoutTheKeyTheFlagKeepsItsValue) {
    auto head = make<KROTestHead>();
    head->setIsRenderHead(true);
    head->setIsInputHead(true);
    KROPropertyList settings;
    settings.setObjectForKey("identifier", "h");
    ASSERT_TRUE(head->setSettings(settings));
    EXPECT_TRUE(head->isRenderHead());
    EXPECT_TRUE(head->isInputHead());
    settings.setObjectForKey("isInputHead", false);
    ASSERT_TRUE(head->setSettings(settings));
    EXPECT_TRUE(head->isRenderHead());
    EXPECT_FALSE(head->isInputHead());
}

TEST(Part_2_3, AnEmptyDockInARenderChainPassesTheAudioOfItsSourceThroughUnchanged) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(dockDescription()));
    ASSERT_TRUE(stream.initialize());
    const auto dock = processorOf<KROAudioProcessorDock>(stream, "dock");
    EXPECT_EQ(dock->processor(), nullptr);
    EXPECT_EQ(stream.connectionWithIdentifier("in")->numberOfChannels(), 2u);
    const auto head = processorOf<KROTestHead>(stream, "head");
    head->renderBlock();
    EXPECT_TRUE(allSamplesAre(*head->buffer, 0.5f));
    EXPECT_EQ(processorOf<KROTestGenerator>(stream, "g")->renderCount.load(), 1u);
}

TEST(Part_2_3, AnEmptyDockInAPushChainPassesTheAudioThroughUnchanged) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isInputHead", true);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description(
        {head, entry("KROAudioProcessorDock", "dock"), entry("KROTestPassThrough", "sink")},
        {connection("in", "head", "dock"), connection("out", "dock", "sink")})));
    ASSERT_TRUE(stream.initialize());
    EXPECT_EQ(stream.connectionWithIdentifier("out")->numberOfChannels(), 2u);
    const auto sink = processorOf<KROTestPassThrough>(stream, "sink");
    sink->offset = 0.0f;
    processorOf<KROTestHead>(stream, "head")->pushBlock(0.75f);
    EXPECT_EQ(sink->inputCount, 1);
    EXPECT_EQ(sink->initializeForInputCount, 1);
    EXPECT_TRUE(allSamplesAre(*processorOf<KROTestHead>(stream, "head")->buffer, 0.75f));
}

TEST(Part_2_3, SetProcessorWithTheSameProcessorTwiceDoesNothingOnTheSecondCall) {
    auto dock = make<KROAudioProcessorDock>();
    auto processor = make<KROTestPassThrough>();
    dock->setProcessor(processor);
    const auto inputs = processor->inputBuses();
    // Were the second call to dock again, the buses would be taken anew;
    // point them elsewhere and see that nothing resets them.
    dock->inputBus()->setDestination(nullptr);
    dock->setProcessor(processor);
    EXPECT_EQ(dock->inputBus()->destination(), nullptr);
    EXPECT_EQ(processor->inputBuses(), inputs);
    EXPECT_EQ(dock->processor(), processor);
}

TEST(Part_2_3, RemovingTheDockedProcessorWithSetProcessorNoneRestoresAWireOverTheSameConnections) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(dockDescription()));
    const auto dock = processorOf<KROAudioProcessorDock>(stream, "dock");
    const auto in = stream.connectionWithIdentifier("in");
    const auto out = stream.connectionWithIdentifier("out");
    auto processor = make<KROTestPassThrough>();
    processor->offset = 1.0f;
    dock->setProcessor(processor);
    EXPECT_EQ(processor->stream(), &stream);
    EXPECT_EQ(stream.memberOfProcessors(processor.get()), nullptr);
    EXPECT_EQ(in->inputBus()->destination(), processor.get());
    EXPECT_EQ(out->outputBus()->source(), processor.get());

    ASSERT_TRUE(stream.initialize());
    // The walks reach the docked processor directly.
    EXPECT_EQ(processor->initializeForRenderCount, 1);
    EXPECT_TRUE(processor->isInitialized());
    const auto head = processorOf<KROTestHead>(stream, "head");
    head->renderBlock();
    EXPECT_TRUE(allSamplesAre(*head->buffer, 1.5f));

    // The stream reaches it through the dock's forwarding.
    ASSERT_TRUE(stream.uninitialize());
    EXPECT_EQ(processor->uninitializeCount, 1);
    EXPECT_FALSE(processor->isInitialized());
    ASSERT_TRUE(stream.reset());
    EXPECT_EQ(processor->resetCount, 1);

    dock->setProcessor(nullptr);
    EXPECT_EQ(dock->processor(), nullptr);
    EXPECT_EQ(in->inputBus(), dock->inputBus());
    EXPECT_EQ(out->outputBus(), dock->outputBus());
    EXPECT_EQ(dock->inputBus()->destination(), dock.get());
    EXPECT_EQ(dock->outputBus()->source(), dock.get());
    // A processor that left keeps the bus objects it took over.
    EXPECT_EQ(processor->inputBus(), dock->inputBus());
    ASSERT_TRUE(stream.initialize());
    head->renderBlock();
    EXPECT_TRUE(allSamplesAre(*head->buffer, 0.5f));
}

// The dock's other rules.

TEST(Part_2_3, AnEmptyDockInitialisedAsAWireRefusesAProcessor) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(dockDescription()));
    ASSERT_TRUE(stream.initialize());
    const auto dock = processorOf<KROAudioProcessorDock>(stream, "dock");
    ASSERT_TRUE(dock->isInitialized());
    auto processor = make<KROTestPassThrough>();
    dock->setProcessor(processor);
    EXPECT_EQ(dock->processor(), nullptr);
    EXPECT_EQ(dock->inputBus()->destination(), dock.get());
}

TEST(Part_2_3, ADockWithAProcessorCanExchangeItWhileInitialisedWithoutInitialisingTheNewcomer) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(dockDescription()));
    const auto dock = processorOf<KROAudioProcessorDock>(stream, "dock");
    auto first = make<KROTestPassThrough>();
    dock->setProcessor(first);
    ASSERT_TRUE(stream.initialize());
    EXPECT_TRUE(dock->isInitialized());
    auto second = make<KROTestPassThrough>();
    second->latencyFrames = 32;
    dock->setProcessor(second);
    EXPECT_EQ(dock->processor(), second);
    EXPECT_EQ(second->initializeForRenderCount, 0);
    EXPECT_FALSE(second->isInitialized());
    EXPECT_FALSE(dock->isInitialized());
    EXPECT_EQ(dock->latency(), 32u);
    EXPECT_EQ(dock->inputBus()->destination(), second.get());
}

TEST(Part_2_3, ADockForwardsTheInitialisedFlagAndLatency) {
    auto dock = make<KROAudioProcessorDock>();
    EXPECT_EQ(dock->latency(), 0u);
    dock->setInitialized(true);
    EXPECT_TRUE(dock->isInitialized());
    dock->setInitialized(false);
    auto processor = make<KROTestPassThrough>();
    processor->latencyFrames = 12;
    dock->setProcessor(processor);
    EXPECT_EQ(dock->latency(), 12u);
    dock->setInitialized(true);
    EXPECT_TRUE(processor->isInitialized());
    EXPECT_TRUE(dock->uninitialize());
    EXPECT_EQ(processor->uninitializeCount, 1);
    EXPECT_TRUE(dock->reset());
    EXPECT_EQ(processor->resetCount, 1);
    dock->setInitialized(false);
    dock->setProcessor(dock);
    EXPECT_EQ(dock->processor(), processor);
}

// Heads.

TEST(Part_2_3, AHeadHasInfoAndIsNoHeadUntilTold) {
    auto head = make<KROHeadAudioProcessor>();
    ASSERT_NE(head->info(), nullptr);
    EXPECT_TRUE(head->info()->isRealtime());
    EXPECT_FALSE(head->isInputHead());
    EXPECT_FALSE(head->isRenderHead());
    EXPECT_EQ(head->numberOfInputBuses(), 1u);
}

TEST(Part_2_3, ACopyOfAHeadIsNotAHeadOfAnything) {
    auto head = make<KROTestHead>();
    head->setIsRenderHead(true);
    head->setIsInputHead(true);
    EXPECT_EQ(head->settings().objectForKey("isRenderHead"), nullptr);
    const auto copy = std::dynamic_pointer_cast<KROTestHead>(head->copy());
    ASSERT_NE(copy, nullptr);
    EXPECT_FALSE(copy->isRenderHead());
    EXPECT_FALSE(copy->isInputHead());
    EXPECT_NE(copy->info(), head->info());
}

TEST(Part_2_3, RenderInfoDescriptionGivesTheSampleTime) {
    KROAudioStreamRenderInfo info;
    info.setSampleTime(-12345678901);
    EXPECT_EQ(info.description(), "sampleTime: -12345678901");
    info.setHostTime(99);
    info.setRunning(true);
    info.setRealtime(false);
    info.setReverse(true);
    EXPECT_EQ(info.hostTime(), 99u);
    EXPECT_TRUE(info.isRunning());
    EXPECT_FALSE(info.isRealtime());
    EXPECT_TRUE(info.isReverse());
}

TEST(Part_2_3, AProcessorThatPushesATimeBaseIsSeenUpstreamAndTheHeadsEntrySurvives) {
    KROAudioStreamRenderInfo info;
    info.setSampleTime(4800);
    info.pushSampleTime(96);
    EXPECT_EQ(info.sampleTime(), 96);
    info.popSampleTime();
    EXPECT_EQ(info.sampleTime(), 4800);
}

TEST(Part_2_3, TheHardwareHeadYieldsNoneWhenNoDeviceHeadIsRegistered) {
    registerDeviceHead(false);
    auto hardware = std::make_shared<KROHardwareAudioProcessor>();
    EXPECT_EQ(hardware->initReturningObject(nullptr), nullptr);

    // The stream fails in the manner of Part 2.2 with no error stored.
    KROPropertyList head = entry("KROHardwareAudioProcessor", "device");
    head.setObjectForKey("isRenderHead", true);
    KROAudioStream stream;
    KROErrorPtr error;
    EXPECT_FALSE(stream.initWithDescription(
        description({entry("KROTestGenerator", "g"), head}, {connection("c", "g", "device")}),
        &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    EXPECT_EQ(KROAudioProcessor::processorWithSettings(head, &error), nullptr);
    EXPECT_EQ(error, nullptr);
}

TEST(Part_2_3, TheHardwareHeadLooksUpTheDeviceHeadClassByName) {
    registerDeviceHead(true);
    KROPropertyList head = entry("KROHardwareAudioProcessor", "device");
    head.setObjectForKey("isRenderHead", true);
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestGenerator", "g"), head}, {connection("c", "g", "device")}),
        &error));
    const auto device = processorOf<KROTestDeviceHead>(stream, "device");
    ASSERT_NE(device, nullptr);
    EXPECT_TRUE(device->madeWithInit);
    EXPECT_EQ(stream.renderHeadProcessor(), device);
    EXPECT_EQ(device->inputConnection(), stream.connectionWithIdentifier("c").get());
    // The device head itself is made as any processor.
    EXPECT_NE(device->copy(), nullptr);
    registerDeviceHead(false);
}

TEST(Part_2_3, EveryClassOfTheseThreePartsIsRegistered) {
    const auto& registry = KROClassRegistry::sharedRegistry();
    const std::pair<const char*, const char*> classes[] = {
        {"KROAudioProcessor", "KROObject"},
        {"KROAudioGenerator", "KROAudioProcessor"},
        {"KROAudioBus", "KROObject"},
        {"KROAudioInputBus", "KROAudioBus"},
        {"KROAudioOutputBus", "KROAudioBus"},
        {"KROAudioConnection", "KROObject"},
        {"KROAudioStream", "KROObject"},
        {"KROHeadAudioProcessor", "KROAudioProcessor"},
        {"KROAudioStreamRenderInfo", "KROAudioProcessor"},
        {"KROAudioProcessorDock", "KROAudioProcessor"},
        {"KROIOAudioProcessor", "KROAudioProcessor"},
        {"KROHardwareAudioProcessor", "KROHeadAudioProcessor"},
        {"KROAudioAutomation", "KROObject"},
    };
    for (const auto& [name, superclass] : classes) {
        EXPECT_TRUE(registry.hasClass(name)) << name;
        EXPECT_EQ(registry.superclassName(name), superclass) << name;
        const auto object = registry.makeObject(name);
        ASSERT_NE(object, nullptr) << name;
        EXPECT_EQ(object->className(), name);
    }
}
