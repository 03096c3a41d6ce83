// The splitter: bus 0 drives the source once a block and every bus takes a
// copy; the push path shares one buffer; and a graph that loops back through
// a splitter and a mixer renders without waiting on itself.
#include <gtest/gtest.h>

#include <unistd.h>

#include "KROAllocationGuard.h"
#include "KROMixerAudioProcessor.h"
#include "KROShapingTestSupport.h"
#include "KROSplitterAudioProcessor.h"

using namespace kro_shaping_test;

namespace {

const KROPropertyList splitter =
    withBuses(entry("KROSplitterAudioProcessor", "splitter"), "outputBuses", {"out0", "out1"});

} // namespace

TEST(KROSplitterAudioProcessor, Bus0DrivesTheSourceOnceABlockAndEveryBusTakesACopy) {
    // generator -> splitter; out0 -> head, out1 -> b.
    const Graph split =
        graph({entry("KROTestHead", "b"), splitter, entry("KROTestGenerator", "generator")},
              {connection("in", "generator", "splitter"), connection("c0", "out0", "head"),
               connection("c1", "out1", "b")});
    auto b = split.get<KROTestHead>("b");
    auto generator = split.get<KROTestGenerator>("generator");
    ASSERT_TRUE(b->initializeForRender());
    generator->setConstant(0.25f);
    split.head->renderBlock();
    b->renderBlock();
    EXPECT_TRUE(allSamplesAre(*b->buffer, 0.25f));
    // Bus 1 before bus 0 gets the block before.
    generator->setConstant(0.5f);
    KRO_EXPECT_NO_ALLOCATION(b->renderBlock());
    EXPECT_TRUE(allSamplesAre(*b->buffer, 0.25f));
    KRO_EXPECT_NO_ALLOCATION(split.head->renderBlock());
    EXPECT_TRUE(allSamplesAre(*split.head->buffer, 0.5f));
    EXPECT_EQ(generator->renderCount, 2u);
    // A bus that asks with another length gets nothing and keeps its buffer.
    b->renderBlock(32);
    EXPECT_TRUE(allSamplesAre(*b->buffer, 0.25f));
}

TEST(KROSplitterAudioProcessor, ThePushPathHandsOneBufferToEachOutputInOrder) {
    KROPropertyList input = entry("KROTestHead", "input");
    input.setObjectForKey("isInputHead", true);
    KROPropertyList first = entry("KROTestPassThrough", "first");
    first.setObjectForKey("gain", 2.0);
    KROPropertyList second = entry("KROTestPassThrough", "second");
    second.setObjectForKey("gain", 10.0);
    const Graph split =
        graph({input, splitter, first, second},
              {connection("in", "input", "splitter"), connection("c0", "out0", "first"),
               connection("c1", "out1", "second")});
    auto head = split.get<KROTestHead>("input");
    head->pushBlock(0.5f);
    KRO_EXPECT_NO_ALLOCATION(head->pushBlock(0.5f));
    // No copy: the second branch sees the first one's change.
    EXPECT_TRUE(allSamplesAre(*head->buffer, 10.0f));
    EXPECT_EQ(split.get<KROTestPassThrough>("second")->inputCount, 2);
}

// The mixer's second input comes from the splitter's second output, which
// copies the splitter's buffer instead of pulling: the loop closes on a copy
// of the block being mixed (the first input, mixed in already) and never
// waits on the locks of its own pull.
TEST(KROSplitterAudioProcessor, ALoopThroughAMixerRendersWithoutWaitingOnItself) {
    const Graph loop = graph(
        {splitter, withBuses(entry("KROMixerAudioProcessor", "mixer"), "inputBuses", {"m0", "m1"}),
         entry("KROTestGenerator", "generator")},
        {connection("c0", "out0", "head"), connection("in", "mixer", "splitter"),
         connection("g", "generator", "m0"), connection("loop", "out1", "m1")});
    alarm(10);
    for (int block = 0; block < 3; ++block) {
        loop.head->renderBlock();
        EXPECT_TRUE(allSamplesAre(*loop.head->buffer, 1.0f));
    }
    alarm(0);
}
