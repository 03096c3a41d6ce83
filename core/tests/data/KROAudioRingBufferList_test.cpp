// The ring: absolute frames wrap around its current length, in one or two
// pieces; a transfer it cannot take changes nothing; nothing allocates.
#include <gtest/gtest.h>

#include <limits>

#include "KROAllocationGuard.h"
#include "KROAudioRingBufferList.h"
#include "KROBufferListFixtures.h"

namespace {

// A ring of 2 channels of 8 frames and a block of 4 frames holding 1..4 and 101..104.
std::pair<std::shared_ptr<KROAudioRingBufferList>, std::shared_ptr<KROAudioBufferList>>
ringAndBlock() {
    return {KROAudioRingBufferList::bufferListWithChannels(2, 8), countingList(2, 4)};
}

} // namespace

// 4 frames at absolute frame 6 land on ring positions 6, 7, 0, 1; so do
// frames -2, 14 and -10.
TEST(KROAudioRingBufferList, AbsoluteFramesWrapAroundTheRing) {
    auto [ring, block] = ringAndBlock();
    for (const std::int64_t frame : {6, -2, 14, -10}) {
        SCOPED_TRACE(frame);
        ring->clear();
        ring->storeBuffer(*block, frame);
        EXPECT_EQ(samplesOf(*ring, 0), (std::vector<float>{3, 4, 0, 0, 0, 0, 1, 2}));
        EXPECT_EQ(samplesOf(*ring, 1), (std::vector<float>{103, 104, 0, 0, 0, 0, 101, 102}));
    }
    auto counting = countingList(2, 8);
    ASSERT_TRUE(ring->copyBufferList(*counting));
    ring->retrieveBuffer(*block, 6);
    EXPECT_EQ(samplesOf(*block, 1), (std::vector<float>{107, 108, 101, 102}));
    ring->retrieveBuffer(*block, 17);
    EXPECT_EQ(samplesOf(*block, 0), (std::vector<float>{2, 3, 4, 5}));
}

TEST(KROAudioRingBufferList, AStoredBlockComesBackFromTheSameAbsoluteFrame) {
    auto [ring, block] = ringAndBlock();
    const auto stored = samplesOf(*block);
    for (const std::int64_t frame :
         {std::int64_t{0}, std::int64_t{5}, std::int64_t{8}, std::int64_t{-1}, std::int64_t{-8},
          std::int64_t{-9}, std::int64_t{1000001}, std::numeric_limits<std::int64_t>::min(),
          std::numeric_limits<std::int64_t>::max()}) {
        SCOPED_TRACE(frame);
        ring->clear();
        ring->storeBuffer(*block, frame);
        auto out = makeList(2, 4);
        ring->retrieveBuffer(*out, frame);
        EXPECT_EQ(samplesOf(*out), stored);
    }
}

// The channel forms move one channel and do not compare channel counts.
TEST(KROAudioRingBufferList, ChannelFormsMoveOneChannel) {
    auto [ring, block] = ringAndBlock();
    auto mono = countingList(1, 4);
    ring->storeChannel(0, *mono, 1, 7);
    EXPECT_EQ(samplesOf(*ring, 0), std::vector<float>(8, 0.0f));
    EXPECT_EQ(samplesOf(*ring, 1), (std::vector<float>{2, 3, 4, 0, 0, 0, 0, 1}));
    auto three = makeList(3, 2);
    ring->retrieveChannel(1, 2, *three, -1);
    EXPECT_EQ(samplesOf(*three, 2), (std::vector<float>{1, 2}));
    EXPECT_EQ(samplesOf(*three, 0), (std::vector<float>{0, 0}));
}

// More frames than the ring, or another channel count for the whole-list
// forms, change nothing on either side and report nothing.
TEST(KROAudioRingBufferList, ATransferTheRingCannotTakeChangesNothing) {
    auto [ring, block] = ringAndBlock();
    auto tooLong = constantList(2, 9, 7.0f);
    auto mono = constantList(1, 4, 7.0f);
    ring->storeBuffer(*tooLong, 0);
    ring->storeChannel(0, *tooLong, 1, 0);
    ring->storeBuffer(*mono, 0);
    EXPECT_EQ(samplesOf(*ring), std::vector<std::vector<float>>(2, std::vector<float>(8, 0)));
    ring->clear();
    ring->retrieveBuffer(*tooLong, 0);
    ring->retrieveChannel(0, 0, *tooLong, 0);
    ring->retrieveBuffer(*mono, 0);
    EXPECT_EQ(samplesOf(*tooLong, 0), std::vector<float>(9, 7.0f));
    EXPECT_EQ(samplesOf(*mono, 0), std::vector<float>(4, 7.0f));
}

// The ring's length is its current frames; an empty block or ring moves nothing.
TEST(KROAudioRingBufferList, TheRingLengthIsItsCurrentFrames) {
    auto [ring, block] = ringAndBlock();
    ASSERT_TRUE(ring->setFrames(6));
    ring->storeBuffer(*block, 4);
    EXPECT_EQ(samplesOf(*ring, 0), (std::vector<float>{3, 4, 0, 0, 1, 2, 0, 0}));
    ASSERT_TRUE(block->setFrames(0));
    ring->storeBuffer(*block, 3);
    EXPECT_EQ(samplesOf(*ring, 0), (std::vector<float>{3, 4, 0, 0, 1, 2, 0, 0}));
    ASSERT_TRUE(ring->setFrames(0));
    ring->storeBuffer(*block, -3);
    ring->retrieveBuffer(*block, 5);
}

TEST(KROAudioRingBufferList, TransfersAllocateNothing) {
    auto ring = KROAudioRingBufferList::bufferListWithChannels(2, 8192);
    auto block = countingList(2, 512);
    auto mono = makeList(1, 512);
    KRO_EXPECT_NO_ALLOCATION(ring->storeBuffer(*block, 8000));
    KRO_EXPECT_NO_ALLOCATION(ring->storeBuffer(*block, -300));
    KRO_EXPECT_NO_ALLOCATION(ring->storeChannel(0, *mono, 1, 8100));
    KRO_EXPECT_NO_ALLOCATION(ring->retrieveBuffer(*block, 8000));
    KRO_EXPECT_NO_ALLOCATION(ring->retrieveChannel(1, 0, *mono, -20));
}
