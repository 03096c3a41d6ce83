// Part 2.2: the audio stream.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "KROAudioProcessorDock.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROGraphTestClasses.h"

using namespace kro_graph_test;

namespace {

// A stream subclass that brings its description as a resource.
class KROTestResourceStream : public KROAudioStream {
    KRO_DECLARE_CLASS(KROTestResourceStream)
};

// Weak references to every processor of a stream, to see them released.
std::vector<std::weak_ptr<KROAudioProcessor>> watch(const KROAudioStream& stream) {
    std::vector<std::weak_ptr<KROAudioProcessor>> watched;
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        watched.push_back(processor);
    }
    return watched;
}

// Builds, expecting failure, and records what was made on the way: the class
// registry makes every processor, so a factory wrapper sees them all.
struct FailedBuild {
    explicit FailedBuild(const KROPropertyList& description) {
        KROAudioStream stream;
        succeeded = stream.initWithDescription(description, &error);
        processorsLeft = stream.countOfProcessors();
        connectionsLeft = stream.countOfConnections();
    }

    bool succeeded = true;
    KROErrorPtr error;
    std::size_t processorsLeft = 0;
    std::size_t connectionsLeft = 0;
};

std::string connectingBus(const std::string& name) {
    return KROStringWithFormatArguments(KROLocalizedString("KROAudioStream_action_connectingBus"),
                                        name);
}

std::filesystem::path examplePath(const char* name) {
    return std::filesystem::path(KRO_SOURCE_DIR) / "examples" / name;
}

// The stream sets every processor's stream on add; a weak watch with a
// stream pointer check.
class KROTestWatchedProcessor : public KROTestPassThrough {
    KRO_DECLARE_CLASS(KROTestWatchedProcessor)

public:
    KROTestWatchedProcessor() { ++alive; }
    ~KROTestWatchedProcessor() override { --alive; }
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (!KROTestPassThrough::setSettings(settings, error)) {
            return false;
        }
        built.push_back(std::static_pointer_cast<KROTestWatchedProcessor>(shared_from_this()));
        return true;
    }

    static inline int alive = 0;
    static inline std::vector<std::weak_ptr<KROTestWatchedProcessor>> built;
};

} // namespace

KRO_REGISTER_CLASS(KROTestResourceStream, KROAudioStream)
KRO_REGISTER_CLASS(KROTestWatchedProcessor, KROTestPassThrough)

// Edge cases worth testing.

TEST(Part_2_2, AnEmptyDictionaryFailsWithCode2) {
    KROAudioStream stream;
    KROErrorPtr error;
    EXPECT_FALSE(stream.initWithDescription(KROPropertyList(), &error));
    expectError<KROAudioStreamError>(error, 2,
                                     KROLocalizedString("KROAudioStream_action_construct"));
    EXPECT_EQ(stream.countOfProcessors(), 0u);
}

TEST(Part_2_2, ADictionaryWithAKeyButNoProcessorsYieldsAnEmptyStreamWithNoError) {
    KROAudioStream stream;
    KROPropertyList description;
    description.setObjectForKey("comment", "nothing here");
    KROErrorPtr error;
    EXPECT_TRUE(stream.initWithDescription(description, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    EXPECT_EQ(stream.countOfConnections(), 0u);
}

TEST(Part_2_2, AnEntryWithAClassNameNoClassBearsFailsWithCode4AndProcessorsBuiltSoFarAreCleared) {
    KROTestWatchedProcessor::built.clear();
    const int aliveBefore = KROTestWatchedProcessor::alive;
    {
        KROAudioStream stream;
        KROErrorPtr error;
        EXPECT_FALSE(stream.initWithDescription(
            description({entry("KROTestWatchedProcessor", "a"),
                         entry("KROTestWatchedProcessor", "b"), entry("KRONoSuchClass", "c")},
                        {}),
            &error));
        expectError<KROAudioStreamError>(
            error, 4,
            KROStringWithFormatArguments(
                KROLocalizedString("KROAudioStream_action_creatingProcessor"), "KRONoSuchClass"));
        EXPECT_EQ(error->localizedDescription().substr(0, 34),
                  "Creating a processor of class KRON");
        EXPECT_EQ(stream.countOfProcessors(), 0u);
    }
    ASSERT_EQ(KROTestWatchedProcessor::built.size(), 2u);
    for (const auto& processor : KROTestWatchedProcessor::built) {
        EXPECT_TRUE(processor.expired());
    }
    EXPECT_EQ(KROTestWatchedProcessor::alive, aliveBefore);
}

TEST(Part_2_2, ProcessorsBuiltBeforeAFailureHaveTheirStreamCleared) {
    // Kept alive from outside the stream, the processors show their stream.
    KROTestWatchedProcessor::built.clear();
    KROAudioStream stream;
    std::vector<std::shared_ptr<KROTestWatchedProcessor>> kept;
    KROClassRegistry::sharedRegistry().registerClass(
        "KROTestKeptProcessor", "KROTestPassThrough", [&kept] {
            auto processor = std::make_shared<KROTestWatchedProcessor>();
            kept.push_back(processor);
            return std::static_pointer_cast<KROObject>(processor);
        });
    EXPECT_FALSE(stream.initWithDescription(
        description({entry("KROTestKeptProcessor", "a"), entry("KRONoSuchClass", "c")}, {})));
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0]->stream(), nullptr);
    // The factory refers to this test's locals: leave none behind.
    KROClassRegistry::sharedRegistry().registerClass("KROTestKeptProcessor", "KROTestPassThrough",
                                                     nullptr);
}

TEST(Part_2_2, InputBusesWithMoreElementsThanTheClassesMaximumFailsWithTheProcessorsCode2) {
    KROPropertyList processor = entry("KROTestPassThrough", "p");
    KROPropertyList bus;
    bus.setObjectForKey("identifier", "in");
    processor.setObjectForKey("inputBuses", KROPropertyList::Array{bus, bus});
    FailedBuild build(description({processor}, {}));
    EXPECT_FALSE(build.succeeded);
    expectError<KROAudioProcessorError>(
        build.error, 2, KROLocalizedString("KROAudioProcessor_action_settingNumberOfInputBuses"));
    EXPECT_EQ(build.processorsLeft, 0u);
}

TEST(Part_2_2, OutputBusesWithMoreElementsThanTheMaximumFailsWithTheProcessorsCode2) {
    KROPropertyList processor = entry("KROTestPassThrough", "p");
    processor.setObjectForKey("outputBuses",
                              KROPropertyList::Array{KROPropertyList(), KROPropertyList()});
    FailedBuild build(description({processor}, {}));
    EXPECT_FALSE(build.succeeded);
    expectError<KROAudioProcessorError>(
        build.error, 2, KROLocalizedString("KROAudioProcessor_action_settingNumberOfOutputBuses"));
}

TEST(Part_2_2, TwoConnectionsNamingTheSameOutputBusTheSecondFailsWithCode7) {
    FailedBuild build(description({entry("KROTestGenerator", "g"), entry("KROTestPassThrough", "a"),
                                   entry("KROTestPassThrough", "b")},
                                  {connection("one", "g", "a"), connection("two", "g", "b")}));
    EXPECT_FALSE(build.succeeded);
    expectError<KROAudioStreamError>(build.error, 7, connectingBus("g"));
    EXPECT_EQ(build.processorsLeft, 0u);
    EXPECT_EQ(build.connectionsLeft, 0u);
}

TEST(Part_2_2, TwoConnectionsNamingTheSameInputBusTheSecondFailsWithCode7) {
    FailedBuild build(description({entry("KROTestGenerator", "g"), entry("KROTestGenerator", "h"),
                                   entry("KROTestPassThrough", "a")},
                                  {connection("one", "g", "a"), connection("two", "h", "a")}));
    EXPECT_FALSE(build.succeeded);
    expectError<KROAudioStreamError>(build.error, 7, connectingBus("a"));
}

TEST(Part_2_2, AConnectionWithInputEmptyAndOutputValidLeavesItsOutputBusAbsent) {
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestPassThrough", "a")}, {connection("open", "", "a")}), &error));
    EXPECT_EQ(error, nullptr);
    const auto open = stream.connectionWithIdentifier("open");
    ASSERT_NE(open, nullptr);
    EXPECT_EQ(open->outputBus(), nullptr);
    const auto a = stream.processorWithIdentifier("a");
    EXPECT_EQ(open->inputBus(), a->inputBus());
    EXPECT_EQ(a->inputConnection(), open.get());

    // Rendering through it calls nothing and leaves the buffer alone.
    open->setNumberOfChannels(2);
    open->setMaxFrames(64);
    auto buffer = filledBuffer(2, 64, 0.25f);
    KROAudioStreamRenderInfo info;
    a->inputBus()->render(*buffer, info);
    EXPECT_TRUE(allSamplesAre(*buffer, 0.25f));
}

TEST(Part_2_2, AConnectionWithoutInputOrOutputKeysIsOpenAtBothEndsAndNoError) {
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestPassThrough", "a")}, {connection("loose", nullptr, nullptr)}),
        &error));
    const auto loose = stream.connectionWithIdentifier("loose");
    EXPECT_EQ(loose->inputBus(), nullptr);
    EXPECT_EQ(loose->outputBus(), nullptr);
}

TEST(Part_2_2, InputNamingAProcessorWithSeveralOutputBusesMeansBus0) {
    KROPropertyList splitter = entry("KROTestMultiBusProcessor", "s");
    KROPropertyList out0;
    out0.setObjectForKey("identifier", "s.out0");
    KROPropertyList out1;
    out1.setObjectForKey("identifier", "s.out1");
    KROPropertyList out2;
    out2.setObjectForKey("identifier", "s.out2");
    splitter.setObjectForKey("outputBuses", KROPropertyList::Array{out0, out1, out2});
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(
        description({splitter, entry("KROTestPassThrough", "a"), entry("KROTestPassThrough", "b")},
                    {connection("first", "s", "a"), connection("third", "s.out2", "b")}),
        &error))
        << (error ? error->description() : "");
    const auto s = stream.processorWithIdentifier("s");
    ASSERT_EQ(s->numberOfOutputBuses(), 3u);
    EXPECT_EQ(stream.connectionWithIdentifier("first")->outputBus(), s->outputBuses()[0].get());
    EXPECT_EQ(stream.connectionWithIdentifier("third")->outputBus(), s->outputBuses()[2].get());
    EXPECT_EQ(s->outputBuses()[1]->connection(), nullptr);
    EXPECT_EQ(stream.outputBusWithIdentifier("s.out1"), s->outputBuses()[1]);
    EXPECT_EQ(stream.outputBusWithIdentifier("s"), s->outputBuses()[0]);
}

TEST(Part_2_2, InitializeOnAStreamWithNoHeadsIsTrueIsInitializedIsTrueStartFailsWithCode1) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestGenerator", "g"), entry("KROTestPassThrough", "a")},
                    {connection("c", "g", "a")})));
    KROErrorPtr error;
    EXPECT_TRUE(stream.initialize(&error));
    EXPECT_TRUE(stream.isInitialized());
    EXPECT_FALSE(stream.start(&error));
    expectError<KROAudioStreamError>(error, 1,
                                     KROLocalizedString("KROAudioStream_action_starting"));
    error.reset();
    EXPECT_FALSE(stream.stop(&error));
    expectError<KROAudioStreamError>(error, 1,
                                     KROLocalizedString("KROAudioStream_action_stopping"));
}

TEST(Part_2_2, AProcessorThatDoesNotOverrideInitializeForRenderMakesInitializeFailWithCode5) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({head, entry("KROTestPassThrough", "a"),
                     entry("KROTestPlainProcessor", "plain"), entry("KROTestGenerator", "g")},
                    {connection("c1", "a", "head"), connection("c2", "plain", "a"),
                     connection("c3", "g", "plain")})));
    KROErrorPtr error;
    EXPECT_FALSE(stream.initialize(&error));
    expectError<KROAudioProcessorError>(
        error, 5,
        KROStringWithFormatArguments(
            KROLocalizedString("KROAudioProcessor_action_initializeForRender"),
            "KROTestPlainProcessor"));
    for (const auto& connection : stream.enumeratorOfConnections()) {
        EXPECT_EQ(connection->numberOfChannels(), 0u);
        EXPECT_EQ(connection->maxFrames(), 0u);
        EXPECT_EQ(connection->sampleRate(), 0.0);
    }
}

TEST(Part_2_2, TheRollbackUninitialisesButLeavesInitializedSet) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description(
        {head, entry("KROTestPassThrough", "a"), entry("KROTestPlainProcessor", "plain"),
         entry("KROTestPassThrough", "unreached")},
        {connection("c1", "a", "head"), connection("c2", "plain", "a")})));
    EXPECT_FALSE(stream.initialize());
    const auto a = processorOf<KROTestPassThrough>(stream, "a");
    const auto unreached = processorOf<KROTestPassThrough>(stream, "unreached");
    // Part 2.2 Algorithm 4: uninitialize is called, setInitialized(false) is not.
    EXPECT_EQ(a->uninitializeCount, 1);
    EXPECT_TRUE(a->isInitialized());
    EXPECT_TRUE(stream.processorWithIdentifier("head")->isInitialized());
    EXPECT_FALSE(stream.processorWithIdentifier("plain")->isInitialized());
    EXPECT_EQ(unreached->uninitializeCount, 0);
    // A later uninitialize of the stream clears the flags.
    EXPECT_TRUE(stream.uninitialize());
    EXPECT_FALSE(a->isInitialized());
    EXPECT_EQ(a->uninitializeCount, 2);
}

TEST(Part_2_2, StartWithOneHeadThatIsBothInputAndRenderHeadCallsItsStartOnce) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    head.setObjectForKey("isInputHead", true);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description({head}, {})));
    ASSERT_TRUE(stream.initialize());
    const auto theHead = processorOf<KROTestHead>(stream, "head");
    EXPECT_EQ(theHead->initializeForInputCount, 1);
    EXPECT_EQ(theHead->initializeForRenderCount, 1);
    EXPECT_TRUE(stream.start());
    EXPECT_EQ(theHead->startCount, 1);
    EXPECT_TRUE(stream.isRunning());
    EXPECT_TRUE(stream.stop());
    EXPECT_EQ(theHead->stopCount, 1);
    EXPECT_FALSE(stream.isRunning());
}

TEST(Part_2_2, InitializeWhileRunningFailsWithCode9AndChangesNothing) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(1)));
    ASSERT_TRUE(stream.initialize());
    ASSERT_TRUE(stream.start());
    const auto head = processorOf<KROTestHead>(stream, "head");
    const auto p1 = processorOf<KROTestPassThrough>(stream, "p1");
    KROErrorPtr error;
    EXPECT_FALSE(stream.initialize(&error));
    expectError<KROAudioStreamError>(error, 9,
                                     KROLocalizedString("KROAudioStream_action_initializing"));
    EXPECT_EQ(head->initializeForRenderCount, 1);
    EXPECT_EQ(p1->initializeForRenderCount, 1);
    EXPECT_EQ(p1->uninitializeCount, 0);
    EXPECT_TRUE(stream.isRunning());
    EXPECT_EQ(stream.connectionWithIdentifier("c1")->numberOfChannels(), 2u);

    error.reset();
    EXPECT_FALSE(stream.reset(&error));
    expectError<KROAudioStreamError>(error, 9,
                                     KROLocalizedString("KROAudioStream_action_resetting"));
    EXPECT_EQ(p1->resetCount, 0);
}

TEST(Part_2_2, AKROIOAudioProcessorBetweenTwoChainsTheRenderWalkDoesNotPassIt) {
    KROPropertyList renderHead = entry("KROTestHead", "render");
    renderHead.setObjectForKey("isRenderHead", true);
    KROPropertyList inputHead = entry("KROTestHead", "input");
    inputHead.setObjectForKey("isInputHead", true);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description(
        {renderHead, entry("KROTestPassThrough", "r"), entry("KROTestIOProcessor", "io"),
         entry("KROTestPassThrough", "i"), inputHead},
        {connection("c1", "r", "render"), connection("c2", "io", "r"), connection("c3", "i", "io"),
         connection("c4", "input", "i")})));
    const auto io = processorOf<KROTestIOProcessor>(stream, "io");
    const auto i = processorOf<KROTestPassThrough>(stream, "i");
    const auto r = processorOf<KROTestPassThrough>(stream, "r");

    ASSERT_TRUE(stream.initializeForRender(stream.renderHeadProcessor().get()));
    EXPECT_EQ(io->initializeForRenderCount, 1);
    EXPECT_TRUE(io->isInitialized());
    EXPECT_EQ(r->initializeForRenderCount, 1);
    EXPECT_EQ(i->initializeForRenderCount, 0);
    EXPECT_FALSE(i->isInitialized());
    EXPECT_FALSE(stream.processorWithIdentifier("input")->isInitialized());
    EXPECT_TRUE(stream.isProcessorInitializedForRender(stream.renderHeadProcessor().get()));
    EXPECT_FALSE(stream.isProcessorInitializedForInput(stream.inputHeadProcessor().get()));
    EXPECT_FALSE(stream.isInitialized());

    // The input walk stops at the mark too, from the other side.
    ASSERT_TRUE(stream.initializeForInput(stream.inputHeadProcessor().get()));
    EXPECT_EQ(i->initializeForInputCount, 1);
    EXPECT_EQ(io->initializeForInputCount, 1);
    EXPECT_EQ(r->initializeForInputCount, 0);
    EXPECT_TRUE(stream.isInitialized());
    // Each chain got its format from its own head.
    EXPECT_EQ(stream.connectionWithIdentifier("c2")->numberOfChannels(), 2u);
    EXPECT_EQ(stream.connectionWithIdentifier("c3")->numberOfChannels(), 2u);
}

// Failure codes and bad descriptions.

TEST(Part_2_2, AProcessorEntryWithNoClassNameFailsWithCode3) {
    for (const KROPropertyList& bad :
         {KROPropertyList(), entry("", "x"), KROPropertyList("a string"), KROPropertyList(7)}) {
        FailedBuild build(description({entry("KROTestPassThrough", "ok"), bad}, {}));
        EXPECT_FALSE(build.succeeded);
        expectError<KROAudioStreamError>(
            build.error, 3, KROLocalizedString("KROAudioStream_action_findingProcessorClass"));
        EXPECT_EQ(build.processorsLeft, 0u);
    }
    KROPropertyList numberClass;
    numberClass.setObjectForKey("class", 42);
    FailedBuild build(description({numberClass}, {}));
    expectError<KROAudioStreamError>(
        build.error, 3, KROLocalizedString("KROAudioStream_action_findingProcessorClass"));
}

TEST(Part_2_2, AClassThatIsNotAProcessorFailsWithCode4) {
    FailedBuild build(description({entry("KROAudioConnection", "x")}, {}));
    EXPECT_FALSE(build.succeeded);
    expectError<KROAudioStreamError>(
        build.error, 4,
        KROStringWithFormatArguments(KROLocalizedString("KROAudioStream_action_creatingProcessor"),
                                     "KROAudioConnection"));
}

TEST(Part_2_2, AConnectionNamingAnUnknownBusFailsWithCode6) {
    FailedBuild input(
        description({entry("KROTestPassThrough", "a")}, {connection("c", "nowhere", "a")}));
    EXPECT_FALSE(input.succeeded);
    expectError<KROAudioStreamError>(input.error, 6, connectingBus("nowhere"));
    EXPECT_EQ(input.connectionsLeft, 0u);
    FailedBuild output(
        description({entry("KROTestPassThrough", "a")}, {connection("c", "a", "elsewhere")}));
    expectError<KROAudioStreamError>(output.error, 6, connectingBus("elsewhere"));
    // A generator has no input bus: its name finds none.
    FailedBuild generator(
        description({entry("KROTestGenerator", "g"), entry("KROTestGenerator", "h")},
                    {connection("c", "h", "g")}));
    expectError<KROAudioStreamError>(generator.error, 6, connectingBus("g"));
}

TEST(Part_2_2, WrongValueTypesFailWithCode2OrAreIgnoredAsAbsent) {
    KROPropertyList numberForProcessors;
    numberForProcessors.setObjectForKey("processors", 3);
    FailedBuild processors(numberForProcessors);
    EXPECT_FALSE(processors.succeeded);
    expectError<KROAudioStreamError>(processors.error, 2,
                                     KROLocalizedString("KROAudioStream_action_construct"));

    KROPropertyList dictionaryForConnections = description({entry("KROTestPassThrough", "a")}, {});
    dictionaryForConnections.setObjectForKey("connections", KROPropertyList());
    FailedBuild connections(dictionaryForConnections);
    EXPECT_FALSE(connections.succeeded);
    expectError<KROAudioStreamError>(connections.error, 2,
                                     KROLocalizedString("KROAudioStream_action_construct"));
    EXPECT_EQ(connections.processorsLeft, 0u);

    FailedBuild notADictionary(KROPropertyList(KROPropertyList::Array{entry("KROTestHead", "h")}));
    expectError<KROAudioStreamError>(notADictionary.error, 2,
                                     KROLocalizedString("KROAudioStream_action_construct"));

    // Within an entry, a value of another type counts as absent.
    KROPropertyList processor = entry("KROTestPassThrough", "a");
    processor.setObjectForKey("inputBuses", 5);
    processor.setObjectForKey("outputBuses", "two");
    processor.setObjectForKey("isRenderHead", "yes");
    KROPropertyList bad = connection(nullptr, nullptr, nullptr);
    bad.setObjectForKey("input", 1);
    bad.setObjectForKey("output", KROPropertyList::Array{});
    bad.setObjectForKey("identifier", 2.5);
    KROAudioStream stream;
    KROErrorPtr error;
    EXPECT_TRUE(
        stream.initWithDescription(description({processor}, {bad, KROPropertyList(9)}), &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(stream.processorWithIdentifier("a")->numberOfInputBuses(), 1u);
    EXPECT_EQ(stream.countOfConnections(), 2u);
}

TEST(Part_2_2, AFailedBuildReleasesEveryProcessorAndConnection) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(4)));
    const auto watched = watch(stream);
    const std::weak_ptr<KROAudioConnection> watchedConnection =
        stream.connectionWithIdentifier("c1");
    ASSERT_EQ(watched.size(), 6u);
    // A build starts from empty sets, and a failing one ends with them.
    KROPropertyList bad = chainDescription(4);
    bad.objectForKey("connections")->arrayValue()->push_back(connection("x", "generator", "p1"));
    KROErrorPtr error;
    EXPECT_FALSE(stream.initWithDescription(bad, &error));
    expectError<KROAudioStreamError>(error, 7, connectingBus("generator"));
    for (const auto& processor : watched) {
        EXPECT_TRUE(processor.expired());
    }
    EXPECT_TRUE(watchedConnection.expired());
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    EXPECT_EQ(stream.countOfConnections(), 0u);
}

TEST(Part_2_2, WatchedProcessorsAreFreedAfterEveryKindOfBadDescription) {
    const int aliveBefore = KROTestWatchedProcessor::alive;
    KROPropertyList tooMany = entry("KROTestWatchedProcessor", "t");
    tooMany.setObjectForKey("inputBuses",
                            KROPropertyList::Array{KROPropertyList(), KROPropertyList()});
    const KROPropertyList descriptions[] = {
        description({entry("KROTestWatchedProcessor", "a"), entry("KRONoSuchClass", "b")}, {}),
        description({entry("KROTestWatchedProcessor", "a"), KROPropertyList()}, {}),
        description({entry("KROTestWatchedProcessor", "a"), tooMany}, {}),
        description({entry("KROTestWatchedProcessor", "a")}, {connection("c", "missing", "a")}),
        description({entry("KROTestWatchedProcessor", "a"), entry("KROTestWatchedProcessor", "b"),
                     entry("KROTestWatchedProcessor", "c")},
                    {connection("1", "a", "b"), connection("2", "a", "c")}),
    };
    for (const KROPropertyList& bad : descriptions) {
        FailedBuild build(bad);
        EXPECT_FALSE(build.succeeded);
        EXPECT_NE(build.error, nullptr);
        EXPECT_FALSE(build.error->localizedDescription().empty());
        EXPECT_EQ(KROTestWatchedProcessor::alive, aliveBefore);
    }
}

TEST(Part_2_2, AFailureWithoutAnErrorArgumentStoresNothingAndStillFails) {
    KROAudioStream stream;
    EXPECT_FALSE(stream.initWithDescription(KROPropertyList()));
    EXPECT_FALSE(stream.initWithDescription(description({entry("KRONoSuchClass", "x")}, {})));
}

TEST(Part_2_2, StartWhileNotInitialisedFailsWithCode8) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(1)));
    KROErrorPtr error;
    EXPECT_FALSE(stream.isInitialized());
    EXPECT_FALSE(stream.start(&error));
    expectError<KROAudioStreamError>(error, 8,
                                     KROLocalizedString("KROAudioStream_action_starting"));
    EXPECT_FALSE(stream.isRunning());
}

// Algorithms.

TEST(Part_2_2, TheBusesExistAndAreNamedBeforeTheClassesSettingsAreRead) {
    KROPropertyList multi = entry("KROTestMultiBusProcessor", "m");
    KROPropertyList in0;
    in0.setObjectForKey("identifier", "m.in0");
    KROPropertyList in1;
    in1.setObjectForKey("identifier", "m.in1");
    multi.setObjectForKey("inputBuses", KROPropertyList::Array{in0, in1, KROPropertyList(4)});
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({multi, entry("KROTestGenerator", "g"), entry("KROTestGenerator", "h")},
                    {connection("a", "g", "m.in1"), connection("b", "h", "m")})));
    const auto m = stream.processorWithIdentifier("m");
    ASSERT_EQ(m->numberOfInputBuses(), 3u);
    EXPECT_EQ(m->inputBuses()[0]->identifier(), "m.in0");
    EXPECT_EQ(m->inputBuses()[1]->identifier(), "m.in1");
    EXPECT_EQ(m->inputBuses()[2]->identifier(), "");
    EXPECT_EQ(stream.connectionWithIdentifier("a")->inputBus(), m->inputBuses()[1].get());
    EXPECT_EQ(stream.connectionWithIdentifier("b")->inputBus(), m->inputBuses()[0].get());
    EXPECT_EQ(stream.inputBusWithIdentifier("m.in0"), m->inputBuses()[0]);
    EXPECT_EQ(stream.inputBusWithIdentifier(""), nullptr);
    EXPECT_EQ(stream.inputBusWithIdentifier("none"), nullptr);
}

TEST(Part_2_2, TheRenderWalkRunsFromTheHeadTowardTheSourcesPassingTheFormat) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(3)));
    KROErrorPtr error;
    ASSERT_TRUE(stream.initialize(&error));
    for (const auto& connection : stream.enumeratorOfConnections()) {
        EXPECT_EQ(connection->sampleRate(), 48000.0);
        EXPECT_EQ(connection->numberOfChannels(), 2u);
        EXPECT_EQ(connection->maxFrames(), 64u);
    }
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        EXPECT_TRUE(processor->isInitialized()) << processor->identifier();
    }
    EXPECT_EQ(processorOf<KROTestGenerator>(stream, "generator")->initializeForRenderCount, 1);
    EXPECT_TRUE(stream.isInitialized());

    ASSERT_TRUE(stream.start());
    const auto head = processorOf<KROTestHead>(stream, "head");
    head->renderBlock();
    EXPECT_TRUE(allSamplesAre(*head->buffer, 0.5f));

    ASSERT_TRUE(stream.uninitialize(&error));
    EXPECT_FALSE(stream.isRunning());
    EXPECT_EQ(head->stopCount, 1);
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        EXPECT_FALSE(processor->isInitialized());
    }
    for (const auto& connection : stream.enumeratorOfConnections()) {
        EXPECT_EQ(connection->numberOfChannels(), 0u);
    }
}

TEST(Part_2_2, AProcessorReachedByTwoPathsIsInitialisedTwice) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList mixer = entry("KROTestMultiBusProcessor", "mix");
    KROPropertyList left;
    left.setObjectForKey("identifier", "mix.left");
    KROPropertyList right;
    right.setObjectForKey("identifier", "mix.right");
    mixer.setObjectForKey("inputBuses", KROPropertyList::Array{left, right});
    KROPropertyList splitter = entry("KROTestMultiBusProcessor", "split");
    KROPropertyList out0;
    out0.setObjectForKey("identifier", "split.0");
    KROPropertyList out1;
    out1.setObjectForKey("identifier", "split.1");
    splitter.setObjectForKey("outputBuses", KROPropertyList::Array{out0, out1});
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({head, mixer, splitter, entry("KROTestGenerator", "g")},
                    {connection("1", "mix", "head"), connection("2", "split.0", "mix.left"),
                     connection("3", "split.1", "mix.right"), connection("4", "g", "split")})));
    ASSERT_TRUE(stream.initialize());
    EXPECT_EQ(processorOf<KROTestMultiBusProcessor>(stream, "split")->initializeForRenderCount, 2);
    EXPECT_EQ(processorOf<KROTestGenerator>(stream, "g")->initializeForRenderCount, 2);
    EXPECT_TRUE(stream.isInitialized());
}

TEST(Part_2_2, ACycleInTheGraphDoesNotMakeTheWalksRecurseForEver) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList loop = entry("KROTestMultiBusProcessor", "loop");
    KROPropertyList in0;
    in0.setObjectForKey("identifier", "loop.in0");
    KROPropertyList in1;
    in1.setObjectForKey("identifier", "loop.in1");
    loop.setObjectForKey("inputBuses", KROPropertyList::Array{in0, in1});
    KROPropertyList out0;
    out0.setObjectForKey("identifier", "loop.out0");
    KROPropertyList out1;
    out1.setObjectForKey("identifier", "loop.out1");
    loop.setObjectForKey("outputBuses", KROPropertyList::Array{out0, out1});
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({head, loop}, {connection("1", "loop.out0", "head"),
                                   connection("2", "loop.out1", "loop.in1")})));
    EXPECT_TRUE(stream.initialize());
    EXPECT_TRUE(stream.isInitialized());
}

TEST(Part_2_2, ResetReachesEveryProcessorInitialisedOrNot) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(
        description({entry("KROTestPassThrough", "a"), entry("KROTestPassThrough", "b")}, {})));
    EXPECT_TRUE(stream.reset());
    EXPECT_EQ(processorOf<KROTestPassThrough>(stream, "a")->resetCount, 1);
    EXPECT_EQ(processorOf<KROTestPassThrough>(stream, "b")->resetCount, 1);
}

TEST(Part_2_2, ConnectingAndDisconnectingSetBothEndsTogether) {
    KROAudioStream stream;
    auto upstream = make<KROTestPassThrough>();
    auto downstream = make<KROTestPassThrough>();
    auto connection = std::make_shared<KROAudioConnection>();
    stream.connectOutputBus(*upstream->outputBus(), *connection);
    stream.connectInputBus(*downstream->inputBus(), *connection);
    EXPECT_EQ(connection->outputBus(), upstream->outputBus());
    EXPECT_EQ(connection->inputBus(), downstream->inputBus());
    EXPECT_EQ(upstream->outputConnection(), connection.get());
    EXPECT_EQ(downstream->inputConnection(), connection.get());
    EXPECT_EQ(stream.countOfConnections(), 0u);
    stream.disconnectInputBus(*downstream->inputBus());
    EXPECT_EQ(connection->inputBus(), nullptr);
    EXPECT_EQ(downstream->inputConnection(), nullptr);
    stream.disconnectOutputBus(*upstream->outputBus());
    EXPECT_EQ(connection->outputBus(), nullptr);
    EXPECT_EQ(upstream->outputConnection(), nullptr);
    EXPECT_TRUE(connection->active());
}

TEST(Part_2_2, AddingAndRemovingProcessorsSetsAndClearsTheirStream) {
    KROAudioStream stream;
    auto processor = make<KROTestPassThrough>();
    stream.addProcessorsObject(processor);
    stream.addProcessorsObject(processor);
    EXPECT_EQ(stream.countOfProcessors(), 1u);
    EXPECT_EQ(processor->stream(), &stream);
    EXPECT_EQ(stream.memberOfProcessors(processor.get()), processor);
    stream.removeProcessorsObject(processor.get());
    EXPECT_EQ(processor->stream(), nullptr);
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    EXPECT_EQ(stream.memberOfProcessors(processor.get()), nullptr);

    auto connection = std::make_shared<KROAudioConnection>();
    stream.addConnectionsObject(connection);
    EXPECT_EQ(stream.memberOfConnections(connection.get()), connection);
    stream.removeConnectionsObject(connection.get());
    EXPECT_EQ(stream.countOfConnections(), 0u);
}

TEST(Part_2_2, AStreamAtTheEndOfItsLifeStopsUninitialisesAndClearsEachProcessorsStream) {
    std::shared_ptr<KROTestHead> head;
    std::shared_ptr<KROTestPassThrough> p1;
    {
        KROAudioStream stream;
        ASSERT_TRUE(stream.initWithDescription(chainDescription(1)));
        ASSERT_TRUE(stream.initialize());
        ASSERT_TRUE(stream.start());
        head = processorOf<KROTestHead>(stream, "head");
        p1 = processorOf<KROTestPassThrough>(stream, "p1");
    }
    EXPECT_FALSE(head->isRunning());
    EXPECT_EQ(head->stopCount, 1);
    EXPECT_FALSE(p1->isInitialized());
    EXPECT_EQ(p1->stream(), nullptr);
    EXPECT_EQ(head->inputConnection(), nullptr);
    EXPECT_EQ(p1->outputConnection(), nullptr);
}

TEST(Part_2_2, SetRenderHeadProcessorMovesTheFlagWithoutAddingTheHead) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(chainDescription(0)));
    const auto present = stream.renderHeadProcessor();
    ASSERT_NE(present, nullptr);
    auto other = make<KROTestHead>();
    stream.setRenderHeadProcessor(other.get());
    EXPECT_FALSE(present->isRenderHead());
    EXPECT_TRUE(other->isRenderHead());
    EXPECT_EQ(stream.renderHeadProcessor(), nullptr);
    EXPECT_EQ(stream.memberOfProcessors(other.get()), nullptr);
    stream.setInputHeadProcessor(present.get());
    EXPECT_EQ(stream.inputHeadProcessor(), present);
}

TEST(Part_2_2, InitWithAnErrorArgumentLoadsTheResourceNamedAfterTheClass) {
    const auto directory =
        std::filesystem::temp_directory_path() / ("krocore-streams-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    ASSERT_TRUE(chainDescription(2).writeToFile(directory / "KROTestResourceStream.plist"));

    KROTestResourceStream missing;
    KROErrorPtr error;
    KROAudioStream::setResourceSearchDirectory({});
    EXPECT_FALSE(missing.init(&error));
    expectError<KROAudioStreamError>(error, 2,
                                     KROLocalizedString("KROAudioStream_action_construct"));

    KROAudioStream::setResourceSearchDirectory(directory);
    KROTestResourceStream stream;
    error.reset();
    EXPECT_TRUE(stream.init(&error)) << (error ? error->description() : "");
    EXPECT_EQ(stream.descriptionResourcePath(), directory / "KROTestResourceStream.plist");
    EXPECT_EQ(stream.countOfProcessors(), 4u);
    EXPECT_NE(stream.processorWithIdentifier("p2"), nullptr);

    // The plain init makes an empty stream.
    EXPECT_TRUE(stream.init());
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    KROAudioStream::setResourceSearchDirectory({});
    std::filesystem::remove_all(directory);
}

TEST(Part_2_2, InitWithDescriptionFileReadsAPropertyListAndPassesReadErrorsUp) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("krocore-stream-" + std::to_string(::getpid()) + ".plist");
    ASSERT_TRUE(chainDescription(1).writeToFile(path));
    KROAudioStream stream;
    KROErrorPtr error;
    EXPECT_TRUE(stream.initWithDescriptionFile(path, &error));
    EXPECT_EQ(stream.countOfProcessors(), 3u);
    {
        std::ofstream broken(path);
        broken << "<plist><dict><key>processors</key>";
    }
    EXPECT_FALSE(stream.initWithDescriptionFile(path, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    std::filesystem::remove(path);
    error.reset();
    EXPECT_FALSE(stream.initWithDescriptionFile(path, &error));
    EXPECT_NE(error, nullptr);
}

TEST(Part_2_2, TheExampleDescriptionsLoadAndBuild) {
    for (const char* name : {"dock-chain.plist", "two-chains.plist"}) {
        KROAudioStream stream;
        KROErrorPtr error;
        ASSERT_TRUE(stream.initWithDescriptionFile(examplePath(name), &error))
            << name << ": " << (error ? error->description() : "");
        EXPECT_GT(stream.countOfProcessors(), 2u) << name;
        EXPECT_GT(stream.countOfConnections(), 1u) << name;
        EXPECT_NE(stream.renderHeadProcessor(), nullptr) << name;
    }
}

TEST(Part_2_2, EveryActionKeyAndFailureReasonOfTheseThreePartsHasAText) {
    const char* keys[] = {
        "KROAudioProcessor_action_settingNumberOfInputBuses",
        "KROAudioProcessor_action_settingNumberOfOutputBuses",
        "KROAudioProcessor_action_initializeForRender",
        "KROAudioProcessor_action_initializeForInput",
        "KROAudioProcessorError_failureReason_1",
        "KROAudioProcessorError_failureReason_2",
        "KROAudioProcessorError_failureReason_5",
        "KROAudioProcessorError_failureReason_6",
        "KROAudioStream_action_construct",
        "KROAudioStream_action_findingProcessorClass",
        "KROAudioStream_action_creatingProcessor",
        "KROAudioStream_action_connectingBus",
        "KROAudioStream_action_initializing",
        "KROAudioStream_action_resetting",
        "KROAudioStream_action_starting",
        "KROAudioStream_action_stopping",
        "KROAudioStreamError_failureReason_1",
        "KROAudioStreamError_failureReason_2",
        "KROAudioStreamError_failureReason_3",
        "KROAudioStreamError_failureReason_4",
        "KROAudioStreamError_failureReason_6",
        "KROAudioStreamError_failureReason_7",
        "KROAudioStreamError_failureReason_8",
        "KROAudioStreamError_failureReason_9",
    };
    for (const char* key : keys) {
        const std::string text = KROLocalizedString(key);
        EXPECT_NE(text, key);
        EXPECT_FALSE(text.empty()) << key;
    }
    // The formats take the thing concerned.
    EXPECT_EQ(KROStringWithFormatArguments(
                  KROLocalizedString("KROAudioStream_action_creatingProcessor"), "KROFoo"),
              "Creating a processor of class KROFoo");
    EXPECT_EQ(
        KROAudioStreamError::errorWithCode(7, connectingBus("mix.in"))->localizedDescription(),
        "Connecting the bus mix.in failed because the bus is already connected.");
}
