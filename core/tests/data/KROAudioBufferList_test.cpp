// Part 1.2: buffer lists. The edge cases of the Part, every failure code, the
// statistics against numpy and long-double loops, and the render path under
// the allocation guard.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KROAudioRingBufferList.h"
#include "KROLocalizedString.h"
#include "KROTestCommand.h"
#include "KROVectorOps.h"

namespace {

constexpr std::int64_t kNotFound = 0x7fffffffffffffff;

std::shared_ptr<KROAudioBufferList> makeList(std::uint32_t channels, std::uint64_t frames) {
    auto list = KROAudioBufferList::bufferListWithChannels(channels, frames);
    EXPECT_TRUE(list);
    return list;
}

// Channel c, frame f holds first + c * 100 + f.
void fillCounting(KROAudioBufferList& list, float first = 1.0f) {
    for (std::uint32_t channel = 0; channel < list.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < list.frameCapacity(); ++frame) {
            list.setValue(first + static_cast<float>(channel * 100 + frame), frame, channel);
        }
    }
}

void fillConstant(KROAudioBufferList& list, float value) {
    for (std::uint32_t channel = 0; channel < list.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < list.frameCapacity(); ++frame) {
            list.setValue(value, frame, channel);
        }
    }
}

void fillChannel(KROAudioBufferList& list, std::uint32_t channel, std::vector<float> values) {
    ASSERT_LE(values.size(), list.frameCapacity());
    for (std::size_t frame = 0; frame < values.size(); ++frame) {
        list.setValue(values[frame], frame, channel);
    }
}

std::vector<float> channelValues(const KROAudioBufferList& list, std::uint32_t channel) {
    std::vector<float> values;
    for (std::uint64_t frame = 0; frame < list.frameCapacity(); ++frame) {
        values.push_back(list.valueAtFrame(frame, channel));
    }
    return values;
}

// A foreign AudioBufferList record with its own sample memory.
class ForeignRecord {
public:
    ForeignRecord(std::uint32_t buffers, std::uint32_t frames)
        : record_(
              static_cast<AudioBufferList*>(std::calloc(1, KROAudioBufferListByteSize(buffers)))),
          samples_(buffers, std::vector<float>(frames, 0.5f)) {
        record_->mNumberBuffers = buffers;
        for (std::uint32_t index = 0; index < buffers; ++index) {
            AudioBuffer& buffer = KROAudioBufferAt(*record_, index);
            buffer.mNumberChannels = 1;
            buffer.mDataByteSize = frames * sizeof(float);
            buffer.mData = samples_[index].data();
        }
    }
    ~ForeignRecord() { std::free(record_); }
    ForeignRecord(const ForeignRecord&) = delete;
    ForeignRecord& operator=(const ForeignRecord&) = delete;

    AudioBufferList* get() { return record_; }
    AudioBuffer& buffer(std::uint32_t index) { return KROAudioBufferAt(*record_, index); }
    std::vector<float>& samples(std::uint32_t index) { return samples_[index]; }

private:
    AudioBufferList* record_;
    std::vector<std::vector<float>> samples_;
};

// The error of a failure site of Part 1.2: family, domain, code and the
// sentence of Part 1.1 made from the action key's text.
void expectBufferListError(const KROErrorPtr& error, std::int64_t code, const char* actionKey) {
    ASSERT_TRUE(error);
    EXPECT_NE(dynamic_cast<const KROBufferListError*>(error.get()), nullptr);
    EXPECT_EQ(error->className(), "KROBufferListError");
    EXPECT_EQ(error->domain(), "KROBufferListErrorDomain");
    EXPECT_EQ(error->code(), code);
    const std::string action = KROLocalizedString(actionKey);
    EXPECT_NE(action, actionKey) << "no text for " << actionKey;
    const std::string reasonKey = "KROBufferListError_failureReason_" + std::to_string(code);
    const std::string reason = KROLocalizedString(reasonKey);
    EXPECT_NE(reason, reasonKey) << "no text for " << reasonKey;
    EXPECT_EQ(error->failureReason(), reason);
    EXPECT_EQ(error->description(),
              action + " " + KROLocalizedString("KROError_conjunction") + " " + reason + ".");
}

// A calloc that fails from its failAt-th call on (counting from 0).
int allocatorCalls = 0;
int allocatorFailAt = 0;
void* failingCalloc(std::size_t count, std::size_t size) {
    return allocatorCalls++ >= allocatorFailAt ? nullptr : std::calloc(count, size);
}

class FailingAllocator {
public:
    explicit FailingAllocator(int failAt) {
        allocatorCalls = 0;
        allocatorFailAt = failAt;
        KROBufferList::setAllocatorForTesting(failingCalloc);
    }
    ~FailingAllocator() { KROBufferList::setAllocatorForTesting(nullptr); }
    FailingAllocator(const FailingAllocator&) = delete;
    FailingAllocator& operator=(const FailingAllocator&) = delete;
};

std::vector<float> randomSamples(std::size_t count, std::uint32_t seed, float scale = 1.0f) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-scale, scale);
    std::vector<float> values(count);
    for (float& value : values) {
        value = distribution(generator);
    }
    return values;
}

void expectNear(double actual, long double expected, double relative) {
    const double tolerance = relative * std::max(1.0L, std::fabs(expected));
    EXPECT_NEAR(actual, static_cast<double>(expected), tolerance);
}

} // namespace

// ---------------------------------------------------------------------------
// Edge cases worth testing, one test or more per bullet.

TEST(Part_1_2, ANewListOf2ChannelsAnd512FramesHasFrames512Capacity512Length2048AndAllZero) {
    auto list = makeList(2, 512);
    EXPECT_EQ(list->numberOfChannels(), 2u);
    EXPECT_EQ(list->frames(), 512u);
    EXPECT_EQ(list->frameCapacity(), 512u);
    EXPECT_EQ(list->length(), 2048u);
    EXPECT_EQ(list->capacity(), 2048u);
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        for (std::uint64_t frame = 0; frame < 512; ++frame) {
            ASSERT_EQ(list->channel(channel)[frame], 0.0f);
        }
    }
}

TEST(Part_1_2, SetFramesWithFrameCapacitySucceedsWithOneMoreFailsWithCode17AndKeepsFrames) {
    auto list = makeList(2, 512);
    ASSERT_TRUE(list->setFrames(100));
    KROErrorPtr error;
    EXPECT_TRUE(list->setFrames(list->frameCapacity(), &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(list->frames(), 512u);
    ASSERT_TRUE(list->setFrames(100));
    EXPECT_FALSE(list->setFrames(list->frameCapacity() + 1, &error));
    expectBufferListError(error, 17, "KROBufferList_action_setLength");
    EXPECT_EQ(list->frames(), 100u);
}

TEST(Part_1_2, ClearRangePartlyPastFramesClearsOnlyThePartInside) {
    auto list = makeList(2, 8);
    fillCounting(*list);
    ASSERT_TRUE(list->setFrames(6));
    list->clearRange(NSMakeLongRange(4, 4));
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        const float base = 1.0f + static_cast<float>(channel * 100);
        EXPECT_EQ(
            channelValues(*list, channel),
            (std::vector<float>{base, base + 1, base + 2, base + 3, 0, 0, base + 6, base + 7}));
    }
}

TEST(Part_1_2, ClearRangeEntirelyOutsideFramesClearsNothing) {
    auto list = makeList(2, 8);
    fillCounting(*list);
    ASSERT_TRUE(list->setFrames(4));
    list->clearRange(NSMakeLongRange(5, 2));
    list->clearRange(NSMakeLongRange(4, 0));
    list->clearRange(NSMakeLongRange(100, 10));
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        for (std::uint64_t frame = 0; frame < 8; ++frame) {
            EXPECT_EQ(list->valueAtFrame(frame, channel),
                      1.0f + static_cast<float>(channel * 100 + frame));
        }
    }
}

TEST(Part_1_2, AScaleWithRampFrom1To0Over4FramesMultipliesBy1And075And05And025) {
    auto list = makeList(2, 4);
    fillConstant(*list, 2.0f);
    list->scaleWithRampStart(1.0f, 0.0f);
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        EXPECT_EQ(channelValues(*list, channel), (std::vector<float>{2.0f, 1.5f, 1.0f, 0.5f}));
    }
}

TEST(Part_1_2, AverageOfAListWithNoChannelsCannotOccurThroughConstructionNorAForeignRecord) {
    KROErrorPtr error;
    EXPECT_FALSE(KROAudioBufferList::bufferListWithChannels(0, 512, &error));
    expectBufferListError(error, 1, "KROBufferList_action_create");
    ForeignRecord record(1, 16);
    record.get()->mNumberBuffers = 0;
    error.reset();
    EXPECT_FALSE(KROAudioBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 6, "KROBufferList_action_create");
}

TEST(Part_1_2, AverageOfChannelOfTheSamplesMinus1And1Is1Not0) {
    auto list = makeList(1, 2);
    fillChannel(*list, 0, {-1.0f, 1.0f});
    EXPECT_EQ(list->averageOfChannel(0), 1.0f);
    EXPECT_EQ(list->average(), 1.0f);
}

TEST(Part_1_2, EnergyOfChannelOf4SamplesOfValueHalfIs1) {
    auto list = makeList(1, 4);
    fillConstant(*list, 0.5f);
    EXPECT_EQ(list->energyOfChannel(0), 1.0f);
}

TEST(Part_1_2, ThresholdSearchWithThresholdEqualToASampleMagnitudeFindsThatSample) {
    auto list = makeList(1, 8);
    fillChannel(*list, 0, {0.1f, 0.2f, -0.75f, 0.3f, 0.1f, 0.0f, 0.0f, 0.0f});
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.75f, 0, false), 2);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.75f, 0, true), 2);
}

TEST(Part_1_2, ThresholdSearchAboveTheChannelsMagnitudeReturns0x7fffffffffffffff) {
    auto list = makeList(1, 8);
    fillChannel(*list, 0, {0.1f, 0.2f, -0.75f, 0.3f});
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.76f, 0, false), kNotFound);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.76f, 0, true), kNotFound);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.76f, false), kNotFound);
    EXPECT_EQ(KROAudioBufferList::notFound, kNotFound);
}

TEST(Part_1_2, ValueAtFrameAtFramesPlus1InsideTheCapacityReturnsWhatTheMemoryHolds) {
    auto list = makeList(2, 16);
    fillCounting(*list);
    ASSERT_TRUE(list->setFrames(8));
    EXPECT_EQ(list->valueAtFrame(9, 1), 110.0f);
    EXPECT_EQ(list->valueAtFrame(9), 10.0f);
    list->setValue(-3.0f, 12, 1);
    EXPECT_EQ(list->channel(1)[12], -3.0f);
}

TEST(Part_1_2, ValueAtFrameAtFrameCapacityReturns0) {
    auto list = makeList(2, 16);
    fillConstant(*list, 1.0f);
    EXPECT_EQ(list->valueAtFrame(16, 0), 0.0f);
    EXPECT_EQ(list->valueAtFrame(16), 0.0f);
    EXPECT_EQ(list->valueAtFrame(0, 2), 0.0f);
    list->setValue(5.0f, 16, 0);
    list->setValue(5.0f, 0, 2);
    EXPECT_EQ(channelValues(*list, 0), std::vector<float>(16, 1.0f));
}

namespace {

// A ring of 8 frames, 2 channels, zero; a block of 4 frames holding 1..4 and
// 11..14.
struct RingFixture {
    std::shared_ptr<KROAudioRingBufferList> ring =
        KROAudioRingBufferList::bufferListWithChannels(2, 8);
    std::shared_ptr<KROAudioBufferList> block = KROAudioBufferList::bufferListWithChannels(2, 4);

    RingFixture() {
        fillChannel(*block, 0, {1, 2, 3, 4});
        fillChannel(*block, 1, {11, 12, 13, 14});
    }
};

} // namespace

TEST(Part_1_2, StoreBufferInARingOf8FramesWith4FramesAtAbsoluteFrame6WritesPositions6701) {
    RingFixture fixture;
    fixture.ring->storeBuffer(*fixture.block, 6);
    EXPECT_EQ(channelValues(*fixture.ring, 0), (std::vector<float>{3, 4, 0, 0, 0, 0, 1, 2}));
    EXPECT_EQ(channelValues(*fixture.ring, 1), (std::vector<float>{13, 14, 0, 0, 0, 0, 11, 12}));
}

TEST(Part_1_2, StoreBufferAtFrameMinus2GivesTheSamePositions) {
    RingFixture fixture;
    fixture.ring->storeBuffer(*fixture.block, -2);
    EXPECT_EQ(channelValues(*fixture.ring, 0), (std::vector<float>{3, 4, 0, 0, 0, 0, 1, 2}));
    EXPECT_EQ(channelValues(*fixture.ring, 1), (std::vector<float>{13, 14, 0, 0, 0, 0, 11, 12}));
}

TEST(Part_1_2, StoreBufferWithMoreFramesThanTheRingChangesNothingAndReportsNothing) {
    RingFixture fixture;
    auto tooLong = makeList(2, 9);
    fillConstant(*tooLong, 7.0f);
    fixture.ring->storeBuffer(*tooLong, 0);
    fixture.ring->storeChannel(0, *tooLong, 1, 0);
    EXPECT_EQ(channelValues(*fixture.ring, 0), std::vector<float>(8, 0.0f));
    EXPECT_EQ(channelValues(*fixture.ring, 1), std::vector<float>(8, 0.0f));
}

TEST(Part_1_2, StoreBufferWithADifferentChannelCountChangesNothingAndReportsNothing) {
    RingFixture fixture;
    auto oneChannel = makeList(1, 4);
    fillConstant(*oneChannel, 7.0f);
    fixture.ring->storeBuffer(*oneChannel, 0);
    EXPECT_EQ(channelValues(*fixture.ring, 0), std::vector<float>(8, 0.0f));
    EXPECT_EQ(channelValues(*fixture.ring, 1), std::vector<float>(8, 0.0f));
}

TEST(Part_1_2, CopyingAKROAudioBufferListYieldsAnObjectWithoutFrameOperations) {
    auto list = makeList(2, 16);
    fillCounting(*list);
    ASSERT_TRUE(list->setFrames(10));
    std::shared_ptr<KROBufferList> copy = list->copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->className(), "KROBufferList");
    EXPECT_EQ(std::dynamic_pointer_cast<KROAudioBufferList>(copy), nullptr);
    EXPECT_EQ(copy->numberOfBuffers(), 2u);
    EXPECT_EQ(copy->capacity(), list->capacity());
    EXPECT_EQ(copy->length(), list->capacity());
}

TEST(Part_1_2, CopyingCopiesTheSourceLengthLeavesTheRestZeroAndCarriesTheRange) {
    auto list = makeList(2, 16);
    fillCounting(*list);
    ASSERT_TRUE(list->setFrames(10));
    list->setRange(NSMakeLongRange(44, 16));
    std::shared_ptr<KROBufferList> copy = list->copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->range(), NSMakeLongRange(44, 16));
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        const auto* samples = static_cast<const float*>(copy->bufferAtIndex(channel));
        ASSERT_NE(samples, list->channel(channel));
        for (std::uint64_t frame = 0; frame < 16; ++frame) {
            const float expected = frame < 10 ? list->valueAtFrame(frame, channel) : 0.0f;
            EXPECT_EQ(samples[frame], expected);
        }
    }
}

// ---------------------------------------------------------------------------
// Construction and plain access.

TEST(Part_1_2_Lists, ANewListHasRangeZeroAndOneSingleChannelBufferPerChannel) {
    auto list = makeList(3, 10);
    EXPECT_EQ(list->range(), NSMakeLongRange(0, 0));
    const AudioBufferList* record = list->audioBufferList();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->mNumberBuffers, 3u);
    for (std::uint32_t index = 0; index < 3; ++index) {
        EXPECT_EQ(KROAudioBufferAt(*record, index).mNumberChannels, 1u);
        EXPECT_EQ(KROAudioBufferAt(*record, index).mDataByteSize, 40u);
        EXPECT_EQ(KROAudioBufferAt(*record, index).mData, list->bufferAtIndex(index));
    }
    EXPECT_EQ(list->bufferAtIndex(3), nullptr);
    EXPECT_EQ(list->channel(3), nullptr);
}

TEST(Part_1_2_Lists, DescriptionNamesBufferCountLengthAndCapacity) {
    auto list = KROBufferList::bufferListWithNumberOfBuffers(2, 2048);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->description(), "KROBufferList: 2 buffers, length = 2048, maxLength = 2048");
    ASSERT_TRUE(list->setLength(100));
    EXPECT_EQ(list->description(), "KROBufferList: 2 buffers, length = 100, maxLength = 2048");
    auto audio = makeList(3, 4);
    EXPECT_EQ(audio->description(), "KROBufferList: 3 buffers, length = 16, maxLength = 16");
}

TEST(Part_1_2_Lists, ClassNamesFollowTheClassTree) {
    auto ring = KROAudioRingBufferList::bufferListWithChannels(1, 4);
    ASSERT_TRUE(ring);
    EXPECT_EQ(ring->className(), "KROAudioRingBufferList");
    EXPECT_EQ(makeList(1, 4)->className(), "KROAudioBufferList");
    EXPECT_EQ(KROBufferList::bufferListWithNumberOfBuffers(1, 4)->className(), "KROBufferList");
}

TEST(Part_1_2_Lists, SetLengthEqualToCapacityIsAllowedAndShrinkingAndGrowingBringsBackSamples) {
    auto list = makeList(2, 8);
    fillCounting(*list);
    ASSERT_TRUE(list->setLength(8));
    EXPECT_EQ(list->frames(), 2u);
    for (std::uint32_t index = 0; index < 2; ++index) {
        EXPECT_EQ(KROAudioBufferAt(*list->audioBufferList(), index).mDataByteSize, 8u);
    }
    ASSERT_TRUE(list->setLength(list->capacity()));
    EXPECT_EQ(list->frames(), 8u);
    EXPECT_EQ(list->valueAtFrame(7, 1), 108.0f);
}

TEST(Part_1_2_Lists, FramesDropTheRemainderOfTheByteLength) {
    auto list = makeList(1, 8);
    ASSERT_TRUE(list->setLength(13));
    EXPECT_EQ(list->frames(), 3u);
    EXPECT_EQ(list->frameCapacity(), 8u);
}

TEST(Part_1_2_Lists, AForeignRecordIsWrappedWithoutCopyingNorOwning) {
    ForeignRecord record(2, 32);
    {
        auto list = KROAudioBufferList::bufferListWithBufferList(record.get());
        ASSERT_TRUE(list);
        EXPECT_EQ(list->audioBufferList(), record.get());
        EXPECT_EQ(list->capacity(), 128u);
        EXPECT_EQ(list->frames(), 32u);
        EXPECT_EQ(list->channel(1), record.samples(1).data());
        list->scale(2.0f);
        std::shared_ptr<KROBufferList> copy = list->copy();
        ASSERT_TRUE(copy);
        EXPECT_NE(copy->bufferAtIndex(0), record.samples(0).data());
    }
    EXPECT_EQ(record.samples(0)[31], 1.0f);
    EXPECT_EQ(record.buffer(1).mData, record.samples(1).data());
}

TEST(Part_1_2_Lists, InitialisingAgainReleasesTheFirstMemory) {
    KROAudioBufferList list;
    ASSERT_TRUE(list.initWithChannels(2, 8));
    ASSERT_TRUE(list.initWithChannels(3, 4));
    EXPECT_EQ(list.numberOfChannels(), 3u);
    EXPECT_EQ(list.frames(), 4u);
}

TEST(Part_1_2_Lists, AnUninitialisedListIsEmptyAndItsOperationsDoNothing) {
    KROAudioBufferList list;
    EXPECT_EQ(list.numberOfBuffers(), 0u);
    EXPECT_EQ(list.length(), 0u);
    EXPECT_EQ(list.bufferAtIndex(0), nullptr);
    EXPECT_FALSE(list.copy());
    list.clear();
    list.scale(2.0f);
    list.scale(2.0f, 0, NSMakeLongRange(0, 4));
    list.scaleWithRampStart(0.0f, 1.0f, 0, NSMakeLongRange(0, 4));
    list.reverse();
    list.invert();
    EXPECT_EQ(list.frameGreaterThanOrEqualToMagnitude(0.0f, 0, false), kNotFound);
    EXPECT_EQ(list.maximumOfChannel(0), 0.0f);
    EXPECT_EQ(list.valueAtFrame(0), 0.0f);
}

// ---------------------------------------------------------------------------
// Failure handling: every code with its action key.

TEST(Part_1_2_Failures, Code1BufferCountZero) {
    KROBufferList list;
    KROErrorPtr error;
    EXPECT_FALSE(list.initWithNumberOfBuffers(0, 16, &error));
    expectBufferListError(error, 1, "KROBufferList_action_create");
    EXPECT_EQ(list.audioBufferList(), nullptr);
}

TEST(Part_1_2_Failures, Code1IsCheckedBeforeCode2) {
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithNumberOfBuffers(0, 0, &error));
    expectBufferListError(error, 1, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code2CapacityZero) {
    KROErrorPtr error;
    EXPECT_FALSE(KROAudioBufferList::bufferListWithChannels(2, 0, &error));
    expectBufferListError(error, 2, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code3RecordAllocationFailed) {
    FailingAllocator allocator(0);
    KROErrorPtr error;
    KROAudioBufferList list;
    EXPECT_FALSE(list.initWithChannels(2, 16, &error));
    expectBufferListError(error, 3, "KROBufferList_action_create");
    EXPECT_EQ(list.audioBufferList(), nullptr);
}

TEST(Part_1_2_Failures, Code4BufferAllocationFailedFreesEverythingSoFar) {
    for (int failAt = 1; failAt <= 3; ++failAt) {
        FailingAllocator allocator(failAt);
        KROErrorPtr error;
        KROAudioBufferList list;
        EXPECT_FALSE(list.initWithChannels(3, 16, &error));
        expectBufferListError(error, 4, "KROBufferList_action_create");
        EXPECT_EQ(list.audioBufferList(), nullptr);
        EXPECT_EQ(list.capacity(), 0u);
    }
}

TEST(Part_1_2_Failures, Code4ForACapacityBeyondAnyMemory) {
#if defined(KRO_SANITIZER_BUILD)
    GTEST_SKIP() << "the sanitizers stop the process on an impossible allocation";
#else
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithNumberOfBuffers(2, std::uint64_t{1} << 62, &error));
    expectBufferListError(error, 4, "KROBufferList_action_create");
#endif
}

TEST(Part_1_2_Failures, Code5ForeignRecordAbsent) {
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(nullptr, &error));
    expectBufferListError(error, 5, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code6ForeignRecordWithNoBuffers) {
    ForeignRecord record(1, 16);
    record.get()->mNumberBuffers = 0;
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 6, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code7AForeignBufferIsNotSingleChannel) {
    ForeignRecord record(3, 16);
    record.buffer(2).mNumberChannels = 2;
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 7, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code8ForeignBuffersDifferInSize) {
    ForeignRecord record(3, 16);
    record.buffer(1).mDataByteSize = 32;
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 8, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code9AForeignBufferHasNoMemory) {
    ForeignRecord record(3, 16);
    record.buffer(2).mData = nullptr;
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 9, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, TheFirstForeignViolationDecidesInBufferOrderThenFieldOrder) {
    ForeignRecord record(3, 16);
    record.buffer(1).mData = nullptr;
    record.buffer(2).mNumberChannels = 2;
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 9, "KROBufferList_action_create");
    record.buffer(1).mDataByteSize = 8;
    record.buffer(1).mNumberChannels = 2;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 7, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code10ForeignByteSizeZero) {
    ForeignRecord record(2, 0);
    record.buffer(0).mData = &record;
    record.buffer(1).mData = &record;
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithBufferList(record.get(), &error));
    expectBufferListError(error, 10, "KROBufferList_action_create");
}

TEST(Part_1_2_Failures, Code11BufferCountsDifferInCopyBufferListWithTheCopyRangeKey) {
    auto destination = makeList(2, 8);
    auto source = makeList(3, 8);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyBufferList(*source, &error));
    expectBufferListError(error, 11, "KROBufferList_action_copyRange");
}

TEST(Part_1_2_Failures, Code11BufferCountsDifferInCopyRange) {
    auto destination = makeList(2, 8);
    auto source = makeList(1, 8);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyRange(NSMakeLongRange(0, 4), *source, 0, &error));
    expectBufferListError(error, 11, "KROBufferList_action_copyRange");
    error.reset();
    EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 1), *source, 0, &error));
    expectBufferListError(error, 11, "KROBufferList_action_copyRange");
}

TEST(Part_1_2_Failures, Code12LengthsDifferInCopyBufferListWithTheCopyBufferKey) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 8);
    ASSERT_TRUE(source->setFrames(7));
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyBufferList(*source, &error));
    expectBufferListError(error, 12, "KROBufferList_action_copyBuffer");
}

TEST(Part_1_2_Failures, Code12LengthsDifferInCopyBufferAtIndex) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 4);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyBufferAtIndex(0, *source, 0, &error));
    expectBufferListError(error, 12, "KROBufferList_action_copyBuffer");
    error.reset();
    EXPECT_FALSE(destination->copyChannel(0, *source, 1, &error));
    expectBufferListError(error, 12, "KROBufferList_action_copyBuffer");
}

TEST(Part_1_2_Failures, Code13DestinationBufferIndexOutOfRange) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 8);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyRange(NSMakeLongRange(0, 4), 0, *source, 0, 2, &error));
    expectBufferListError(error, 13, "KROBufferList_action_copyBuffers");
}

TEST(Part_1_2_Failures, Code13IsCheckedBeforeCode14) {
    auto destination = makeList(2, 8);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyRange(NSMakeLongRange(0, 4), 5, *destination, 0, 5, &error));
    expectBufferListError(error, 13, "KROBufferList_action_copyBuffers");
}

TEST(Part_1_2_Failures, Code14SourceBufferIndexOutOfRange) {
    auto destination = makeList(2, 8);
    auto source = makeList(1, 8);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyRange(NSMakeLongRange(0, 4), 1, *source, 0, 1, &error));
    expectBufferListError(error, 14, "KROBufferList_action_copyBuffers");
}

TEST(Part_1_2_Failures, Code15PositionPlusLengthPastTheDestinationsLength) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 8);
    ASSERT_TRUE(destination->setFrames(4));
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 3), 0, *source, 2, 0, &error));
    expectBufferListError(error, 15, "KROBufferList_action_copyBuffers");
    EXPECT_TRUE(destination->copyFrames(NSMakeLongRange(0, 2), 0, *source, 2, 0, &error));
    error.reset();
    EXPECT_FALSE(destination->copyRange(NSMakeLongRange(0, 8), *source,
                                        std::numeric_limits<std::uint64_t>::max() - 4, &error));
    expectBufferListError(error, 15, "KROBufferList_action_copyBuffers");
}

TEST(Part_1_2_Failures, Code16LocationPlusLengthPastTheSourcesLength) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 8);
    ASSERT_TRUE(source->setFrames(4));
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(2, 3), 1, *source, 0, 1, &error));
    expectBufferListError(error, 16, "KROBufferList_action_copyBuffers");
}

TEST(Part_1_2_Failures, Code17SourceBufferIsNull) {
    ForeignRecord record(2, 8);
    auto source = KROAudioBufferList::bufferListWithBufferList(record.get());
    ASSERT_TRUE(source);
    record.buffer(1).mData = nullptr;
    auto destination = makeList(2, 8);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 8), 1, *source, 0, 0, &error));
    expectBufferListError(error, 17, "KROBufferList_action_copyBuffers");
}

TEST(Part_1_2_Failures, Code17SetLengthAboveCapacity) {
    auto list = KROBufferList::bufferListWithNumberOfBuffers(2, 100);
    KROErrorPtr error;
    EXPECT_FALSE(list->setLength(101, &error));
    expectBufferListError(error, 17, "KROBufferList_action_setLength");
    EXPECT_EQ(list->length(), 100u);
}

TEST(Part_1_2_Failures, ListCopiesStopAtTheFirstFailureAndKeepTheBuffersDoneSoFar) {
    ForeignRecord record(3, 4);
    auto source = KROAudioBufferList::bufferListWithBufferList(record.get());
    ASSERT_TRUE(source);
    record.buffer(1).mData = nullptr;
    auto destination = makeList(3, 4);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyBufferList(*source, &error));
    expectBufferListError(error, 17, "KROBufferList_action_copyBuffers");
    EXPECT_EQ(channelValues(*destination, 0), std::vector<float>(4, 0.5f));
    EXPECT_EQ(channelValues(*destination, 2), std::vector<float>(4, 0.0f));
}

TEST(Part_1_2_Failures, ACopyOfAListWhoseLengthOutgrewItsCapacityIsNone) {
    ForeignRecord record(1, 4);
    auto list = KROBufferList::bufferListWithBufferList(record.get());
    ASSERT_TRUE(list);
    record.buffer(0).mDataByteSize = 32;
    EXPECT_FALSE(list->copy());
}

TEST(Part_1_2_Failures, NoErrorObjectIsMadeWithoutAnOutArgument) {
    auto destination = makeList(2, 8);
    auto other = makeList(3, 4);
    ForeignRecord record(2, 8);
    auto nullSource = KROAudioBufferList::bufferListWithBufferList(record.get());
    ASSERT_TRUE(nullSource);
    record.buffer(1).mData = nullptr;
    KROAudioBufferList fresh;
    ForeignRecord bad(2, 8);
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithChannels(0, 4)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithChannels(2, 0)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithBufferList(nullptr)));
    bad.get()->mNumberBuffers = 0;
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithBufferList(bad.get())));
    bad.get()->mNumberBuffers = 2;
    bad.buffer(1).mNumberChannels = 2;
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithBufferList(bad.get())));
    bad.buffer(1).mNumberChannels = 1;
    bad.buffer(1).mDataByteSize = 4;
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithBufferList(bad.get())));
    bad.buffer(1).mDataByteSize = 32;
    void* keep = bad.buffer(1).mData;
    bad.buffer(1).mData = nullptr;
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithBufferList(bad.get())));
    bad.buffer(1).mData = keep;
    bad.buffer(0).mDataByteSize = 0;
    bad.buffer(1).mDataByteSize = 0;
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(fresh.initWithBufferList(bad.get())));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(destination->copyBufferList(*other)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(destination->copyChannel(0, *other, 0)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 1), 0, *other, 0, 9)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 1), 3, *other, 0, 0)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 2), 0, *other, 7, 0)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(3, 2), 0, *other, 0, 0)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(0, 2), 1, *nullSource, 0, 0)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(destination->setFrames(9)));
}

TEST(Part_1_2_Failures, CodesThreeAndFourWithoutAnOutArgumentOnlyReturnFalse) {
    {
        FailingAllocator allocator(0);
        EXPECT_FALSE(KROAudioBufferList::bufferListWithChannels(2, 16));
    }
    FailingAllocator allocator(1);
    KROAudioBufferList list;
    EXPECT_FALSE(list.initWithChannels(2, 16));
}

// ---------------------------------------------------------------------------
// Copies.

TEST(Part_1_2_Copies, CopyBufferListCopiesEveryBufferOverTheWholeLength) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 8);
    fillCounting(*source);
    KROErrorPtr error;
    ASSERT_TRUE(destination->copyBufferList(*source, &error));
    EXPECT_FALSE(error);
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        EXPECT_EQ(channelValues(*destination, channel), channelValues(*source, channel));
    }
}

TEST(Part_1_2_Copies, CopyRangeCopiesTheSameByteRangeOfEveryBuffer) {
    auto destination = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    auto source = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    for (std::uint32_t index = 0; index < 2; ++index) {
        auto* bytes = static_cast<std::uint8_t*>(source->bufferAtIndex(index));
        for (int i = 0; i < 8; ++i) {
            bytes[i] = static_cast<std::uint8_t>(10 * index + i + 1);
        }
    }
    ASSERT_TRUE(destination->copyRange(NSMakeLongRange(2, 3), *source, 4));
    for (std::uint32_t index = 0; index < 2; ++index) {
        const auto* bytes = static_cast<const std::uint8_t*>(destination->bufferAtIndex(index));
        const std::vector<std::uint8_t> got(bytes, bytes + 8);
        const auto b = static_cast<std::uint8_t>(10 * index);
        EXPECT_EQ(got, (std::vector<std::uint8_t>{0, 0, 0, 0, std::uint8_t(b + 3),
                                                  std::uint8_t(b + 4), std::uint8_t(b + 5), 0}));
    }
}

TEST(Part_1_2_Copies, CopyFramesConvertsRangeAndPositionToBytes) {
    auto destination = makeList(2, 8);
    auto source = makeList(2, 8);
    fillCounting(*source);
    ASSERT_TRUE(destination->copyFrames(NSMakeLongRange(1, 2), *source, 5));
    EXPECT_EQ(channelValues(*destination, 0), (std::vector<float>{0, 0, 0, 0, 0, 2, 3, 0}));
    EXPECT_EQ(channelValues(*destination, 1), (std::vector<float>{0, 0, 0, 0, 0, 102, 103, 0}));
}

TEST(Part_1_2_Copies, CopyChannelCopiesOneWholeBuffer) {
    auto destination = makeList(2, 4);
    auto source = makeList(3, 4);
    fillCounting(*source);
    ASSERT_TRUE(destination->copyChannel(2, *source, 1));
    EXPECT_EQ(channelValues(*destination, 0), std::vector<float>(4, 0.0f));
    EXPECT_EQ(channelValues(*destination, 1), (std::vector<float>{201, 202, 203, 204}));
}

TEST(Part_1_2_Copies, OneChannelOfAListCopiesIntoAnotherChannelOfTheSameList) {
    auto list = makeList(2, 4);
    fillCounting(*list);
    ASSERT_TRUE(list->copyChannel(0, *list, 1));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{1, 2, 3, 4}));
    ASSERT_TRUE(list->copyFrames(NSMakeLongRange(2, 2), 1, *list, 0, 0));
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{3, 4, 3, 4}));
}

TEST(Part_1_2_Copies, TheLimitsAreTheCurrentLengthsNotTheCapacities) {
    auto destination = makeList(1, 8);
    auto source = makeList(1, 8);
    ASSERT_TRUE(destination->setFrames(4));
    ASSERT_TRUE(source->setFrames(6));
    EXPECT_TRUE(destination->copyFrames(NSMakeLongRange(2, 4), 0, *source, 0, 0));
    EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(2, 5), 0, *source, 0, 0));
    EXPECT_FALSE(destination->copyFrames(NSMakeLongRange(3, 4), 0, *source, 0, 0));
    EXPECT_TRUE(destination->copyFrames(NSMakeLongRange(6, 0), 0, *source, 4, 0));
}

// ---------------------------------------------------------------------------
// Clearing.

TEST(Part_1_2_Clearing, ClearZeroesTheCurrentLengthOfEveryBuffer) {
    auto list = makeList(2, 8);
    fillConstant(*list, 3.0f);
    ASSERT_TRUE(list->setFrames(5));
    list->clear();
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        EXPECT_EQ(channelValues(*list, channel), (std::vector<float>{0, 0, 0, 0, 0, 3, 3, 3}));
    }
}

TEST(Part_1_2_Clearing, ClearChannelZeroesOneChannelAndIgnoresAMissingOne) {
    auto list = makeList(2, 4);
    fillConstant(*list, 3.0f);
    list->clearChannel(1);
    list->clearChannel(2);
    list->clearBufferAtIndex(7);
    EXPECT_EQ(channelValues(*list, 0), std::vector<float>(4, 3.0f));
    EXPECT_EQ(channelValues(*list, 1), std::vector<float>(4, 0.0f));
}

TEST(Part_1_2_Clearing, ClearRangeOfChannelClearsFramesOfOneChannel) {
    auto list = makeList(2, 4);
    fillConstant(*list, 3.0f);
    list->clearRange(NSMakeLongRange(1, 2), 1);
    EXPECT_EQ(channelValues(*list, 0), std::vector<float>(4, 3.0f));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{3, 0, 0, 3}));
}

TEST(Part_1_2_Clearing, OnTheBaseClassTheRangeIsInBytes) {
    auto list = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    for (std::uint32_t index = 0; index < 2; ++index) {
        std::fill_n(static_cast<std::uint8_t*>(list->bufferAtIndex(index)), 8, 0xff);
    }
    ASSERT_TRUE(list->setLength(6));
    list->clearRange(NSMakeLongRange(4, 4));
    list->clearRangeOfBufferAtIndex(NSMakeLongRange(0, 1), 1);
    const auto* first = static_cast<const std::uint8_t*>(list->bufferAtIndex(0));
    const auto* second = static_cast<const std::uint8_t*>(list->bufferAtIndex(1));
    EXPECT_EQ(std::vector<std::uint8_t>(first, first + 8),
              (std::vector<std::uint8_t>{0xff, 0xff, 0xff, 0xff, 0, 0, 0xff, 0xff}));
    EXPECT_EQ(std::vector<std::uint8_t>(second, second + 8),
              (std::vector<std::uint8_t>{0, 0xff, 0xff, 0xff, 0, 0, 0xff, 0xff}));
}

TEST(Part_1_2_Clearing, TheAudioClearRangeOverridesTheByteForm) {
    auto audio = makeList(1, 8);
    fillConstant(*audio, 3.0f);
    KROBufferList& base = *audio;
    base.clearRange(NSMakeLongRange(2, 2));
    EXPECT_EQ(channelValues(*audio, 0), (std::vector<float>{3, 3, 0, 0, 3, 3, 3, 3}));
}

// ---------------------------------------------------------------------------
// Arithmetic.

TEST(Part_1_2_Arithmetic, MixAddsTheCommonChannelsAndFramesWithoutClamp) {
    auto receiver = makeList(2, 4);
    auto source = makeList(3, 2);
    fillConstant(*receiver, 0.75f);
    fillConstant(*source, 0.5f);
    KROErrorPtr error;
    EXPECT_TRUE(receiver->mixAudioBufferList(*source, &error));
    EXPECT_FALSE(error);
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        EXPECT_EQ(channelValues(*receiver, channel),
                  (std::vector<float>{1.25f, 1.25f, 0.75f, 0.75f}));
    }
    auto wide = makeList(3, 4);
    fillConstant(*wide, 1.0f);
    EXPECT_TRUE(wide->mixAudioBufferList(*receiver));
    EXPECT_EQ(channelValues(*wide, 2), std::vector<float>(4, 1.0f));
    EXPECT_EQ(channelValues(*wide, 0), (std::vector<float>{2.25f, 2.25f, 1.75f, 1.75f}));
}

TEST(Part_1_2_Arithmetic, MixTakesTheSmallerOfTheCurrentFrames) {
    auto receiver = makeList(1, 4);
    auto source = makeList(1, 4);
    fillConstant(*receiver, 1.0f);
    fillConstant(*source, 1.0f);
    ASSERT_TRUE(source->setFrames(3));
    ASSERT_TRUE(receiver->mixAudioBufferList(*source));
    EXPECT_EQ(channelValues(*receiver, 0), (std::vector<float>{2, 2, 2, 1}));
}

TEST(Part_1_2_Arithmetic, ScaleFormsComeDownToChannelAndRange) {
    auto list = makeList(2, 4);
    fillConstant(*list, 1.0f);
    list->scale(2.0f);
    list->scale(3.0f, 1u);
    list->scale(0.5f, NSMakeLongRange(2, 10));
    list->scale(-1.0f, 0, NSMakeLongRange(0, 1));
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{-2, 2, 1, 1}));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{6, 6, 3, 3}));
}

TEST(Part_1_2_Arithmetic, ScaleDoesNothingForAMissingChannelOrAnEmptyIntersection) {
    auto list = makeList(1, 4);
    fillConstant(*list, 1.0f);
    ASSERT_TRUE(list->setFrames(2));
    list->scale(5.0f, 1u, NSMakeLongRange(0, 4));
    list->scale(5.0f, 0u, NSMakeLongRange(2, 2));
    list->scaleWithRampStart(5.0f, 6.0f, 1, NSMakeLongRange(0, 4));
    list->scaleWithRampStart(5.0f, 6.0f, 0, NSMakeLongRange(3, 1));
    list->scale(5.0f, 0u, NSMakeLongRange(1, 7));
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{1, 5, 1, 1}));
}

TEST(Part_1_2_Arithmetic, ARampWithEqualEndsIsAScale) {
    auto list = makeList(2, 4);
    fillConstant(*list, 1.0f);
    list->scaleWithRampStart(0.5f, 0.5f);
    list->scaleWithRampStart(3.0f, 3.0f, 1, NSMakeLongRange(1, 1));
    EXPECT_EQ(channelValues(*list, 0), std::vector<float>(4, 0.5f));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{0.5f, 1.5f, 0.5f, 0.5f}));
}

TEST(Part_1_2_Arithmetic, FadeOutLeavesItsLastFrameNonZeroAtOneOverN) {
    auto list = makeList(2, 512);
    fillConstant(*list, 1.0f);
    list->fadeOut();
    EXPECT_EQ(list->valueAtFrame(0, 1), 1.0f);
    EXPECT_EQ(list->valueAtFrame(511, 0), 1.0f / 512.0f);
    EXPECT_EQ(list->valueAtFrame(511, 1), 1.0f / 512.0f);
}

TEST(Part_1_2_Arithmetic, FadeInStartsAtZeroAndEndsOneStepShortOfOne) {
    auto list = makeList(1, 4);
    fillConstant(*list, 1.0f);
    list->fadeIn();
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{0.0f, 0.25f, 0.5f, 0.75f}));
}

TEST(Part_1_2_Arithmetic, AFollowingRampFromTheEndValueContinuesWithoutARepeatedStep) {
    auto list = makeList(1, 8);
    fillConstant(*list, 1.0f);
    list->scaleWithRampStart(1.0f, 0.5f, 0, NSMakeLongRange(0, 4));
    list->scaleWithRampStart(0.5f, 0.0f, 0, NSMakeLongRange(4, 4));
    EXPECT_EQ(channelValues(*list, 0),
              (std::vector<float>{1.0f, 0.875f, 0.75f, 0.625f, 0.5f, 0.375f, 0.25f, 0.125f}));
}

TEST(Part_1_2_Arithmetic, ALongRampIsElementForElementStartPlusIndexTimesStep) {
    for (std::uint64_t count : {1u, 7u, 1023u, 1024u, 1025u, 3001u}) {
        auto list = makeList(1, count + 3);
        fillConstant(*list, 1.0f);
        const float start = 0.25f;
        const float end = 1.75f;
        list->scaleWithRampStart(start, end, 0, NSMakeLongRange(2, count));
        const float step = (end - start) / static_cast<float>(count);
        EXPECT_EQ(list->valueAtFrame(0), 1.0f);
        EXPECT_EQ(list->valueAtFrame(1), 1.0f);
        for (std::uint64_t i = 0; i < count; ++i) {
            const float expected = start + static_cast<float>(i) * step;
            ASSERT_EQ(list->valueAtFrame(2 + i), expected) << "count " << count << " frame " << i;
        }
        EXPECT_EQ(list->valueAtFrame(count + 2), 1.0f);
    }
}

TEST(Part_1_2_Arithmetic, InvertNegatesEveryChannelOverFrames) {
    auto list = makeList(2, 4);
    fillCounting(*list);
    ASSERT_TRUE(list->setFrames(3));
    list->invert();
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{-1, -2, -3, 4}));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{-101, -102, -103, 104}));
}

TEST(Part_1_2_Arithmetic, ReverseFormsReverseFramesInPlace) {
    auto list = makeList(2, 6);
    fillCounting(*list);
    list->reverse();
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{6, 5, 4, 3, 2, 1}));
    list->reverseRange(NSMakeLongRange(1, 3));
    EXPECT_EQ(channelValues(*list, 0), (std::vector<float>{6, 3, 4, 5, 2, 1}));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{106, 103, 104, 105, 102, 101}));
    list->reverseChannel(1, NSMakeLongRange(4, 10));
    EXPECT_EQ(channelValues(*list, 1), (std::vector<float>{106, 103, 104, 105, 101, 102}));
    list->reverseChannel(2, NSMakeLongRange(0, 6));
}

// ---------------------------------------------------------------------------
// Statistics.

TEST(Part_1_2_Statistics, ExtremesAreSignedAndTheListFormsCombineTheChannels) {
    auto list = makeList(2, 4);
    fillChannel(*list, 0, {-3.0f, 1.0f, 2.0f, -0.5f});
    fillChannel(*list, 1, {-1.0f, -2.0f, -4.0f, -0.25f});
    EXPECT_EQ(list->maximumOfChannel(0), 2.0f);
    EXPECT_EQ(list->maximumOfChannel(1), -0.25f);
    EXPECT_EQ(list->maximum(), 2.0f);
    EXPECT_EQ(list->minimumOfChannel(0), -3.0f);
    EXPECT_EQ(list->minimum(), -4.0f);
    EXPECT_EQ(list->magnitudeOfChannel(0), 3.0f);
    EXPECT_EQ(list->magnitude(), 4.0f);
}

TEST(Part_1_2_Statistics, APerChannelFormOfAMissingChannelIs0) {
    auto list = makeList(1, 4);
    fillConstant(*list, 0.5f);
    EXPECT_EQ(list->maximumOfChannel(1), 0.0f);
    EXPECT_EQ(list->minimumOfChannel(1), 0.0f);
    EXPECT_EQ(list->magnitudeOfChannel(1), 0.0f);
    EXPECT_EQ(list->rmsOfChannel(1), 0.0f);
    EXPECT_EQ(list->averageOfChannel(1), 0.0f);
    EXPECT_EQ(list->energyOfChannel(1), 0.0f);
}

TEST(Part_1_2_Statistics, StatisticsRunOverFramesNotTheCapacity) {
    auto list = makeList(1, 8);
    fillChannel(*list, 0, {0.5f, -0.5f, 0.5f, -0.5f, 100.0f, -100.0f, 100.0f, -100.0f});
    ASSERT_TRUE(list->setFrames(4));
    EXPECT_EQ(list->maximum(), 0.5f);
    EXPECT_EQ(list->minimum(), -0.5f);
    EXPECT_EQ(list->magnitude(), 0.5f);
    EXPECT_EQ(list->rms(), 0.5f);
    EXPECT_EQ(list->average(), 0.5f);
    EXPECT_EQ(list->energy(), 1.0f);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(1.0f, false), kNotFound);
}

TEST(Part_1_2_Statistics, ListLevelsCombineTheChannelLevels) {
    auto list = makeList(2, 4);
    fillConstant(*list, 0.0f);
    fillChannel(*list, 0, {1.0f, -1.0f, 1.0f, -1.0f});
    fillChannel(*list, 1, {0.5f, 0.5f, 0.5f, 0.5f});
    EXPECT_EQ(list->rmsOfChannel(0), 1.0f);
    EXPECT_EQ(list->rmsOfChannel(1), 0.5f);
    EXPECT_FLOAT_EQ(list->rms(), std::sqrt((1.0f + 0.25f) / 2.0f));
    EXPECT_EQ(list->average(), 0.75f);
    EXPECT_EQ(list->energyOfChannel(0), 4.0f);
    EXPECT_EQ(list->energy(), (4.0f + 1.0f) / 2.0f);
}

TEST(Part_1_2_Statistics, ExtremesOfNoFramesAreTheStartingValues) {
    auto list = makeList(2, 4);
    ASSERT_TRUE(list->setFrames(0));
    EXPECT_EQ(list->maximumOfChannel(0), -std::numeric_limits<float>::infinity());
    EXPECT_EQ(list->minimumOfChannel(0), std::numeric_limits<float>::infinity());
    EXPECT_EQ(list->magnitudeOfChannel(0), 0.0f);
    EXPECT_EQ(list->energyOfChannel(0), 0.0f);
    EXPECT_EQ(list->maximum(), -std::numeric_limits<float>::infinity());
}

TEST(Part_1_2_Statistics, ExtremesSkipNaNSamplesLikeACompareLoop) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    auto list = makeList(1, 40);
    std::vector<float> values = randomSamples(40, 3, 0.5f);
    values[0] = nan;
    values[17] = nan;
    values[39] = nan;
    values[20] = 0.875f;
    values[21] = -0.9375f;
    fillChannel(*list, 0, values);
    EXPECT_EQ(list->maximumOfChannel(0), 0.875f);
    EXPECT_EQ(list->minimumOfChannel(0), -0.9375f);
    EXPECT_EQ(list->magnitudeOfChannel(0), 0.9375f);
    EXPECT_TRUE(std::isnan(list->energyOfChannel(0)));
    EXPECT_TRUE(std::isnan(list->rmsOfChannel(0)));
}

TEST(Part_1_2_Statistics, MatchLongDoubleReferenceLoopsOnRandomData) {
    for (std::uint64_t frames : {1u, 15u, 16u, 17u, 64u, 511u, 4099u}) {
        auto list = makeList(2, frames);
        std::vector<float> channels[2] = {randomSamples(frames, 11 + frames),
                                          randomSamples(frames, 23 + frames, 0.25f)};
        long double sums[2][3] = {};
        float extremes[2][3] = {};
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            fillChannel(*list, channel, channels[channel]);
            float maximum = -INFINITY;
            float minimum = INFINITY;
            float magnitude = 0.0f;
            for (float x : channels[channel]) {
                maximum = std::max(maximum, x);
                minimum = std::min(minimum, x);
                magnitude = std::max(magnitude, std::fabs(x));
                sums[channel][0] += static_cast<long double>(x) * x;
                sums[channel][1] += std::fabs(static_cast<long double>(x));
            }
            extremes[channel][0] = maximum;
            extremes[channel][1] = minimum;
            extremes[channel][2] = magnitude;
            const long double n = frames;
            const long double energy = sums[channel][0];
            const long double rms = std::sqrt(energy / n);
            const long double average = sums[channel][1] / n;
            EXPECT_EQ(list->maximumOfChannel(channel), maximum);
            EXPECT_EQ(list->minimumOfChannel(channel), minimum);
            EXPECT_EQ(list->magnitudeOfChannel(channel), magnitude);
            expectNear(list->energyOfChannel(channel), energy, 1e-5);
            expectNear(list->rmsOfChannel(channel), rms, 1e-5);
            expectNear(list->averageOfChannel(channel), average, 1e-5);
            sums[channel][2] = rms;
        }
        EXPECT_EQ(list->maximum(), std::max(extremes[0][0], extremes[1][0]));
        EXPECT_EQ(list->minimum(), std::min(extremes[0][1], extremes[1][1]));
        EXPECT_EQ(list->magnitude(), std::max(extremes[0][2], extremes[1][2]));
        expectNear(list->energy(), (sums[0][0] + sums[1][0]) / 2, 1e-5);
        expectNear(list->average(), (sums[0][1] + sums[1][1]) / 2 / frames, 1e-5);
        expectNear(list->rms(), std::sqrt((sums[0][2] * sums[0][2] + sums[1][2] * sums[1][2]) / 2),
                   1e-5);
    }
}

namespace {

// numpy's answers for the lists of Algorithm 10, one line per channel
// (max min magnitude rms average energy), then one line for the list.
std::vector<std::vector<double>> numpyStatistics(const std::vector<std::vector<float>>& channels) {
    const std::filesystem::path file = std::filesystem::temp_directory_path() /
                                       ("kro_part_1_2_" + std::to_string(getpid()) + ".f32");
    {
        std::ofstream out(file, std::ios::binary);
        for (const auto& channel : channels) {
            out.write(reinterpret_cast<const char*>(channel.data()),
                      static_cast<std::streamsize>(channel.size() * sizeof(float)));
        }
    }
    const std::string script =
        "import sys, numpy as np\n"
        "x = np.fromfile(sys.argv[1], dtype=np.float32).astype(np.float64)"
        ".reshape(int(sys.argv[2]), -1)\n"
        "rows = []\n"
        "for c in x:\n"
        "    rows.append([c.max(), c.min(), np.abs(c).max(), np.sqrt(np.mean(c * c)),"
        " np.mean(np.abs(c)), np.sum(c * c)])\n"
        "r = np.array(rows)\n"
        "rows.append([r[:, 0].max(), r[:, 1].min(), r[:, 2].max(),"
        " np.sqrt(np.mean(r[:, 3] ** 2)), r[:, 4].mean(), r[:, 5].mean()])\n"
        "for row in rows:\n"
        "    print(' '.join(repr(float(v)) for v in row))\n";
    const std::filesystem::path scriptFile = file.string() + ".py";
    std::ofstream(scriptFile) << script;
    const std::string command = "/usr/bin/python3 " + scriptFile.string() + " " + file.string() +
                                " " + std::to_string(channels.size()) + " 2>/dev/null";
    std::vector<std::vector<double>> rows;
    std::istringstream lines(KRORunCommand(command).output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream values(line);
        std::vector<double> row;
        for (double value; values >> value;) {
            row.push_back(value);
        }
        rows.push_back(row);
    }
    std::filesystem::remove(file);
    std::filesystem::remove(scriptFile);
    return rows;
}

bool numpyIsAvailable() {
    return std::system("/usr/bin/python3 -c 'import numpy' >/dev/null 2>&1") == 0;
}

} // namespace

TEST(Part_1_2_Statistics, MatchNumpyOnRandomData) {
    if (!numpyIsAvailable()) {
        GTEST_SKIP() << "numpy is not installed (scripts/install-deps installs python3-numpy)";
    }
    const std::uint64_t frames = 4099;
    std::vector<std::vector<float>> channels = {
        randomSamples(frames, 7), randomSamples(frames, 8, 0.125f), randomSamples(frames, 9, 4.0f)};
    auto list = makeList(3, frames);
    for (std::uint32_t channel = 0; channel < 3; ++channel) {
        fillChannel(*list, channel, channels[channel]);
    }
    const auto rows = numpyStatistics(channels);
    ASSERT_EQ(rows.size(), 4u);
    for (std::uint32_t channel = 0; channel < 3; ++channel) {
        const auto& row = rows[channel];
        ASSERT_EQ(row.size(), 6u);
        EXPECT_EQ(list->maximumOfChannel(channel), static_cast<float>(row[0]));
        EXPECT_EQ(list->minimumOfChannel(channel), static_cast<float>(row[1]));
        EXPECT_EQ(list->magnitudeOfChannel(channel), static_cast<float>(row[2]));
        expectNear(list->rmsOfChannel(channel), row[3], 1e-5);
        expectNear(list->averageOfChannel(channel), row[4], 1e-5);
        expectNear(list->energyOfChannel(channel), row[5], 1e-5);
    }
    const auto& all = rows[3];
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(list->maximum(), static_cast<float>(all[0]));
    EXPECT_EQ(list->minimum(), static_cast<float>(all[1]));
    EXPECT_EQ(list->magnitude(), static_cast<float>(all[2]));
    expectNear(list->rms(), all[3], 1e-5);
    expectNear(list->average(), all[4], 1e-5);
    expectNear(list->energy(), all[5], 1e-5);
}

// ---------------------------------------------------------------------------
// Threshold search.

TEST(Part_1_2_Threshold, ForwardAndBackwardFindTheFirstAndLastHit) {
    auto list = makeList(1, 8);
    fillChannel(*list, 0, {0.0f, 0.6f, 0.1f, -0.7f, 0.2f, 0.65f, 0.0f, 0.0f});
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, 0, false), 1);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, 0, true), 5);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.0f, 0, true), 7);
}

TEST(Part_1_2_Threshold, ANaNSampleCountsAsAHit) {
    auto list = makeList(1, 6);
    fillChannel(*list, 0, {0.1f, std::numeric_limits<float>::quiet_NaN(), 0.2f, 0.9f, 0.1f, 0.0f});
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, 0, false), 1);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.95f, 0, false), kNotFound);
    ASSERT_TRUE(list->setFrames(3));
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.15f, 0, true), 2);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.15f, 0, false), 1);
}

TEST(Part_1_2_Threshold, TheListFormTakesTheFirstChannelWithAHitNotTheEarliestFrame) {
    auto list = makeList(2, 2000);
    list->setValue(0.9f, 1000, 0);
    list->setValue(0.9f, 5, 1);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, false), 1000);
    list->setValue(0.0f, 1000, 0);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, false), 5);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, true), 5);
}

TEST(Part_1_2_Threshold, AMissingChannelIsNotFound) {
    auto list = makeList(1, 4);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.0f, 1, false), kNotFound);
}

// ---------------------------------------------------------------------------
// Ring addressing.

TEST(Part_1_2_Ring, RetrieveBufferReadsAcrossTheEnd) {
    RingFixture fixture;
    fillCounting(*fixture.ring);
    auto out = makeList(2, 4);
    fixture.ring->retrieveBuffer(*out, 6);
    EXPECT_EQ(channelValues(*out, 0), (std::vector<float>{7, 8, 1, 2}));
    EXPECT_EQ(channelValues(*out, 1), (std::vector<float>{107, 108, 101, 102}));
    fixture.ring->retrieveBuffer(*out, -10);
    EXPECT_EQ(channelValues(*out, 0), (std::vector<float>{7, 8, 1, 2}));
    fixture.ring->retrieveBuffer(*out, 17);
    EXPECT_EQ(channelValues(*out, 0), (std::vector<float>{2, 3, 4, 5}));
}

TEST(Part_1_2_Ring, AStoredBlockComesBackFromTheSameAbsoluteFrame) {
    RingFixture fixture;
    const std::int64_t frames[] = {0,
                                   5,
                                   8,
                                   13,
                                   -1,
                                   -7,
                                   -8,
                                   -9,
                                   1000001,
                                   std::numeric_limits<std::int64_t>::min(),
                                   std::numeric_limits<std::int64_t>::max()};
    for (std::int64_t frame : frames) {
        fixture.ring->clear();
        fixture.ring->storeBuffer(*fixture.block, frame);
        auto out = makeList(2, 4);
        fixture.ring->retrieveBuffer(*out, frame);
        EXPECT_EQ(channelValues(*out, 0), channelValues(*fixture.block, 0)) << frame;
        EXPECT_EQ(channelValues(*out, 1), channelValues(*fixture.block, 1)) << frame;
    }
}

TEST(Part_1_2_Ring, ChannelFormsMoveOneChannelWithoutTestingChannelCounts) {
    RingFixture fixture;
    auto mono = makeList(1, 4);
    fillChannel(*mono, 0, {1, 2, 3, 4});
    fixture.ring->storeChannel(0, *mono, 1, 7);
    EXPECT_EQ(channelValues(*fixture.ring, 0), std::vector<float>(8, 0.0f));
    EXPECT_EQ(channelValues(*fixture.ring, 1), (std::vector<float>{2, 3, 4, 0, 0, 0, 0, 1}));
    auto three = makeList(3, 2);
    fixture.ring->retrieveChannel(1, 2, *three, -1);
    EXPECT_EQ(channelValues(*three, 2), (std::vector<float>{1, 2}));
    EXPECT_EQ(channelValues(*three, 0), (std::vector<float>{0, 0}));
}

TEST(Part_1_2_Ring, RetrieveWithAWrongShapeChangesNothing) {
    RingFixture fixture;
    fillCounting(*fixture.ring);
    auto tooLong = makeList(2, 9);
    auto mono = makeList(1, 4);
    fixture.ring->retrieveBuffer(*tooLong, 0);
    fixture.ring->retrieveBuffer(*mono, 0);
    fixture.ring->retrieveChannel(0, 0, *tooLong, 0);
    EXPECT_EQ(channelValues(*tooLong, 0), std::vector<float>(9, 0.0f));
    EXPECT_EQ(channelValues(*mono, 0), std::vector<float>(4, 0.0f));
}

TEST(Part_1_2_Ring, TheRingLengthIsItsCurrentFrames) {
    RingFixture fixture;
    ASSERT_TRUE(fixture.ring->setFrames(6));
    fixture.ring->storeBuffer(*fixture.block, 4);
    EXPECT_EQ(channelValues(*fixture.ring, 0), (std::vector<float>{3, 4, 0, 0, 1, 2, 0, 0}));
    ASSERT_TRUE(fixture.ring->setFrames(0));
    auto empty = makeList(2, 4);
    ASSERT_TRUE(empty->setFrames(0));
    fixture.ring->storeBuffer(*empty, -3);
    fixture.ring->retrieveBuffer(*empty, 5);
}

TEST(Part_1_2_Ring, AnEmptyBlockWritesNothing) {
    RingFixture fixture;
    ASSERT_TRUE(fixture.block->setFrames(0));
    fixture.ring->storeBuffer(*fixture.block, 3);
    EXPECT_EQ(channelValues(*fixture.ring, 0), std::vector<float>(8, 0.0f));
}

// ---------------------------------------------------------------------------
// The vector loops, against their formulas at every length around the lanes.

TEST(Part_1_2_VectorOps, EveryLoopFollowsItsFormulaAtEveryLength) {
    for (std::size_t n = 0; n < 70; ++n) {
        const std::vector<float> a = randomSamples(n, 100 + n);
        const std::vector<float> b = randomSamples(n, 200 + n);
        std::vector<float> c(n, 9.0f);
        kro_vclr(c.data(), n);
        EXPECT_EQ(c, std::vector<float>(n, 0.0f));
        std::vector<float> d = b;
        kro_vsma(a.data(), 0.5f, d.data(), d.data(), n);
        kro_vsmul(a.data(), -2.0f, c.data(), n);
        std::vector<float> product(n);
        kro_vmul(a.data(), b.data(), product.data(), n);
        std::vector<float> negative(n);
        kro_vneg(a.data(), negative.data(), n);
        std::vector<float> reversed = a;
        kro_vrvrs(reversed.data(), n);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(d[i], a[i] * 0.5f + b[i]);
            ASSERT_EQ(c[i], a[i] * -2.0f);
            ASSERT_EQ(product[i], a[i] * b[i]);
            ASSERT_EQ(negative[i], -a[i]);
            ASSERT_EQ(reversed[i], a[n - 1 - i]);
        }
        long double squares = 0;
        long double magnitudes = 0;
        for (float x : a) {
            squares += static_cast<long double>(x) * x;
            magnitudes += std::fabs(static_cast<long double>(x));
        }
        EXPECT_EQ(kro_maxv(a.data(), n), n ? *std::max_element(a.begin(), a.end()) : -INFINITY);
        EXPECT_EQ(kro_minv(a.data(), n), n ? *std::min_element(a.begin(), a.end()) : INFINITY);
        expectNear(kro_svesq(a.data(), n), squares, 1e-5);
        expectNear(kro_rmsqv(a.data(), n), n ? std::sqrt(squares / n) : 0.0L, 1e-5);
        expectNear(kro_meamgv(a.data(), n), n ? magnitudes / n : 0.0L, 1e-5);
    }
}

TEST(Part_1_2_VectorOps, RampPiecesEqualTheWholeRamp) {
    std::vector<float> whole(3000);
    kro_vramp(0.1f, 0.003f, whole.data(), whole.size(), 0);
    std::vector<float> pieces(3000);
    for (std::size_t first = 0; first < pieces.size(); first += 700) {
        kro_vramp(0.1f, 0.003f, pieces.data() + first, std::min<std::size_t>(700, 3000 - first),
                  first);
    }
    EXPECT_EQ(whole, pieces);
    for (std::size_t i = 0; i < whole.size(); ++i) {
        ASSERT_EQ(whole[i], 0.1f + static_cast<float>(i) * 0.003f);
    }
    float far[3];
    const std::size_t first = std::size_t{1} << 33;
    kro_vramp(1.0f, 0.5f, far, 3, first);
    EXPECT_EQ(far[2], 1.0f + static_cast<float>(first + 2) * 0.5f);
}

// ---------------------------------------------------------------------------
// The render path under the allocation guard (DESIGN.md section 5).

TEST(Part_1_2_RealTime, ArithmeticAndStatisticsAllocateNothing) {
    auto list = makeList(2, 4096);
    auto other = makeList(2, 4096);
    fillCounting(*list, 0.001f);
    fillCounting(*other, 0.002f);
    volatile float sink = 0.0f;
    volatile std::int64_t frameSink = 0;
    KRO_EXPECT_NO_ALLOCATION(list->clear());
    KRO_EXPECT_NO_ALLOCATION(list->clearChannel(1));
    KRO_EXPECT_NO_ALLOCATION(list->clearRange(NSMakeLongRange(3, 100)));
    KRO_EXPECT_NO_ALLOCATION(list->clearRange(NSMakeLongRange(3, 100), 1));
    KRO_EXPECT_NO_ALLOCATION(list->clearRangeOfBufferAtIndex(NSMakeLongRange(3, 100), 0));
    KRO_EXPECT_NO_ALLOCATION(list->mixAudioBufferList(*other));
    KRO_EXPECT_NO_ALLOCATION(list->fadeIn());
    KRO_EXPECT_NO_ALLOCATION(list->fadeOut());
    KRO_EXPECT_NO_ALLOCATION(list->scale(0.5f));
    KRO_EXPECT_NO_ALLOCATION(list->scale(0.5f, NSMakeLongRange(10, 20)));
    KRO_EXPECT_NO_ALLOCATION(list->scale(0.5f, 1u));
    KRO_EXPECT_NO_ALLOCATION(list->scale(0.5f, 1u, NSMakeLongRange(10, 20)));
    KRO_EXPECT_NO_ALLOCATION(list->scaleWithRampStart(0.2f, 0.8f));
    KRO_EXPECT_NO_ALLOCATION(list->scaleWithRampStart(0.2f, 0.8f, NSMakeLongRange(5, 3000)));
    KRO_EXPECT_NO_ALLOCATION(list->scaleWithRampStart(0.2f, 0.8f, 1, NSMakeLongRange(5, 3000)));
    KRO_EXPECT_NO_ALLOCATION(list->invert());
    KRO_EXPECT_NO_ALLOCATION(list->reverse());
    KRO_EXPECT_NO_ALLOCATION(list->reverseRange(NSMakeLongRange(1, 77)));
    KRO_EXPECT_NO_ALLOCATION(list->reverseChannel(0, NSMakeLongRange(1, 77)));
    KRO_EXPECT_NO_ALLOCATION(list->setValue(0.25f, 9, 1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->valueAtFrame(9, 1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->maximum());
    KRO_EXPECT_NO_ALLOCATION(sink = list->maximumOfChannel(1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->minimum());
    KRO_EXPECT_NO_ALLOCATION(sink = list->minimumOfChannel(1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->magnitude());
    KRO_EXPECT_NO_ALLOCATION(sink = list->magnitudeOfChannel(1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->rms());
    KRO_EXPECT_NO_ALLOCATION(sink = list->rmsOfChannel(1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->average());
    KRO_EXPECT_NO_ALLOCATION(sink = list->averageOfChannel(1));
    KRO_EXPECT_NO_ALLOCATION(sink = list->energy());
    KRO_EXPECT_NO_ALLOCATION(sink = list->energyOfChannel(1));
    KRO_EXPECT_NO_ALLOCATION(frameSink = list->frameGreaterThanOrEqualToMagnitude(0.1f, true));
    KRO_EXPECT_NO_ALLOCATION(frameSink = list->frameGreaterThanOrEqualToMagnitude(0.1f, 1, false));
    KRO_EXPECT_NO_ALLOCATION(list->setFrames(1000));
    KRO_EXPECT_NO_ALLOCATION(list->setLength(list->capacity()));
    (void)sink;
    (void)frameSink;
}

TEST(Part_1_2_RealTime, CopiesAllocateNothing) {
    auto list = makeList(2, 4096);
    auto other = makeList(2, 4096);
    fillCounting(*other);
    KRO_EXPECT_NO_ALLOCATION(EXPECT_TRUE(list->copyBufferList(*other)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_TRUE(list->copyRange(NSMakeLongRange(8, 64), *other, 0)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_TRUE(list->copyBufferAtIndex(0, *other, 1)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_TRUE(list->copyRange(NSMakeLongRange(8, 64), 1, *other, 100, 0)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_TRUE(list->copyFrames(NSMakeLongRange(8, 64), *other, 300)));
    KRO_EXPECT_NO_ALLOCATION(EXPECT_TRUE(list->copyChannel(1, *other, 0)));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_TRUE(list->copyFrames(NSMakeLongRange(8, 64), 0, *list, 1000, 1)));
}

TEST(Part_1_2_RealTime, RingTransfersAllocateNothing) {
    auto ring = KROAudioRingBufferList::bufferListWithChannels(2, 8192);
    auto block = makeList(2, 512);
    auto mono = makeList(1, 512);
    fillCounting(*block);
    KRO_EXPECT_NO_ALLOCATION(ring->storeBuffer(*block, 8000));
    KRO_EXPECT_NO_ALLOCATION(ring->storeBuffer(*block, -300));
    KRO_EXPECT_NO_ALLOCATION(ring->storeChannel(0, *mono, 1, 8100));
    KRO_EXPECT_NO_ALLOCATION(ring->retrieveBuffer(*block, 8000));
    KRO_EXPECT_NO_ALLOCATION(ring->retrieveChannel(1, 0, *mono, -20));
    KRO_EXPECT_NO_ALLOCATION(ring->storeBuffer(*mono, 0));
}

TEST(Part_1_2_RealTime, TheGuardSeesConstructionAllocate) {
    KROAllocationGuard guard;
    auto list = KROAudioBufferList::bufferListWithChannels(2, 64);
    // The object, the record and the two buffers; ThreadSanitizer does not
    // report the buffers' aligned allocation.
#if defined(__SANITIZE_THREAD__)
    EXPECT_EQ(guard.count(), 2u);
#else
    EXPECT_EQ(guard.count(), 4u);
#endif
}
