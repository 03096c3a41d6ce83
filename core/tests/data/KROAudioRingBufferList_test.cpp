// The ring: absolute frames wrap around its length; refused transfers change nothing.
#include <gtest/gtest.h>

#include <limits>

#include "KROAllocationGuard.h"
#include "KROAudioRingBufferList.h"
#include "KROBufferListFixtures.h"

namespace {

using Samples = std::vector<float>;

std::shared_ptr<KROAudioRingBufferList> ring(std::uint64_t frames = 8) {
    return KROAudioRingBufferList::bufferListWithChannels(2, frames);
}

} // namespace

// Frame 6 of 8 wraps to 6, 7, 0, 1, as -2, 14 and -10 do.
TEST(KROAudioRingBufferList, AbsoluteFramesWrapAroundTheRing) {
    const auto block = countingList(2, 4);
    for (const std::int64_t frame : {6, -2, 14, -10}) {
        const auto wrapped = ring();
        wrapped->storeBuffer(*block, frame);
        EXPECT_EQ(samplesOf(*wrapped, 1), (Samples{103, 104, 0, 0, 0, 0, 101, 102})) << frame;
    }
    for (const std::int64_t frame :
         {std::int64_t{5}, std::int64_t{-9}, std::int64_t{1000001},
          std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
        const auto stored = ring();
        stored->storeBuffer(*block, frame);
        auto out = makeList(2, 4);
        stored->retrieveBuffer(*out, frame);
        EXPECT_EQ(samplesOf(*out), samplesOf(*block)) << frame;
    }
    const auto counting = ring();
    ASSERT_TRUE(counting->copyBufferList(*countingList(2, 8)));
    counting->retrieveBuffer(*block, 17);
    EXPECT_EQ(samplesOf(*block, 0), (Samples{2, 3, 4, 5}));
}

// Channel forms ignore the channel count; too many frames or channels change nothing.
TEST(KROAudioRingBufferList, TransfersKeepToTheirChannelsAndLength) {
    const auto store = ring();
    store->storeChannel(0, *countingList(1, 4), 1, 7);
    EXPECT_EQ(samplesOf(*store), (std::vector<Samples>{Samples(8, 0), {2, 3, 4, 0, 0, 0, 0, 1}}));
    auto three = makeList(3, 2);
    store->retrieveChannel(1, 2, *three, -1);
    EXPECT_EQ(samplesOf(*three), (std::vector<Samples>{{0, 0}, {0, 0}, {1, 2}}));
    const auto tooLong = constantList(2, 9, 7), mono = constantList(1, 4, 7);
    const auto untouched = ring();
    untouched->storeBuffer(*tooLong, 0);
    untouched->storeChannel(0, *tooLong, 1, 0);
    untouched->storeBuffer(*mono, 0);
    untouched->retrieveBuffer(*tooLong, 0);
    untouched->retrieveChannel(0, 0, *tooLong, 0);
    untouched->retrieveBuffer(*mono, 0);
    EXPECT_EQ(samplesOf(*untouched), samplesOf(*makeList(2, 8)));
    EXPECT_EQ(samplesOf(*tooLong, 0), Samples(9, 7));
    EXPECT_EQ(samplesOf(*mono, 0), Samples(4, 7));
    const auto shorter = ring();
    ASSERT_TRUE(shorter->setFrames(6));
    shorter->storeBuffer(*countingList(2, 4), 4);
    EXPECT_EQ(samplesOf(*shorter, 0), (Samples{3, 4, 0, 0, 1, 2, 0, 0}));
    ASSERT_TRUE(shorter->setFrames(0));
    const auto empty = makeList(2, 1);
    ASSERT_TRUE(empty->setFrames(0));
    shorter->storeBuffer(*empty, -3); // an empty ring takes nothing, even an empty block
    EXPECT_EQ(samplesOf(*shorter, 0), (Samples{3, 4, 0, 0, 1, 2, 0, 0}));
}

TEST(KROAudioRingBufferList, TransfersAllocateNothing) {
    const auto big = ring(8192);
    const auto block = countingList(2, 512), mono = makeList(1, 512);
    KRO_EXPECT_NO_ALLOCATION(big->storeBuffer(*block, 8000));
    KRO_EXPECT_NO_ALLOCATION(big->storeChannel(0, *mono, 1, 8100));
    KRO_EXPECT_NO_ALLOCATION(big->retrieveBuffer(*block, -300));
    KRO_EXPECT_NO_ALLOCATION(big->retrieveChannel(1, 0, *mono, -20));
}
