// The audio stream: descriptions, initialising walks, start and stop, files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>

#include "../util/KROScratchDirectory.h"
#include "KROGraphTestClasses.h"

using namespace kro_graph_test;

namespace {

class KROTestResourceStream : public KROAudioStream {
    KRO_DECLARE_CLASS(KROTestResourceStream)
};

class KROTestWatchedProcessor : public KROTestPassThrough {
    KRO_DECLARE_CLASS(KROTestWatchedProcessor)

public:
    KROTestWatchedProcessor() { ++alive; }
    ~KROTestWatchedProcessor() override { --alive; }
    static inline int alive = 0;
};

KROPropertyList watched(const char* identifier) {
    return entry("KROTestWatchedProcessor", identifier);
}

std::string action(const char* key, const std::string& argument = {}) {
    return KROStringWithFormatArguments(KROLocalizedString(key), argument);
}

std::unique_ptr<KROAudioStream> built(const KROPropertyList& description) {
    auto stream = std::make_unique<KROAudioStream>();
    EXPECT_TRUE(stream->initWithDescription(description));
    return stream;
}

} // namespace

KRO_REGISTER_CLASS(KROTestResourceStream, KROAudioStream)
KRO_REGISTER_CLASS(KROTestWatchedProcessor, KROTestPassThrough)

// Every bad description reports its code and leaves the stream empty, processors released.
TEST(KROAudioStream, EveryBadDescriptionReportsItsCodeAndLeavesTheStreamEmpty) {
    KROPropertyList numberClass, badConnections = description({watched("a")}, {}), badProcessors;
    numberClass.setObjectForKey("class", 42);
    badConnections.setObjectForKey("connections", KROPropertyList());
    badProcessors.setObjectForKey("processors", 3);
    const auto generators = [](KROPropertyList::Array more, KROPropertyList::Array connections) {
        more.insert(more.begin(), {entry("KROTestGenerator", "g"), entry("KROTestGenerator", "h")});
        return description(std::move(more), std::move(connections));
    };
    const char* construct = "KROAudioStream_action_construct";
    const char* finding = "KROAudioStream_action_findingProcessorClass";
    const char* creating = "KROAudioStream_action_creatingProcessor";
    const char* connecting = "KROAudioStream_action_connectingBus";
    const struct {
        const char* what;
        KROPropertyList description;
        std::int64_t code; // a processor's own code when negative
        std::string action;
    } cases[] = {
        {"an empty dictionary", KROPropertyList(), 2, action(construct)},
        {"no dictionary", KROPropertyList(KROPropertyList::Array{}), 2, action(construct)},
        {"processors not an array", badProcessors, 2, action(construct)},
        {"connections not an array", badConnections, 2, action(construct)},
        {"no class", description({watched("a"), KROPropertyList()}, {}), 3, action(finding)},
        {"an empty class", description({watched("a"), entry("", "x")}, {}), 3, action(finding)},
        {"a number for a class", description({watched("a"), numberClass}, {}), 3, action(finding)},
        {"an unknown class", description({watched("a"), entry("KRONo", "c")}, {}), 4,
         action(creating, "KRONo")},
        {"no processor class", description({watched("a"), entry("KROAudioBus", "x")}, {}), 4,
         action(creating, "KROAudioBus")},
        {"too many input buses",
         description({watched("a"), withBuses(watched("t"), "inputBuses", {"i", "j"})}, {}), -2,
         action("KROAudioProcessor_action_settingNumberOfInputBuses")},
        {"too many output buses",
         description({watched("a"), withBuses(watched("t"), "outputBuses", {"i", "j"})}, {}), -2,
         action("KROAudioProcessor_action_settingNumberOfOutputBuses")},
        {"an unknown upstream bus", generators({watched("a")}, {connection("c", "no", "a")}), 6,
         action(connecting, "no")},
        {"an unknown downstream bus", generators({watched("a")}, {connection("c", "a", "no")}), 6,
         action(connecting, "no")},
        {"a generator's input bus", generators({}, {connection("c", "h", "g")}), 6,
         action(connecting, "g")},
        {"an output bus twice",
         generators({watched("a"), watched("b")},
                    {connection("1", "g", "a"), connection("2", "g", "b")}),
         7, action(connecting, "g")},
        {"an input bus twice",
         generators({watched("a")}, {connection("1", "g", "a"), connection("2", "h", "a")}), 7,
         action(connecting, "a")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KROAudioStream stream;
        ASSERT_TRUE(stream.initWithDescription(chainDescription(1)));
        KROErrorPtr error;
        EXPECT_FALSE(stream.initWithDescription(c.description, &error));
        if (c.code < 0) {
            expectError<KROAudioProcessorError>(error, -c.code, c.action);
        } else {
            expectError<KROAudioStreamError>(error, c.code, c.action);
        }
        EXPECT_EQ(stream.countOfProcessors() + stream.countOfConnections(), 0u);
        EXPECT_EQ(KROTestWatchedProcessor::alive, 0);
        EXPECT_FALSE(stream.initWithDescription(c.description));
    }
    EXPECT_EQ(
        KROAudioStreamError::errorWithCode(7, action(connecting, "mix.in"))->localizedDescription(),
        "Connecting the bus mix.in failed because the bus is already connected.");
}

// What a description leaves out is no error; buses are named before settings
// are read; a processor's name means its bus 0.
TEST(KROAudioStream, NamesReachEveryBusAndWhatIsLeftOutIsNoError) {
    KROPropertyList comment, odd;
    comment.setObjectForKey("comment", "nothing here");
    KROAudioStream stream;
    KROErrorPtr error;
    EXPECT_TRUE(stream.initWithDescription(comment, &error));
    EXPECT_EQ(stream.countOfProcessors(), 0u);

    KROPropertyList multi =
        withBuses(entry("KROTestMultiBusProcessor", "m"), "inputBuses", {"m.in0", "m.in1", ""});
    multi = withBuses(multi, "outputBuses", {"m.out0", "m.out1", "m.out2"});
    KROPropertyList plain = entry("KROTestPassThrough", "a");
    plain.setObjectForKey("inputBuses", 5);
    plain.setObjectForKey("isRenderHead", "yes");
    odd.setObjectForKey("input", 1);
    odd.setObjectForKey("identifier", 2.5);
    EXPECT_TRUE(stream.initWithDescription(
        description({multi, entry("KROTestGenerator", "g"), entry("KROTestGenerator", "h"), plain,
                     entry("KROTestPassThrough", "b")},
                    {connection("1", "g", "m.in1"), connection("2", "h", "m"),
                     connection("3", "m", "a"), connection("4", "m.out2", ""),
                     connection("5", nullptr, "b"), odd, KROPropertyList(9)}),
        &error));
    EXPECT_EQ(error, nullptr);
    const auto m = stream.processorWithIdentifier("m");
    ASSERT_EQ(m->numberOfInputBuses(), 3u);
    EXPECT_EQ(m->inputBuses()[1]->identifier(), "m.in1");
    const auto busOf = [&](const char* name, bool input) -> const KROAudioBus* {
        const auto connection = stream.connectionWithIdentifier(name);
        return input ? static_cast<const KROAudioBus*>(connection->inputBus())
                     : connection->outputBus();
    };
    EXPECT_EQ(std::tuple(busOf("1", true), busOf("2", true), busOf("3", false), busOf("4", false)),
              std::tuple(m->inputBuses()[1].get(), m->inputBuses()[0].get(),
                         m->outputBuses()[0].get(), m->outputBuses()[2].get()));
    EXPECT_TRUE(!busOf("4", true) && !busOf("5", false) && stream.countOfConnections() == 7);
    EXPECT_EQ(stream.processorWithIdentifier("a")->numberOfInputBuses(), 1u);
}

// The format spreads from the head; a stream that goes away stops, uninitialises
// and lets go; one head for both chains is initialised for each, started once.
TEST(KROAudioStream, AChainRunsUntilItsStreamGoesAway) {
    auto stream = built(chainDescription(3));
    ASSERT_TRUE(stream->initialize() && stream->isInitialized() && stream->reset());
    EXPECT_EQ(stream->connectionWithIdentifier("c4")->description(),
              "KROAudioConnection c4: 48000 Hz, 2 channels, 64 frames");
    const auto head = processorOf<KROTestHead>(*stream, "head");
    const auto p3 = processorOf<KROTestPassThrough>(*stream, "p3");
    ASSERT_TRUE(stream->start() && stream->isRunning());
    EXPECT_TRUE(allSamplesAre(head->renderBlock(), 0.5f));
    stream->disconnectInputBus(*head->inputBus());
    EXPECT_TRUE(!head->inputConnection() && !stream->connectionWithIdentifier("c1")->inputBus());
    const auto p1 = processorOf<KROTestPassThrough>(*stream, "p1");
    stream->removeProcessorsObject(p1.get());
    EXPECT_EQ(p1->stream(), nullptr);
    stream.reset();
    EXPECT_EQ(std::tuple(head->stopCount, p3->resetCount, p3->uninitializeCount,
                         p3->isInitialized(), p3->stream(), p3->outputConnection()),
              std::tuple(1, 1, 1, false, nullptr, nullptr));
    const auto both = built(description({headEntry("head", true, true)}, {}));
    ASSERT_TRUE(both->initialize() && both->start() && both->stop());
    const auto h = processorOf<KROTestHead>(*both, "head");
    EXPECT_EQ(std::tuple(h->initializeForInputCount, h->initializeForRenderCount, h->startCount,
                         h->stopCount),
              std::tuple(1, 1, 1, 1));
}

// Each refused change of state reports its code and changes nothing.
TEST(KROAudioStream, RefusedStateChangesReportTheirCode) {
    const KROPropertyList noHeads =
        description({entry("KROTestGenerator", "g"), entry("KROTestPassThrough", "p1")},
                    {connection("c1", "g", "p1")});
    using Change = std::function<bool(KROAudioStream&, KROErrorPtr*)>;
    const Change start = [](auto& s, auto* e) { return s.start(e); };
    const struct {
        const char* what;
        KROPropertyList description;
        bool initialise, run;
        Change change;
        std::int64_t code;
        const char* action;
    } cases[] = {
        {"start before initialise", chainDescription(1), false, false, start, 8,
         "KROAudioStream_action_starting"},
        {"initialise while running", chainDescription(1), true, true,
         [](auto& s, auto* e) { return s.initialize(e); }, 9, "KROAudioStream_action_initializing"},
        {"reset while running", chainDescription(1), true, true,
         [](auto& s, auto* e) { return s.reset(e); }, 9, "KROAudioStream_action_resetting"},
        {"start without heads", noHeads, true, false, start, 1, "KROAudioStream_action_starting"},
        {"stop without heads", noHeads, true, false, [](auto& s, auto* e) { return s.stop(e); }, 1,
         "KROAudioStream_action_stopping"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto stream = built(c.description);
        ASSERT_TRUE(!c.initialise || stream->initialize());
        ASSERT_TRUE(!c.run || stream->start());
        const auto p1 = processorOf<KROTestPassThrough>(*stream, "p1");
        const auto counts = [&] {
            return std::tuple(p1->initializeForRenderCount, p1->uninitializeCount, p1->resetCount);
        };
        const auto before = counts();
        KROErrorPtr error;
        EXPECT_FALSE(c.change(*stream, &error));
        expectError<KROAudioStreamError>(error, c.code, action(c.action));
        EXPECT_EQ(counts(), before);
        EXPECT_EQ(stream->isRunning(), c.run);
        EXPECT_EQ(stream->connectionWithIdentifier("c1")->numberOfChannels(), c.run ? 2u : 0u);
    }
}

// A processor that cannot initialise fails with its own error. Kept: the
// rollback uninitialises but leaves the flags until the stream's uninitialise.
TEST(KROAudioStream, AFailedInitialiseRollsBackButLeavesTheFlags) {
    const auto stream = built(description(
        {headEntry("head", true), entry("KROTestPassThrough", "a"),
         entry("KROTestPlainProcessor", "plain"), entry("KROTestPassThrough", "unreached")},
        {connection("c1", "a", "head"), connection("c2", "plain", "a")}));
    KROErrorPtr error;
    EXPECT_FALSE(stream->initialize(&error));
    expectError<KROAudioProcessorError>(
        error, 5, action("KROAudioProcessor_action_initializeForRender", "KROTestPlainProcessor"));
    EXPECT_EQ(stream->connectionWithIdentifier("c1")->maxFrames(), 0u);
    const auto a = processorOf<KROTestPassThrough>(*stream, "a");
    EXPECT_EQ(a->uninitializeCount, 1);
    EXPECT_TRUE(a->isInitialized());
    EXPECT_FALSE(stream->processorWithIdentifier("plain")->isInitialized());
    EXPECT_EQ(processorOf<KROTestPassThrough>(*stream, "unreached")->uninitializeCount, 0);
    EXPECT_TRUE(stream->uninitialize());
    EXPECT_FALSE(a->isInitialized());
    EXPECT_EQ(a->uninitializeCount, 2);
}

// Both walks stop at an I/O mark; the stream is initialised when both chains are.
TEST(KROAudioStream, TheWalksStopAtAnIOMark) {
    const auto stream =
        built(description({headEntry("render", true), entry("KROTestPassThrough", "r"),
                           entry("KROTestIOProcessor", "io"), entry("KROTestPassThrough", "i"),
                           headEntry("input", false, true)},
                          {connection("c1", "r", "render"), connection("c2", "io", "r"),
                           connection("c3", "i", "io"), connection("c4", "input", "i")}));
    const auto io = processorOf<KROTestIOProcessor>(*stream, "io");
    const auto i = processorOf<KROTestPassThrough>(*stream, "i");
    const auto r = processorOf<KROTestPassThrough>(*stream, "r");
    ASSERT_TRUE(stream->initializeForRender(stream->renderHeadProcessor().get()));
    EXPECT_EQ(std::tuple(io->initializeForRenderCount, r->initializeForRenderCount,
                         i->initializeForRenderCount, i->isInitialized()),
              std::tuple(1, 1, 0, false));
    EXPECT_TRUE(stream->isProcessorInitializedForRender(stream->renderHeadProcessor().get()));
    EXPECT_FALSE(stream->isInitialized());
    ASSERT_TRUE(stream->initializeForInput(stream->inputHeadProcessor().get()));
    EXPECT_EQ(std::tuple(i->initializeForInputCount, io->initializeForInputCount,
                         r->initializeForInputCount),
              std::tuple(1, 1, 0));
    EXPECT_TRUE(stream->isInitialized());
    EXPECT_EQ(stream->connectionWithIdentifier("c3")->numberOfChannels(), 2u);
}

// A processor reached by two paths is initialised once for each; a cycle
// does not make a walk recurse forever.
TEST(KROAudioStream, TwoPathsInitialiseTwiceAndACycleEnds) {
    const auto diamond = built(description(
        {headEntry("head", true),
         withBuses(entry("KROTestMultiBusProcessor", "mix"), "inputBuses", {"mix.0", "mix.1"}),
         withBuses(entry("KROTestMultiBusProcessor", "split"), "outputBuses",
                   {"split.0", "split.1"}),
         entry("KROTestGenerator", "g")},
        {connection("1", "mix", "head"), connection("2", "split.0", "mix.0"),
         connection("3", "split.1", "mix.1"), connection("4", "g", "split")}));
    ASSERT_TRUE(diamond->initialize());
    EXPECT_EQ(processorOf<KROTestMultiBusProcessor>(*diamond, "split")->initializeForRenderCount,
              2);
    EXPECT_EQ(processorOf<KROTestGenerator>(*diamond, "g")->initializeCount, 2);
    EXPECT_TRUE(diamond->isInitialized());

    KROPropertyList loop = withBuses(entry("KROTestMultiBusProcessor", "loop"), "inputBuses",
                                     {"loop.in0", "loop.in1"});
    loop = withBuses(loop, "outputBuses", {"loop.out0", "loop.out1"});
    const auto cycle = built(
        description({headEntry("head", true), loop}, {connection("1", "loop.out0", "head"),
                                                      connection("2", "loop.out1", "loop.in1")}));
    EXPECT_TRUE(cycle->initialize());
    EXPECT_TRUE(cycle->isInitialized());
}

// init reads the resource named after the class; a bad file passes its error up.
TEST(KROAudioStream, DescriptionsComeFromResourcesAndFiles) {
    const KROScratchDirectory scratch;
    const std::filesystem::path& directory = scratch.path();
    ASSERT_TRUE(chainDescription(2).writeToFile(directory / "KROTestResourceStream.plist"));
    KROTestResourceStream stream;
    KROErrorPtr error;
    EXPECT_FALSE(stream.init(&error));
    expectError<KROAudioStreamError>(error, 2, action("KROAudioStream_action_construct"));
    KROAudioStream::setResourceSearchDirectory(directory);
    EXPECT_TRUE(stream.init(&error));
    EXPECT_NE(stream.processorWithIdentifier("p2"), nullptr);
    EXPECT_TRUE(stream.init());
    EXPECT_EQ(stream.countOfProcessors(), 0u);
    KROAudioStream::setResourceSearchDirectory({});

    std::ofstream(directory / "broken.plist") << "<plist><dict><key>processors</key>";
    EXPECT_FALSE(stream.initWithDescriptionFile(directory / "broken.plist", &(error = nullptr)));
    EXPECT_NE(error, nullptr);
    for (const char* name : {"dock-chain.plist", "two-chains.plist"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(stream.initWithDescriptionFile(
            std::filesystem::path(KRO_SOURCE_DIR) / "examples" / name, &error));
        EXPECT_NE(stream.renderHeadProcessor(), nullptr);
    }
}
