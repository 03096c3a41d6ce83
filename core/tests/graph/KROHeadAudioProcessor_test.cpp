// Heads, their render info, the dock, and the hardware head.
#include <gtest/gtest.h>

#include "KROAudioProcessorDock.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROGraphTestClasses.h"
#include "KROHardwareAudioProcessor.h"

using namespace kro_graph_test;

namespace {

// Stands for the platform's device head while a test registers it.
class KROTestDeviceHead : public KROHardwareAudioProcessor {
    KRO_DECLARE_CLASS(KROTestDeviceHead)

public:
    bool init(KROErrorPtr* error = nullptr) override {
        madeWithInit = KROHardwareAudioProcessor::init(error);
        return madeWithInit;
    }

    bool madeWithInit = false;
};

void registerDeviceHead(bool present) {
    KROClassRegistry::sharedRegistry().registerClass(
        KROHardwareAudioProcessor::deviceHeadClassName, "KROHardwareAudioProcessor",
        present ? KROClassRegistry::Factory([] { return std::make_shared<KROTestDeviceHead>(); })
                : KROClassRegistry::Factory());
}

// "head" <- "dock" <- "g" over "out" and "in", or pushed from the head.
KROPropertyList dockDescription(bool push = false) {
    if (push) {
        return description({headEntry("head", false, true), entry("KROAudioProcessorDock", "dock"),
                            entry("KROTestPassThrough", "sink")},
                           {connection("in", "head", "dock"), connection("out", "dock", "sink")});
    }
    return description({headEntry("head", true), entry("KROAudioProcessorDock", "dock"),
                        entry("KROTestGenerator", "g")},
                       {connection("in", "g", "dock"), connection("out", "dock", "head")});
}

} // namespace

KRO_REGISTER_CLASS(KROTestDeviceHead, KROHardwareAudioProcessor)

// Sixteen levels: a seventeenth push is dropped but its pop pops; the bottom survives.
TEST(KROAudioStreamRenderInfo, TheSampleTimeStackHoldsSixteenLevels) {
    KROAudioStreamRenderInfo info;
    EXPECT_TRUE(info.isRealtime() && !info.isRunning() && !info.isReverse());
    EXPECT_EQ(info.description(), "sampleTime: 0");
    info.setSampleTime(1000);
    for (std::int64_t value = 1; value <= 16; ++value) {
        info.pushSampleTime(value * 10);
    }
    EXPECT_EQ(std::pair(info.sampleTimeCursor(), info.sampleTime()), std::pair(15ul, 150l));
    info.setSampleTime(-155);
    EXPECT_EQ(info.description(), "sampleTime: -155");
    info.popSampleTime();
    EXPECT_EQ(info.sampleTime(), 140);
    for (int pop = 0; pop < 16; ++pop) {
        info.popSampleTime();
    }
    EXPECT_EQ(std::pair(info.sampleTimeCursor(), info.sampleTime()), std::pair(0ul, 1000l));
}

TEST(KROHeadAudioProcessor, TheBaseHeadDoesNotStart) {
    auto head = make<KROHeadAudioProcessor>();
    const auto sentinel = KROError::errorWithCode(99, "Sentinel");
    KROErrorPtr error = sentinel;
    EXPECT_FALSE(head->start(&error) || head->stop(&error));
    EXPECT_EQ(error, sentinel);
    KROAudioStream stream;
    stream.addProcessorsObject(head);
    stream.setInputHeadProcessor(head.get());
    head->setInitialized(true);
    KROErrorPtr streamError;
    EXPECT_FALSE(stream.start(&streamError) || streamError);
}

// The flags come from settings and are not written out: a copy is no head.
TEST(KROHeadAudioProcessor, TheFlagsComeFromSettingsAndAreNotCopied) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestPassThrough", "p"), entry("KROTestHead", "h")}, {})));
    const auto head = processorOf<KROTestHead>(stream, "h");
    EXPECT_EQ(stream.renderHeadProcessor(), nullptr);
    KROPropertyList settings;
    settings.setObjectForKey("isRenderHead", true);
    settings.setObjectForKey("isInputHead", true);
    ASSERT_TRUE(head->setSettings(settings));
    EXPECT_TRUE(stream.renderHeadProcessor() == head && stream.inputHeadProcessor() == head);
    settings = KROPropertyList();
    settings.setObjectForKey("isInputHead", false);
    ASSERT_TRUE(head->setSettings(settings));
    EXPECT_EQ(std::pair(head->isRenderHead(), head->isInputHead()), std::pair(true, false));
    const auto copy = std::dynamic_pointer_cast<KROTestHead>(head->copy());
    EXPECT_TRUE(!copy->isRenderHead() && copy->identifier() == "h");
    EXPECT_NE(copy->info(), head->info());
    // Kept: setting a head moves the flag without adding the new one.
    stream.setRenderHeadProcessor(copy.get());
    EXPECT_EQ(std::pair(head->isRenderHead(), copy->isRenderHead()), std::pair(false, true));
    EXPECT_EQ(stream.renderHeadProcessor(), nullptr);
}

// An empty dock is a wire; a docked processor takes over its buses; taken out, a wire again.
TEST(KROAudioProcessorDock, ADockIsAWireUntilAProcessorIsDocked) {
    KROAudioStream pushed;
    ASSERT_TRUE(pushed.initWithDescription(dockDescription(true)) && pushed.initialize());
    processorOf<KROTestHead>(pushed, "head")->pushBlock(0.75f);
    EXPECT_EQ(processorOf<KROTestPassThrough>(pushed, "sink")->inputCount, 1);

    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(dockDescription()) && stream.initialize());
    const auto dock = processorOf<KROAudioProcessorDock>(stream, "dock");
    const auto head = processorOf<KROTestHead>(stream, "head");
    EXPECT_TRUE(allSamplesAre(head->renderBlock(), 0.5f));
    ASSERT_TRUE(stream.uninitialize());
    auto processor = make<KROTestPassThrough>();
    processor->gain = 3.0f;
    processor->latencyFrames = 12;
    const std::weak_ptr<KROAudioInputBus> ownInput = processor->inputBuses().front();
    dock->setProcessor(processor);
    EXPECT_TRUE(ownInput.expired() && processor->inputBus() == dock->inputBus());
    EXPECT_EQ(std::pair(processor->stream(), dock->latency()),
              std::pair(&stream, std::uint64_t{12}));
    EXPECT_EQ(stream.memberOfProcessors(processor.get()), nullptr);
    ASSERT_TRUE(stream.initialize());
    EXPECT_TRUE(processor->initializeForRenderCount == 1 && dock->isInitialized());
    EXPECT_TRUE(allSamplesAre(head->renderBlock(), 1.5f));
    ASSERT_TRUE(stream.uninitialize() && stream.reset());
    EXPECT_EQ(
        std::tuple(processor->uninitializeCount, processor->isInitialized(), processor->resetCount),
        std::tuple(1, false, 1));
    dock->setProcessor(nullptr);
    EXPECT_TRUE(!dock->processor() && dock->latency() == 0);
    EXPECT_EQ(processor->inputBus(), dock->inputBus());
    ASSERT_TRUE(stream.initialize());
    EXPECT_TRUE(allSamplesAre(head->renderBlock(), 0.5f));
}

// Kept: the dock tests its own flag, so an initialised empty dock refuses a
// processor and a docked one is exchanged without initialising the newcomer.
TEST(KROAudioProcessorDock, SetProcessorFollowsTheDocksOwnFlag) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(dockDescription()) && stream.initialize());
    const auto dock = processorOf<KROAudioProcessorDock>(stream, "dock");
    auto first = make<KROTestPassThrough>(), second = make<KROTestPassThrough>();
    dock->setProcessor(first);
    EXPECT_EQ(dock->processor(), nullptr);
    ASSERT_TRUE(stream.uninitialize());
    dock->setProcessor(first);
    ASSERT_TRUE(stream.initialize());
    dock->setProcessor(second);
    EXPECT_EQ(std::tuple(dock->processor(), second->initializeForRenderCount, dock->isInitialized(),
                         dock->inputBus()->destination()),
              std::tuple(second, 0, false, static_cast<KROAudioInputBusDelegate*>(second.get())));
    dock->inputBus()->setDestination(nullptr);
    dock->setProcessor(second);
    dock->setProcessor(dock);
    EXPECT_EQ(dock->inputBus()->destination(), nullptr);
    EXPECT_EQ(dock->processor(), second);
}

// The hardware head is the registered device head; without one a stream fails silently.
TEST(KROHardwareAudioProcessor, TheDeviceHeadIsLookedUpByName) {
    KROPropertyList head = entry("KROHardwareAudioProcessor", "device");
    head.setObjectForKey("isRenderHead", true);
    const KROPropertyList graph =
        description({entry("KROTestGenerator", "g"), head}, {connection("c", "g", "device")});
    registerDeviceHead(false);
    EXPECT_EQ(std::make_shared<KROHardwareAudioProcessor>()->initReturningObject(nullptr), nullptr);
    KROAudioStream stream;
    KROErrorPtr error;
    EXPECT_FALSE(stream.initWithDescription(graph, &error));
    EXPECT_EQ(error, nullptr);
    for (const KROPropertyList& settings :
         {head, entry("KRONoSuch", "x"), entry("KROAudioBus", "x")}) {
        EXPECT_EQ(KROAudioProcessor::processorWithSettings(settings, &error), nullptr);
        EXPECT_EQ(error, nullptr);
    }

    registerDeviceHead(true);
    ASSERT_TRUE(stream.initWithDescription(graph, &error));
    const auto device = processorOf<KROTestDeviceHead>(stream, "device");
    ASSERT_NE(device, nullptr);
    EXPECT_TRUE(device->madeWithInit);
    EXPECT_EQ(stream.renderHeadProcessor(), device);
    registerDeviceHead(false);
}
