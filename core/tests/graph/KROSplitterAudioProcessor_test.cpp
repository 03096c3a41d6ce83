// The splitter: bus 0 drives the source once a block and every bus takes a
// copy; the push path shares one buffer; and a graph that loops back through
// a splitter and a mixer renders without waiting on itself.
#include <gtest/gtest.h>

#include <unistd.h>

#include "KROAllocationGuard.h"
#include "KROGraphTestClasses.h"
#include "KROMixerAudioProcessor.h"
#include "KROSplitterAudioProcessor.h"

using namespace kro_graph_test;

namespace {

KROPropertyList splitterEntry() {
    KROPropertyList splitter = entry("KROSplitterAudioProcessor", "splitter");
    KROPropertyList first;
    first.setObjectForKey("identifier", "out0");
    KROPropertyList second;
    second.setObjectForKey("identifier", "out1");
    splitter.setObjectForKey("outputBuses", KROPropertyList::Array{first, second});
    return splitter;
}

KROPropertyList head(const char* identifier, const char* flag) {
    KROPropertyList head = entry("KROTestHead", identifier);
    if (flag) {
        head.setObjectForKey(flag, true);
    }
    return head;
}

std::shared_ptr<KROAudioStream> built(const KROPropertyList& description) {
    auto stream = std::make_shared<KROAudioStream>();
    KROErrorPtr error;
    EXPECT_TRUE(stream->initWithDescription(description, &error));
    EXPECT_TRUE(stream->initialize(&error)) << (error ? error->description() : "");
    return stream;
}

} // namespace

TEST(KROSplitterAudioProcessor, Bus0DrivesTheSourceOnceABlockAndEveryBusTakesACopy) {
    // generator -> splitter; out0 -> a (render head), out1 -> b.
    const auto stream =
        built(description({head("a", "isRenderHead"), head("b", nullptr), splitterEntry(),
                           entry("KROTestGenerator", "generator")},
                          {connection("in", "generator", "splitter"), connection("c0", "out0", "a"),
                           connection("c1", "out1", "b")}));
    auto a = processorOf<KROTestHead>(*stream, "a");
    auto b = processorOf<KROTestHead>(*stream, "b");
    auto generator = processorOf<KROTestGenerator>(*stream, "generator");
    ASSERT_TRUE(b->initializeForRender());

    generator->value = 0.25f;
    a->renderBlock();
    b->renderBlock();
    EXPECT_TRUE(allSamplesAre(*b->buffer, 0.25f));
    // Bus 1 before bus 0 gets the block before.
    generator->value = 0.5f;
    KRO_EXPECT_NO_ALLOCATION(b->renderBlock());
    EXPECT_TRUE(allSamplesAre(*b->buffer, 0.25f));
    KRO_EXPECT_NO_ALLOCATION(a->renderBlock());
    EXPECT_TRUE(allSamplesAre(*a->buffer, 0.5f));
    EXPECT_EQ(generator->renderCount, 2u);
    // A bus that asks with another length gets nothing and keeps its buffer.
    b->buffer->setFrames(32);
    b->renderBlock();
    EXPECT_TRUE(allSamplesAre(*b->buffer, 0.25f));
}

TEST(KROSplitterAudioProcessor, ThePushPathHandsOneBufferToEachOutputInOrder) {
    KROPropertyList first = entry("KROTestPassThrough", "first");
    first.setObjectForKey("offset", 1.0);
    KROPropertyList second = entry("KROTestPassThrough", "second");
    second.setObjectForKey("offset", 10.0);
    const auto stream =
        built(description({head("input", "isInputHead"), splitterEntry(), first, second},
                          {connection("in", "input", "splitter"), connection("c0", "out0", "first"),
                           connection("c1", "out1", "second")}));
    auto input = processorOf<KROTestHead>(*stream, "input");
    input->pushBlock(0.5f);
    KRO_EXPECT_NO_ALLOCATION(input->pushBlock(0.5f));
    // No copy: the second branch sees the first one's change.
    EXPECT_TRUE(allSamplesAre(*input->buffer, 11.5f));
    EXPECT_EQ(processorOf<KROTestPassThrough>(*stream, "second")->inputCount, 2);
}

// The mixer's second input comes from the splitter's second output, which
// copies the splitter's buffer instead of pulling: the loop closes on a copy
// of the block being mixed (the first input, mixed in already) and never
// waits on the locks of its own pull.
TEST(KROSplitterAudioProcessor, ALoopThroughAMixerRendersWithoutWaitingOnItself) {
    KROPropertyList mixer = entry("KROMixerAudioProcessor", "mixer");
    KROPropertyList first;
    first.setObjectForKey("identifier", "m0");
    KROPropertyList second;
    second.setObjectForKey("identifier", "m1");
    mixer.setObjectForKey("inputBuses", KROPropertyList::Array{first, second});
    const auto stream =
        built(description({head("head", "isRenderHead"), splitterEntry(), mixer,
                           entry("KROTestGenerator", "generator")},
                          {connection("c0", "out0", "head"), connection("in", "mixer", "splitter"),
                           connection("g", "generator", "m0"), connection("loop", "out1", "m1")}));
    auto output = processorOf<KROTestHead>(*stream, "head");
    alarm(10);
    for (int block = 0; block < 3; ++block) {
        output->renderBlock();
        EXPECT_TRUE(allSamplesAre(*output->buffer, 1.0f));
    }
    alarm(0);
}
