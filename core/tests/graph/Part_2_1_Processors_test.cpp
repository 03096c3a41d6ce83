// Part 2.1: processors, buses and connections.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "KROAllocationGuard.h"
#include "KROAudioAutomation.h"
#include "KROAudioProcessorDock.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROGraphTestClasses.h"

using namespace kro_graph_test;

namespace {

// An automation class of the test, to see that "class" selects it.
class KROTestAutomation : public KROAudioAutomation {
    KRO_DECLARE_CLASS(KROTestAutomation)
};

// One connection from an upstream processor's bus 0 to a downstream
// processor's bus 0, with a format, as a stream would build it.
struct Link {
    Link(KROAudioProcessor& upstream, KROAudioProcessor& downstream, std::uint64_t channels = 2,
         std::uint64_t maxFrames = 64)
        : connection(std::make_shared<KROAudioConnection>()) {
        stream.connectOutputBus(*upstream.outputBus(), *connection);
        stream.connectInputBus(*downstream.inputBus(), *connection);
        connection->setSampleRate(48000.0);
        connection->setNumberOfChannels(channels);
        connection->setMaxFrames(maxFrames);
    }

    KROAudioStream stream;
    std::shared_ptr<KROAudioConnection> connection;
};

KROPropertyList automationElement(const char* className, const char* parameterKey) {
    KROPropertyList element;
    if (className) {
        element.setObjectForKey("class", className);
    }
    element.setObjectForKey("parameterKey", parameterKey);
    return element;
}

KROPropertyList settingsWithAutomations(KROPropertyList::Array elements) {
    KROPropertyList settings;
    settings.setObjectForKey("automations", std::move(elements));
    return settings;
}

} // namespace

KRO_REGISTER_CLASS(KROTestAutomation, KROAudioAutomation)

// Edge cases worth testing.

TEST(Part_2_1, RenderThroughAnUnconnectedInputBusGivesSilence) {
    auto processor = make<KROTestPassThrough>();
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.0f));
}

TEST(Part_2_1, RenderThroughAnInactiveConnectionGivesSilence) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    Link link(*generator, *processor);
    link.connection->setActive(false);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.0f));
    EXPECT_EQ(generator->renderCount.load(), 0u);
}

TEST(Part_2_1, RenderThroughAConnectionWhoseNumberOfChannelsDiffersLeavesTheBufferAsItWas) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    Link link(*generator, *processor, 1, 64);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
    EXPECT_EQ(generator->renderCount.load(), 0u);
}

TEST(Part_2_1, RenderThroughAConnectionWhoseMaxFramesIsBelowTheBuffersFramesLeavesTheBufferAlone) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    Link link(*generator, *processor, 2, 63);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
    EXPECT_EQ(generator->renderCount.load(), 0u);
}

TEST(Part_2_1, RenderThroughAClearedConnectionLikewiseLeavesTheBufferAlone) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    Link link(*generator, *processor);
    link.connection->clear();
    EXPECT_EQ(link.connection->sampleRate(), 0.0);
    EXPECT_EQ(link.connection->numberOfChannels(), 0u);
    EXPECT_EQ(link.connection->maxFrames(), 0u);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
}

TEST(Part_2_1, InputThroughAnInactiveConnectionGoesNowhereAndLeavesTheBufferAlone) {
    auto source = make<KROTestPassThrough>();
    auto sink = make<KROTestPassThrough>();
    sink->offset = 1.0f;
    Link link(*source, *sink);
    link.connection->setActive(false);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    source->outputBus()->input(*buffer, info);
    EXPECT_EQ(sink->inputCount, 0);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
    link.connection->setActive(true);
    source->outputBus()->input(*buffer, info);
    EXPECT_EQ(sink->inputCount, 1);
    EXPECT_TRUE(allSamplesAre(*buffer, 1.25f));
}

TEST(Part_2_1, ABufferWithExactlyMaxFramesFramesPasses) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    Link link(*generator, *processor, 2, 64);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, generator->value));
    EXPECT_EQ(generator->renderCount.load(), 1u);
}

TEST(Part_2_1, SetNumberOfInputBusesOnAGenerator0Succeeds1FailsWithCode2) {
    auto generator = make<KROTestGenerator>();
    KROErrorPtr error;
    EXPECT_TRUE(generator->setNumberOfInputBuses(0, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(generator->setNumberOfInputBuses(1, &error));
    expectError<KROAudioProcessorError>(
        error, 2, KROLocalizedString("KROAudioProcessor_action_settingNumberOfInputBuses"));
    EXPECT_EQ(generator->numberOfInputBuses(), 0u);
}

TEST(Part_2_1, SetNumberOfInputBusesWithThePresentCountOnAnInitialisedProcessorFailsWithCode1) {
    auto processor = make<KROTestPassThrough>();
    processor->setInitialized(true);
    KROErrorPtr error;
    EXPECT_FALSE(processor->setNumberOfInputBuses(1, &error));
    expectError<KROAudioProcessorError>(
        error, 1, KROLocalizedString("KROAudioProcessor_action_settingNumberOfInputBuses"));
    error.reset();
    EXPECT_FALSE(processor->setNumberOfOutputBuses(1, &error));
    expectError<KROAudioProcessorError>(
        error, 1, KROLocalizedString("KROAudioProcessor_action_settingNumberOfOutputBuses"));
}

TEST(Part_2_1, AfterShrinkingFrom3To2BusesBuses0And1AreTheSameObjectsAsBefore) {
    auto processor = make<KROTestMultiBusProcessor>();
    ASSERT_TRUE(processor->setNumberOfInputBuses(3));
    ASSERT_TRUE(processor->setNumberOfOutputBuses(3));
    const auto inputs = processor->inputBuses();
    const auto outputs = processor->outputBuses();
    ASSERT_TRUE(processor->setNumberOfInputBuses(2));
    ASSERT_TRUE(processor->setNumberOfOutputBuses(2));
    ASSERT_EQ(processor->numberOfInputBuses(), 2u);
    ASSERT_EQ(processor->numberOfOutputBuses(), 2u);
    for (std::size_t index = 0; index < 2; ++index) {
        EXPECT_EQ(processor->inputBuses()[index], inputs[index]);
        EXPECT_EQ(processor->outputBuses()[index], outputs[index]);
        EXPECT_EQ(processor->inputBuses()[index]->destination(), processor.get());
        EXPECT_EQ(processor->outputBuses()[index]->source(), processor.get());
    }
}

TEST(Part_2_1, ASettingsDictionaryWithoutAutomationsLeavesTheAutomations) {
    auto processor = make<KROTestPassThrough>();
    ASSERT_TRUE(processor->setSettings(settingsWithAutomations(
        {automationElement(nullptr, "gain"), automationElement(nullptr, "pan")})));
    ASSERT_EQ(processor->countOfAutomations(), 2u);
    KROPropertyList settings;
    settings.setObjectForKey("identifier", "renamed");
    EXPECT_TRUE(processor->setSettings(settings));
    EXPECT_EQ(processor->countOfAutomations(), 2u);
    EXPECT_EQ(processor->identifier(), "renamed");
}

TEST(Part_2_1, ASettingsDictionaryWithAnEmptyAutomationsArrayRemovesThemAll) {
    auto processor = make<KROTestPassThrough>();
    ASSERT_TRUE(processor->setSettings(settingsWithAutomations(
        {automationElement(nullptr, "gain"), automationElement(nullptr, "pan")})));
    const auto first = processor->objectInAutomationsAtIndex(0);
    EXPECT_TRUE(processor->setSettings(settingsWithAutomations({})));
    EXPECT_EQ(processor->countOfAutomations(), 0u);
    EXPECT_EQ(first->processor(), nullptr);
}

TEST(Part_2_1, AnAutomationElementWhoseClassNamesNoClassBecomesAKROAudioAutomation) {
    auto processor = make<KROTestPassThrough>();
    ASSERT_TRUE(processor->setSettings(settingsWithAutomations(
        {automationElement("KRONoSuchAutomation", "gain"), automationElement(nullptr, "pan"),
         automationElement("KROTestAutomation", "width"),
         automationElement("KROTestPassThrough", "depth")})));
    ASSERT_EQ(processor->countOfAutomations(), 4u);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(0)->className(), "KROAudioAutomation");
    EXPECT_EQ(processor->objectInAutomationsAtIndex(0)->parameterKey(), "gain");
    EXPECT_EQ(processor->objectInAutomationsAtIndex(1)->className(), "KROAudioAutomation");
    EXPECT_EQ(processor->objectInAutomationsAtIndex(2)->className(), "KROTestAutomation");
    // A registered class that is no automation is an unknown one.
    EXPECT_EQ(processor->objectInAutomationsAtIndex(3)->className(), "KROAudioAutomation");
    for (const auto& automation : processor->enumeratorOfAutomations()) {
        EXPECT_EQ(automation->processor(), processor.get());
    }
}

TEST(Part_2_1, ProcessorWithSettingsWithAnUnknownClassReturnsNoneAndLeavesTheErrorUntouched) {
    const auto sentinel = KROError::errorWithCode(99, "Sentinel");
    KROErrorPtr error = sentinel;
    EXPECT_EQ(KROAudioProcessor::processorWithSettings(entry("KRONoSuchProcessor", "x"), &error),
              nullptr);
    EXPECT_EQ(error, sentinel);
    EXPECT_EQ(KROAudioProcessor::processorWithSettings(entry("", "x"), &error), nullptr);
    EXPECT_EQ(KROAudioProcessor::processorWithSettings(KROPropertyList(), &error), nullptr);
    EXPECT_EQ(KROAudioProcessor::processorWithSettings(KROPropertyList(3), &error), nullptr);
    // A registered class that is not a processor is no processor class.
    EXPECT_EQ(KROAudioProcessor::processorWithSettings(entry("KROAudioConnection", "x"), &error),
              nullptr);
    EXPECT_EQ(error, sentinel);
}

TEST(Part_2_1, RemoveAutomationsAtIndexesWithOneIndexLeavesTheRemainingAutomationsWithNoProcessor) {
    auto processor = make<KROTestPassThrough>();
    ASSERT_TRUE(processor->setSettings(
        settingsWithAutomations({automationElement(nullptr, "a"), automationElement(nullptr, "b"),
                                 automationElement(nullptr, "c")})));
    const auto removed = processor->objectInAutomationsAtIndex(1);
    processor->removeAutomationsAtIndexes({1});
    ASSERT_EQ(processor->countOfAutomations(), 2u);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(0)->parameterKey(), "a");
    EXPECT_EQ(processor->objectInAutomationsAtIndex(1)->parameterKey(), "c");
    EXPECT_EQ(removed->processor(), nullptr);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(0)->processor(), nullptr);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(1)->processor(), nullptr);
}

// Data model and initialisation.

TEST(Part_2_1, InitMakesOneBusOnEachSideEmptyParametersAndTheAnyConfiguration) {
    auto processor = make<KROAudioProcessor>();
    ASSERT_EQ(processor->numberOfInputBuses(), 1u);
    ASSERT_EQ(processor->numberOfOutputBuses(), 1u);
    EXPECT_EQ(processor->inputBus()->destination(), processor.get());
    EXPECT_EQ(processor->outputBus()->source(), processor.get());
    EXPECT_EQ(processor->inputBus()->className(), "KROAudioInputBus");
    EXPECT_EQ(processor->outputBus()->className(), "KROAudioOutputBus");
    ASSERT_TRUE(processor->parameters().has_value());
    EXPECT_EQ(processor->parameters()->count(), 0u);
    ASSERT_TRUE(processor->channelConfigurations().has_value());
    EXPECT_EQ(*processor->channelConfigurations(),
              (std::vector<KROChannelConfiguration>{{-1, -1}}));
    EXPECT_EQ(processor->countOfAutomations(), 0u);
    EXPECT_FALSE(processor->isInitialized());
    EXPECT_EQ(processor->stream(), nullptr);
    EXPECT_EQ(processor->latency(), 0u);
    EXPECT_EQ(processor->maximumNumberOfInputBuses(), 1u);
    EXPECT_EQ(processor->maximumNumberOfOutputBuses(), 1u);
    EXPECT_EQ(processor->editorClass(), "");
    EXPECT_EQ(processor->inputConnection(), nullptr);
    EXPECT_EQ(processor->outputConnection(), nullptr);
}

TEST(Part_2_1, AGeneratorHasNoInputBusAndNoParametersOrChannelConfigurations) {
    auto generator = make<KROAudioGenerator>();
    EXPECT_EQ(generator->numberOfInputBuses(), 0u);
    EXPECT_EQ(generator->inputBus(), nullptr);
    EXPECT_EQ(generator->inputConnection(), nullptr);
    ASSERT_EQ(generator->numberOfOutputBuses(), 1u);
    EXPECT_EQ(generator->outputBus()->source(), generator.get());
    EXPECT_FALSE(generator->parameters().has_value());
    EXPECT_FALSE(generator->channelConfigurations().has_value());
    EXPECT_EQ(generator->maximumNumberOfInputBuses(), 0u);
    EXPECT_TRUE(generator->parameterKeys().empty());
    EXPECT_FALSE(generator->settings().objectForKey("channelConfigurations"));

    KROPropertyList settings;
    settings.setObjectForKey("channelConfigurations",
                             KROPropertyList::Array{KROPropertyList::Array{0, 2}});
    ASSERT_TRUE(generator->setSettings(settings));
    EXPECT_EQ(*generator->channelConfigurations(), (std::vector<KROChannelConfiguration>{{0, 2}}));
}

TEST(Part_2_1, SetNumberOfOutputBusesAboveTheMaximumFailsWithCode2) {
    auto processor = make<KROTestPassThrough>();
    KROErrorPtr error;
    EXPECT_FALSE(processor->setNumberOfOutputBuses(2, &error));
    expectError<KROAudioProcessorError>(
        error, 2, KROLocalizedString("KROAudioProcessor_action_settingNumberOfOutputBuses"));
    EXPECT_EQ(processor->numberOfOutputBuses(), 1u);
    EXPECT_TRUE(processor->setNumberOfOutputBuses(0, &error));
    EXPECT_EQ(processor->outputBus(), nullptr);
    // No error argument: the failure is only the result.
    EXPECT_FALSE(processor->setNumberOfInputBuses(5));
}

TEST(Part_2_1, InitializeForRenderNotOverriddenFailsWithCode5FormattedWithTheClassName) {
    auto processor = make<KROTestPlainProcessor>();
    KROErrorPtr error;
    EXPECT_FALSE(processor->initializeForRender(&error));
    expectError<KROAudioProcessorError>(
        error, 5,
        KROStringWithFormatArguments(
            KROLocalizedString("KROAudioProcessor_action_initializeForRender"),
            "KROTestPlainProcessor"));
    EXPECT_NE(error->localizedDescription().find("KROTestPlainProcessor"), std::string::npos);
}

TEST(Part_2_1, InitializeForInputNotOverriddenFailsWithCode6FormattedWithTheClassName) {
    auto processor = make<KROTestPlainProcessor>();
    KROErrorPtr error;
    EXPECT_FALSE(processor->initializeForInput(&error));
    expectError<KROAudioProcessorError>(
        error, 6,
        KROStringWithFormatArguments(
            KROLocalizedString("KROAudioProcessor_action_initializeForInput"),
            "KROTestPlainProcessor"));
    EXPECT_TRUE(processor->uninitialize());
    EXPECT_TRUE(processor->reset());
}

TEST(Part_2_1, TheEndsOfAConnectionAreCrossedSetInputStoresTheOutputBus) {
    auto upstream = make<KROTestPassThrough>();
    auto downstream = make<KROTestPassThrough>();
    KROAudioConnection connection;
    EXPECT_TRUE(connection.active());
    connection.setInput(upstream->outputBus());
    connection.setOutput(downstream->inputBus());
    EXPECT_EQ(connection.outputBus(), upstream->outputBus());
    EXPECT_EQ(connection.inputBus(), downstream->inputBus());
    connection.setInput(nullptr);
    connection.setOutput(nullptr);
}

TEST(Part_2_1, ConformToConnectionCopiesTheFormatAndFromNoneWritesZeros) {
    KROAudioConnection from;
    from.setSampleRate(44100.0);
    from.setNumberOfChannels(6);
    from.setMaxFrames(512);
    KROAudioConnection to;
    to.conformToConnection(&from);
    EXPECT_EQ(to.sampleRate(), 44100.0);
    EXPECT_EQ(to.numberOfChannels(), 6u);
    EXPECT_EQ(to.maxFrames(), 512u);
    to.conformToConnection(nullptr);
    EXPECT_EQ(to.sampleRate(), 0.0);
    EXPECT_EQ(to.numberOfChannels(), 0u);
    EXPECT_EQ(to.maxFrames(), 0u);
}

TEST(Part_2_1, ATransformingProcessorWorksOnTheSameBufferAsTheCallReturns) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    processor->offset = 1.0f;
    Link link(*generator, *processor);
    auto buffer = filledBuffer(2, 64, 0.0f);
    KROAudioStreamRenderInfo info;
    KROAudioOutputBus& bus = *processor->outputBus();
    processor->render(*buffer, bus, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 1.5f));
}

TEST(Part_2_1, AnOutputBusWithNoSourceClearsTheBuffer) {
    KROAudioOutputBus bus;
    auto buffer = filledBuffer(2, 16, 0.25f);
    KROAudioStreamRenderInfo info;
    bus.render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.0f));
    // Unconnected on the push path: nothing at all.
    auto pushed = filledBuffer(2, 16, 0.25f);
    bus.input(*pushed, info);
    EXPECT_TRUE(allSamplesAre(*pushed, 0.25f));
}

TEST(Part_2_1, TheBaseBusDoesNothing) {
    KROAudioBus bus;
    auto buffer = filledBuffer(1, 16, 0.25f);
    KROAudioStreamRenderInfo info;
    bus.render(*buffer, info);
    bus.input(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
}

TEST(Part_2_1, PreAndPostRenderTargetsSurroundTheRenderOnBothBuses) {
    auto generator = make<KROTestGenerator>();
    auto processor = make<KROTestPassThrough>();
    Link link(*generator, *processor);
    KROTestObserver onInput;
    KROTestObserver onOutput;
    processor->inputBus()->addPreRenderTarget(&onInput);
    processor->inputBus()->addPreRenderTarget(&onInput);
    processor->inputBus()->addPostRenderTarget(&onInput);
    generator->outputBus()->addPreRenderTarget(&onOutput);
    generator->outputBus()->addPostRenderTarget(&onOutput);
    EXPECT_EQ(processor->inputBus()->countOfPreRenderTargets(), 1u);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    processor->inputBus()->render(*buffer, info);
    EXPECT_EQ(onInput.willRenderCount, 1);
    EXPECT_EQ(onInput.didRenderCount, 1);
    EXPECT_EQ(onInput.firstSampleBefore, 0.25f);
    EXPECT_EQ(onInput.firstSampleAfter, generator->value);
    EXPECT_EQ(onOutput.willRenderCount, 1);
    EXPECT_EQ(onOutput.didRenderCount, 1);

    processor->inputBus()->removePreRenderTarget(&onInput);
    processor->inputBus()->removePostRenderTarget(&onInput);
    processor->inputBus()->render(*buffer, info);
    EXPECT_EQ(onInput.willRenderCount, 1);
    EXPECT_EQ(onOutput.willRenderCount, 2);
    generator->outputBus()->removePreRenderTarget(&onOutput);
    generator->outputBus()->removePostRenderTarget(&onOutput);
}

TEST(Part_2_1, TargetsTakeNoPartInThePushPath) {
    auto source = make<KROTestPassThrough>();
    auto sink = make<KROTestPassThrough>();
    Link link(*source, *sink);
    KROTestObserver observer;
    sink->inputBus()->addPreRenderTarget(&observer);
    source->outputBus()->addPostRenderTarget(&observer);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    source->outputBus()->input(*buffer, info);
    EXPECT_EQ(sink->inputCount, 1);
    EXPECT_EQ(observer.willRenderCount, 0);
    EXPECT_EQ(observer.didRenderCount, 0);
    sink->inputBus()->removePreRenderTarget(&observer);
    source->outputBus()->removePostRenderTarget(&observer);
}

TEST(Part_2_1, InputWithAFormatMismatchGoesNowhere) {
    auto source = make<KROTestPassThrough>();
    auto sink = make<KROTestPassThrough>();
    Link link(*source, *sink, 1, 64);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    source->outputBus()->input(*buffer, info);
    EXPECT_EQ(sink->inputCount, 0);
}

TEST(Part_2_1, TheBaseInputOperationEndsThePushPath) {
    auto source = make<KROTestPassThrough>();
    auto plain = make<KROTestPlainProcessor>();
    auto sink = make<KROTestPassThrough>();
    Link first(*source, *plain);
    Link second(*plain, *sink);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    source->outputBus()->input(*buffer, info);
    EXPECT_EQ(sink->inputCount, 0);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
}

TEST(Part_2_1, SettingsWriteTheClassIdentifierAutomationsAndChannelConfigurations) {
    auto processor = make<KROTestPassThrough>();
    KROPropertyList settings = processor->settings();
    EXPECT_EQ(*settings.objectForKey("class")->stringValue(), "KROTestPassThrough");
    EXPECT_EQ(settings.objectForKey("identifier"), nullptr);
    ASSERT_NE(settings.objectForKey("automations"), nullptr);
    EXPECT_EQ(settings.objectForKey("automations")->count(), 0u);
    ASSERT_NE(settings.objectForKey("channelConfigurations"), nullptr);
    EXPECT_EQ(*settings.objectForKey("channelConfigurations"),
              KROPropertyList(KROPropertyList::Array{KROPropertyList::Array{-1, -1}}));

    processor->setIdentifier("p");
    ASSERT_TRUE(processor->setSettings(settingsWithAutomations({automationElement(nullptr, "g")})));
    settings = processor->settings();
    EXPECT_EQ(*settings.objectForKey("identifier")->stringValue(), "p");
    ASSERT_EQ(settings.objectForKey("automations")->count(), 1u);
    const KROPropertyList* automation = settings.objectForKey("automations")->objectAtIndex(0);
    EXPECT_EQ(automation->count(), 8u);
    EXPECT_EQ(*automation->objectForKey("parameterKey")->stringValue(), "g");
}

TEST(Part_2_1, SettingsOfTheWrongTypeCountAsAbsent) {
    auto processor = make<KROTestPassThrough>();
    processor->setIdentifier("kept");
    KROPropertyList settings;
    settings.setObjectForKey("identifier", 12);
    settings.setObjectForKey("automations", "not an array");
    settings.setObjectForKey("channelConfigurations", 2);
    KROErrorPtr error;
    EXPECT_TRUE(processor->setSettings(settings, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(processor->identifier(), "kept");
    EXPECT_EQ(*processor->channelConfigurations(),
              (std::vector<KROChannelConfiguration>{{-1, -1}}));
    settings.setObjectForKey("channelConfigurations",
                             KROPropertyList::Array{KROPropertyList::Array{1}});
    EXPECT_TRUE(processor->setSettings(settings));
    EXPECT_EQ(*processor->channelConfigurations(),
              (std::vector<KROChannelConfiguration>{{-1, -1}}));
}

TEST(Part_2_1, ProcessorWithSettingsMakesTheClassAndAppliesTheSettings) {
    KROPropertyList settings = entry("KROTestPassThrough", "made");
    settings.setObjectForKey("offset", 2.0);
    const auto processor = std::dynamic_pointer_cast<KROTestPassThrough>(
        KROAudioProcessor::processorWithSettings(settings));
    ASSERT_NE(processor, nullptr);
    EXPECT_EQ(processor->identifier(), "made");
    EXPECT_EQ(processor->offset, 2.0f);
    EXPECT_EQ(processor->numberOfInputBuses(), 1u);
}

TEST(Part_2_1, ACopyIsMadeThroughSettingsWithTheBusCountsOfInit) {
    auto processor = make<KROTestMultiBusProcessor>();
    processor->setIdentifier("original");
    processor->offset = 3.0f;
    ASSERT_TRUE(processor->setNumberOfInputBuses(5));
    ASSERT_TRUE(processor->setSettings(settingsWithAutomations({automationElement(nullptr, "g")})));
    auto generator = make<KROTestGenerator>();
    Link link(*generator, *processor);
    KROAudioStream stream;
    stream.addProcessorsObject(processor);
    processor->setInitialized(true);

    const auto copy = std::dynamic_pointer_cast<KROTestMultiBusProcessor>(processor->copy());
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, processor);
    EXPECT_EQ(copy->identifier(), "original");
    EXPECT_EQ(copy->offset, 3.0f);
    EXPECT_EQ(copy->numberOfInputBuses(), 1u);
    EXPECT_EQ(copy->inputConnection(), nullptr);
    EXPECT_EQ(copy->stream(), nullptr);
    EXPECT_FALSE(copy->isInitialized());
    ASSERT_EQ(copy->countOfAutomations(), 1u);
    EXPECT_EQ(copy->objectInAutomationsAtIndex(0)->processor(), copy.get());
    EXPECT_NE(copy->objectInAutomationsAtIndex(0), processor->objectInAutomationsAtIndex(0));
    processor->setInitialized(false);
}

TEST(Part_2_1, InsertAutomationsSetsTheirProcessorThenInsertsAtTheIndexes) {
    auto processor = make<KROTestPassThrough>();
    auto a = KROAudioAutomation::automation();
    auto b = KROAudioAutomation::automation();
    auto c = KROAudioAutomation::automation();
    processor->insertAutomationsAtIndexes({a, b}, {0, 1});
    processor->insertAutomationsAtIndexes({c}, {1});
    ASSERT_EQ(processor->countOfAutomations(), 3u);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(0), a);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(1), c);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(2), b);
    EXPECT_EQ(processor->objectInAutomationsAtIndex(3), nullptr);
    EXPECT_EQ(c->processor(), processor.get());
    EXPECT_EQ(processor->indexOfObjectInAutomations(*b), 2u);
    EXPECT_FALSE(processor->indexOfObjectInAutomations(*KROAudioAutomation::automation()));
    EXPECT_EQ(processor->automationsAtIndexes({0, 2}), (KROAudioProcessor::Automations{a, b}));
    // An index past the end of the list does nothing.
    processor->insertAutomationsAtIndexes({KROAudioAutomation::automation()}, {7});
    EXPECT_EQ(processor->countOfAutomations(), 3u);
}

TEST(Part_2_1, ParametersAnswerTheirKeysAndDescriptions) {
    auto processor = make<KROTestPassThrough>();
    KROPropertyList gain;
    gain.setObjectForKey("minimum", -96.0);
    gain.setObjectForKey("maximum", 12.0);
    KROPropertyList parameters;
    parameters.setObjectForKey("gain", gain);
    processor->setParameters(parameters);
    EXPECT_EQ(processor->parameterKeys(), std::vector<std::string>{"gain"});
    ASSERT_NE(processor->descriptionOfParameterWithKey("gain"), nullptr);
    EXPECT_EQ(*processor->descriptionOfParameterWithKey("gain"), gain);
    EXPECT_EQ(processor->descriptionOfParameterWithKey("pan"), nullptr);
    EXPECT_FALSE(processor->valueForParameterKey("gain").has_value());
    processor->setValue(KROPropertyList(1.0), "gain");
    EXPECT_FALSE(processor->valueForParameterKey("gain").has_value());

    // Part 2.6 Algorithm 3: an automation of that parameter obeys its limits.
    auto automation = KROAudioAutomation::automation();
    processor->insertAutomationsAtIndexes({automation}, {0});
    automation->setParameterKey("gain");
    automation->setMaximum(20.0f);
    automation->setMinimum(-120.0f);
    EXPECT_EQ(automation->maximum(), 12.0f);
    EXPECT_EQ(automation->minimum(), -96.0f);
    KROPropertyList properties;
    properties.setObjectForKey("maximum", 20.0);
    automation->setProperties(properties);
    EXPECT_EQ(automation->maximum(), 20.0f);
}

TEST(Part_2_1, DockTakesOverTheDocksBusesAndStream) {
    auto dock = make<KROAudioProcessorDock>();
    KROAudioStream stream;
    stream.addProcessorsObject(dock);
    auto processor = make<KROTestPassThrough>();
    const std::weak_ptr<KROAudioInputBus> ownInput = processor->inputBuses().front();
    processor->dock(*dock);
    EXPECT_TRUE(ownInput.expired());
    ASSERT_EQ(processor->numberOfInputBuses(), 1u);
    ASSERT_EQ(processor->numberOfOutputBuses(), 1u);
    EXPECT_EQ(processor->inputBus(), dock->inputBus());
    EXPECT_EQ(processor->outputBus(), dock->outputBus());
    EXPECT_EQ(dock->inputBus()->destination(), processor.get());
    EXPECT_EQ(dock->outputBus()->source(), processor.get());
    EXPECT_EQ(processor->stream(), &stream);
}

TEST(Part_2_1, AutomationPropertiesRoundTripAndRangeWins) {
    KROPropertyList range;
    range.setObjectForKey("location", 4.0);
    range.setObjectForKey("length", 2.0);
    KROPropertyList properties;
    properties.setObjectForKey("location", 1.0);
    properties.setObjectForKey("length", 1.0);
    properties.setObjectForKey("range", range);
    properties.setObjectForKey("enabled", false);
    properties.setObjectForKey("parameterKey", "gain");
    auto automation = KROAudioAutomation::automation();
    EXPECT_TRUE(automation->isEnabled());
    automation->setProperties(properties);
    EXPECT_EQ(automation->location(), 4.0);
    EXPECT_EQ(automation->length(), 2.0);
    EXPECT_FALSE(automation->isEnabled());
    automation->setStart(5.0);
    EXPECT_EQ(automation->length(), 1.0);
    EXPECT_EQ(automation->end(), 6.0);
    const auto copy = automation->copy();
    EXPECT_EQ(copy->properties(), automation->properties());
    EXPECT_EQ(copy->properties().count(), 8u);
}

TEST(Part_2_1, AProcessorThatGoesAwayLeavesNoBusOrAutomationPointingAtIt) {
    std::shared_ptr<KROAudioInputBus> bus;
    std::shared_ptr<KROAudioAutomation> automation = KROAudioAutomation::automation();
    {
        auto processor = make<KROTestPassThrough>();
        processor->insertAutomationsAtIndexes({automation}, {0});
        bus = processor->inputBuses().front();
        EXPECT_EQ(bus->destination(), processor.get());
    }
    EXPECT_EQ(bus->destination(), nullptr);
    EXPECT_EQ(automation->processor(), nullptr);
}

// Real time.

TEST(Part_2_1, AChainOfTenProcessorsRendersWithoutAllocating) {
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(9, 1.0f), &error))
        << (error ? error->description() : "");
    ASSERT_EQ(stream.countOfProcessors(), 11u);
    ASSERT_TRUE(stream.initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(stream.start(&error));
    const auto head = processorOf<KROTestHead>(stream, "head");
    const auto generator = processorOf<KROTestGenerator>(stream, "generator");
    KROTestObserver observer;
    head->inputBus()->addPreRenderTarget(&observer);
    head->inputBus()->addPostRenderTarget(&observer);
    head->renderBlock();
    {
        const KROAllocationGuard guard;
        for (int block = 0; block < 1000; ++block) {
            head->renderBlock();
        }
        EXPECT_EQ(guard.count(), 0u);
    }
    EXPECT_EQ(generator->renderCount.load(), 1001u);
    EXPECT_EQ(observer.didRenderCount, 1001);
    EXPECT_TRUE(allSamplesAre(*head->buffer, generator->value + 9.0f));
    EXPECT_EQ(head->info()->sampleTime(), 1000 * 64);
    head->inputBus()->removePreRenderTarget(&observer);
    head->inputBus()->removePostRenderTarget(&observer);
}

TEST(Part_2_1, AChainOfTenProcessorsPushesWithoutAllocating) {
    KROPropertyList::Array processors;
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isInputHead", true);
    processors.push_back(head);
    KROPropertyList::Array connections;
    std::string upstream = "head";
    for (int index = 1; index <= 9; ++index) {
        const std::string name = "p" + std::to_string(index);
        KROPropertyList passThrough = entry("KROTestPassThrough", name.c_str());
        passThrough.setObjectForKey("offset", 1.0);
        processors.push_back(passThrough);
        connections.push_back(connection(nullptr, upstream.c_str(), name.c_str()));
        upstream = name;
    }
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description(processors, connections)));
    ASSERT_TRUE(stream.initialize());
    const auto input = processorOf<KROTestHead>(stream, "head");
    const auto last = processorOf<KROTestPassThrough>(stream, "p9");
    input->pushBlock(0.0f);
    KRO_EXPECT_NO_ALLOCATION(for (int block = 0; block < 1000; ++block) input->pushBlock(0.0f));
    EXPECT_EQ(last->inputCount, 1001);
    EXPECT_TRUE(allSamplesAre(*input->buffer, 9.0f));
}

// Concurrency.

TEST(Part_2_1, SetActiveReturnsOnlyWhenNoCrossingIsInProgressAndNoBlockCrossesAfterFalse) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(3)));
    ASSERT_TRUE(stream.initialize());
    const auto head = processorOf<KROTestHead>(stream, "head");
    const auto generator = processorOf<KROTestGenerator>(stream, "generator");
    // The connection next to the generator: the generator is the last on the
    // path, so a block that reaches it has crossed the connection.
    const auto connection = stream.connectionWithIdentifier("c4");
    ASSERT_NE(connection, nullptr);

    std::atomic<bool> done{false};
    std::thread renderer([&] {
        while (!done.load()) {
            head->renderBlock();
        }
    });
    std::uint64_t closedRounds = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < end) {
        connection->setActive(false);
        // From here on no block may reach the generator.
        generator->closed.store(true);
        const std::uint64_t before = generator->renderCount.load();
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        EXPECT_EQ(generator->renderCount.load(), before);
        generator->closed.store(false);
        connection->setActive(true);
        ++closedRounds;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    done.store(true);
    renderer.join();
    EXPECT_GT(closedRounds, 10u);
    EXPECT_GT(generator->renderCount.load(), 0u);
    EXPECT_EQ(generator->violations.load(), 0u);
}

TEST(Part_2_1, APushAndAPullOnTheSameConnectionExcludeEachOther) {
    auto source = make<KROTestPassThrough>();
    auto sink = make<KROTestPassThrough>();
    Link link(*source, *sink);
    auto pulled = filledBuffer(2, 64, 0.0f);
    auto pushed = filledBuffer(2, 64, 0.0f);
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
