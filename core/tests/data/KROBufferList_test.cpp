// Buffer lists in bytes: construction, foreign records, copies, lengths, failures.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <optional>

#include "KROAllocationGuard.h"
#include "KROBufferListFixtures.h"

namespace {

void expectBufferListError(const KROErrorPtr& error, std::int64_t code, const char* actionKey) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "KROBufferListErrorDomain");
    EXPECT_EQ(error->code(), code);
    const std::string reasonKey = "KROBufferListError_failureReason_" + std::to_string(code);
    EXPECT_NE(KROLocalizedString(reasonKey), reasonKey);
    EXPECT_EQ(error->description(), KROLocalizedString(actionKey) + " " +
                                        KROLocalizedString("KROError_conjunction") + " " +
                                        KROLocalizedString(reasonKey) + ".");
}

std::vector<std::uint8_t> bytesOf(const KROBufferList& list, std::uint32_t index) {
    const auto* bytes = static_cast<const std::uint8_t*>(list.bufferAtIndex(index));
    return std::vector<std::uint8_t>(bytes, bytes + list.capacity());
}

// A foreign AudioBufferList record of single-channel buffers of 0.5.
class ForeignRecord {
public:
    ForeignRecord(std::uint32_t buffers, std::uint32_t frames)
        : record_(
              static_cast<AudioBufferList*>(std::calloc(1, KROAudioBufferListByteSize(buffers)))),
          samples_(buffers, std::vector<float>(frames, 0.5f)) {
        record_->mNumberBuffers = buffers;
        for (std::uint32_t index = 0; index < buffers; ++index) {
            buffer(index) = AudioBuffer{1, frames * 4, samples_[index].data()};
        }
    }
    ~ForeignRecord() { std::free(record_); }
    AudioBufferList* get() { return record_; }
    AudioBuffer& buffer(std::uint32_t index) { return KROAudioBufferAt(*record_, index); }
    float* samples(std::uint32_t index) { return samples_[index].data(); }

private:
    AudioBufferList* record_;
    std::vector<std::vector<float>> samples_;
};

// While it lives, calloc fails from its failAt-th call on (from 0).
int allocatorCalls = 0, allocatorFailAt = 0;
struct FailingAllocator {
    explicit FailingAllocator(int failAt) {
        allocatorCalls = 0;
        allocatorFailAt = failAt;
        KROBufferList::setAllocatorForTesting([](std::size_t count, std::size_t size) {
            return allocatorCalls++ >= allocatorFailAt ? nullptr : std::calloc(count, size);
        });
    }
    ~FailingAllocator() { KROBufferList::setAllocatorForTesting(nullptr); }
};

} // namespace

// Refused constructions report their code and keep nothing; a foreign record is
// checked buffer by buffer: channels, size, then memory.
TEST(KROBufferList, RefusedConstructionsReportTheirCode) {
    using Record = ForeignRecord;
    struct Case {
        std::int64_t code;
        std::uint32_t channels = 0, frames = 0;
        int failAt = -1;
        std::function<void(Record&)> damage = nullptr; // of a foreign record of 3 x 16 frames
        bool noRecord = false;
    };
    const Case cases[] = {
        {1, 0, 16},
        {1},
        {2, 2},
        {3, 3, 16, 0},
        {4, 3, 16, 1},
        {4, 3, 16, 3},
        {5, 0, 0, -1, nullptr, true},
        {6, 0, 0, -1, [](Record& r) { r.get()->mNumberBuffers = 0; }},
        {7, 0, 0, -1, [](Record& r) { r.buffer(2).mNumberChannels = 2; }},
        {8, 0, 0, -1, [](Record& r) { r.buffer(1).mDataByteSize = 32; }},
        {9, 0, 0, -1, [](Record& r) { r.buffer(2).mData = nullptr; }},
        {9, 0, 0, -1,
         [](Record& r) { r.buffer(1).mData = nullptr, r.buffer(2).mNumberChannels = 2; }},
        {7, 0, 0, -1,
         [](Record& r) {
             r.buffer(1) = AudioBuffer{2, 8, nullptr};
         }},
        {10, 0, 0, -1,
         [](Record& r) { r.get()->mNumberBuffers = 1, r.buffer(0).mDataByteSize = 0; }},
    };
    for (std::size_t row = 0; row < std::size(cases); ++row) {
        SCOPED_TRACE(row);
        const Case& c = cases[row];
        std::optional<FailingAllocator> allocator;
        if (c.failAt >= 0) {
            allocator.emplace(c.failAt);
        }
        ForeignRecord record(3, 16);
        if (c.damage) {
            c.damage(record);
        }
        const bool foreign = c.damage || c.noRecord;
        KROAudioBufferList list;
        const auto init = [&](KROErrorPtr* e) {
            return foreign ? list.initWithBufferList(c.noRecord ? nullptr : record.get(), e)
                           : list.initWithChannels(c.channels, c.frames, e);
        };
        KROErrorPtr error;
        EXPECT_FALSE(init(&error));
        expectBufferListError(error, c.code, "KROBufferList_action_create");
        EXPECT_EQ(list.audioBufferList(), nullptr);
        EXPECT_EQ(list.capacity(), 0u);
        if (c.failAt < 0) {
            KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(init(nullptr)));
        }
    }
#if !defined(KRO_SANITIZER_BUILD) // The sanitizers stop on an impossible allocation.
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithNumberOfBuffers(2, std::uint64_t{1} << 62, &error));
    expectBufferListError(error, 4, "KROBufferList_action_create");
#endif
}

// Refused copies change nothing. Kept: copyBufferList's count and length keys are swapped.
TEST(KROBufferList, RefusedCopiesReportTheirCodeAndChangeNothing) {
    const auto three = countingList(3, 8), one = countingList(1, 8), four = countingList(2, 8);
    ASSERT_TRUE(four->setFrames(4));
    ForeignRecord record(2, 8);
    const auto holed = KROAudioBufferList::bufferListWithBufferList(record.get());
    record.buffer(1).mData = nullptr;
    const auto r = NSMakeLongRange;
    const std::uint64_t far = std::numeric_limits<std::uint64_t>::max() - 4;
    const char* range = "KROBufferList_action_copyRange";
    const char* buffer = "KROBufferList_action_copyBuffer";
    const char* buffers = "KROBufferList_action_copyBuffers";
    const char* length = "KROBufferList_action_setLength";
    const std::tuple<std::int64_t, const char*,
                     std::function<bool(KROAudioBufferList&, KROErrorPtr*)>>
        cases[] = {
            {11, range, [&](auto& d, auto* e) { return d.copyBufferList(*three, e); }},
            {11, range, [&](auto& d, auto* e) { return d.copyRange(r(0, 4), *one, 0, e); }},
            {11, range, [&](auto& d, auto* e) { return d.copyFrames(r(0, 1), *one, 0, e); }},
            {12, buffer, [&](auto& d, auto* e) { return d.copyBufferList(*four, e); }},
            {12, buffer, [&](auto& d, auto* e) { return d.copyBufferAtIndex(0, *four, 0, e); }},
            {12, buffer, [&](auto& d, auto* e) { return d.copyChannel(0, *four, 1, e); }},
            {13, buffers,
             [&](auto& d, auto* e) { return d.copyRange(r(0, 4), 0, *three, 0, 2, e); }},
            {13, buffers, [&](auto& d, auto* e) { return d.copyRange(r(0, 4), 5, *one, 0, 5, e); }},
            {14, buffers, [&](auto& d, auto* e) { return d.copyRange(r(0, 4), 1, *one, 0, 1, e); }},
            {15, buffers,
             [&](auto& d, auto* e) { return d.copyFrames(r(0, 3), 0, *three, 6, 0, e); }},
            {15, buffers, [&](auto& d, auto* e) { return d.copyRange(r(0, 8), *four, far, e); }},
            {16, buffers,
             [&](auto& d, auto* e) { return d.copyFrames(r(2, 3), 1, *four, 0, 1, e); }},
            {17, buffers,
             [&](auto& d, auto* e) { return d.copyFrames(r(0, 4), 1, *holed, 0, 0, e); }},
            {17, length, [](auto& d, auto* e) { return d.setLength(d.capacity() + 1, e); }},
            {17, length, [](auto& d, auto* e) { return d.setFrames(d.frameCapacity() + 1, e); }},
        };
    for (std::size_t row = 0; row < std::size(cases); ++row) {
        SCOPED_TRACE(row);
        const auto& [code, action, refusedChange] = cases[row];
        const auto& change = refusedChange; // clang 14 cannot capture a binding
        auto destination = countingList(2, 8, 1000);
        ASSERT_TRUE(destination->setFrames(7));
        const auto before = samplesOf(*destination);
        KROErrorPtr error;
        EXPECT_FALSE(change(*destination, &error));
        expectBufferListError(error, code, action);
        KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(change(*destination, nullptr)));
        EXPECT_EQ(samplesOf(*destination), before);
        EXPECT_EQ(destination->frames(), 7u);
    }
    // A list copy stops at the first failure and keeps what it copied.
    ForeignRecord partial(3, 8);
    const auto source = KROAudioBufferList::bufferListWithBufferList(partial.get());
    partial.buffer(1).mData = nullptr;
    auto destination = makeList(3, 8);
    EXPECT_FALSE(destination->copyBufferList(*source));
    EXPECT_EQ(samplesOf(*destination, 0), std::vector<float>(8, 0.5f));
    EXPECT_EQ(samplesOf(*destination, 2), std::vector<float>(8, 0.0f));
}

// The receiver is the destination; a channel may be copied within a list.
TEST(KROBufferList, CopiesMoveTheRangesTheyName) {
    auto source = countingList(3, 8);
    auto frames = makeList(3, 8);
    ASSERT_TRUE(frames->copyFrames(NSMakeLongRange(1, 2), *source, 5));
    EXPECT_EQ(samplesOf(*frames, 2), (std::vector<float>{0, 0, 0, 0, 0, 202, 203, 0}));
    auto channel = makeList(2, 8);
    ASSERT_TRUE(channel->copyChannel(2, *source, 1));
    EXPECT_EQ(samplesOf(*channel),
              (std::vector<std::vector<float>>{std::vector<float>(8, 0), samplesOf(*source, 2)}));
    ASSERT_TRUE(source->copyChannel(0, *source, 1));
    ASSERT_TRUE(source->copyFrames(NSMakeLongRange(6, 2), 1, *source, 0, 0));
    EXPECT_EQ(samplesOf(*source, 0), (std::vector<float>{7, 8, 3, 4, 5, 6, 7, 8}));
}

// A copy is a plain KROBufferList of full length: the length copied, the rest zero.
TEST(KROBufferList, ACopyIsAPlainListOfFullLength) {
    auto list = countingList(2, 16);
    ASSERT_TRUE(list->setFrames(10));
    list->setRange(NSMakeLongRange(44, 16));
    std::shared_ptr<KROBufferList> copy = list->copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->className(), "KROBufferList");
    EXPECT_EQ(copy->length(), list->capacity());
    EXPECT_EQ(copy->range(), NSMakeLongRange(44, 16));
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        const auto* samples = static_cast<const float*>(copy->bufferAtIndex(channel));
        EXPECT_NE(samples, list->channel(channel));
        for (std::uint64_t frame = 0; frame < 16; ++frame) {
            EXPECT_EQ(samples[frame], frame < 10 ? list->valueAtFrame(frame, channel) : 0.0f);
        }
    }
    ForeignRecord record(1, 4);
    auto foreign = KROBufferList::bufferListWithBufferList(record.get());
    record.buffer(0).mDataByteSize = 32; // grown past its capacity behind the list's back
    EXPECT_FALSE(foreign->copy());
    EXPECT_FALSE(KROBufferList().copy());
}

// A foreign record is used in place, never freed; shrinking and growing keeps the samples.
TEST(KROBufferList, ListsHoldTheirBuffersAndLengths) {
    auto list = makeList(2, 512);
    EXPECT_EQ(list->length(), 2048u);
    EXPECT_EQ(list->range(), NSMakeLongRange(0, 0));
    EXPECT_EQ(samplesOf(*list), std::vector<std::vector<float>>(2, std::vector<float>(512, 0)));
    EXPECT_EQ(KROAudioBufferAt(*list->audioBufferList(), 1).mNumberChannels, 1u);
    EXPECT_EQ(list->bufferAtIndex(2), nullptr);
    ForeignRecord record(2, 32);
    {
        auto foreign = KROAudioBufferList::bufferListWithBufferList(record.get());
        EXPECT_EQ(foreign->capacity(), 128u);
        EXPECT_EQ(foreign->channel(1), record.samples(1));
        foreign->scale(2.0f);
    }
    EXPECT_EQ(record.samples(0)[31], 1.0f);
    EXPECT_EQ(record.buffer(1).mData, record.samples(1));
    auto counting = countingList(2, 8);
    ASSERT_TRUE(counting->setLength(13));
    EXPECT_EQ(counting->frames(), 3u);
    EXPECT_EQ(KROAudioBufferAt(*counting->audioBufferList(), 1).mDataByteSize, 13u);
    EXPECT_EQ(counting->description(), "KROBufferList: 2 buffers, length = 13, maxLength = 32");
    ASSERT_TRUE(counting->setLength(counting->capacity()));
    EXPECT_EQ(counting->valueAtFrame(7, 1), 108.0f);
    ASSERT_TRUE(counting->initWithChannels(3, 4)); // a second init replaces the first memory
    EXPECT_EQ(counting->frames(), 4u);
}

// The byte class clears bytes within the length; the audio class reads frames.
TEST(KROBufferList, ClearingWorksInBytesOnTheBaseClass) {
    auto list = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    for (std::uint32_t index = 0; index < 2; ++index) {
        std::fill_n(static_cast<std::uint8_t*>(list->bufferAtIndex(index)), 8, 0xff);
    }
    ASSERT_TRUE(list->setLength(6));
    list->clearRange(NSMakeLongRange(4, 4));
    list->clearRangeOfBufferAtIndex(NSMakeLongRange(0, 1), 1);
    list->clearBufferAtIndex(2);
    EXPECT_EQ(bytesOf(*list, 0), (std::vector<std::uint8_t>{255, 255, 255, 255, 0, 0, 255, 255}));
    EXPECT_EQ(bytesOf(*list, 1), (std::vector<std::uint8_t>{0, 255, 255, 255, 0, 0, 255, 255}));
    auto audio = constantList(1, 8, 3);
    static_cast<KROBufferList&>(*audio).clearRange(NSMakeLongRange(2, 2));
    EXPECT_EQ(samplesOf(*audio, 0), (std::vector<float>{3, 3, 0, 0, 3, 3, 3, 3}));
    KROAudioBufferList empty;
    empty.clear();
    empty.scale(2.0f, 0, NSMakeLongRange(0, 4));
    empty.scaleWithRampStart(0.0f, 1.0f, 0, NSMakeLongRange(0, 4));
    empty.reverse();
    empty.invert();
    EXPECT_EQ(empty.frameGreaterThanOrEqualToMagnitude(0, 0, false), KROAudioBufferList::notFound);
    EXPECT_EQ(empty.maximumOfChannel(0), 0.0f);
    EXPECT_EQ(empty.valueAtFrame(0), 0.0f);
}
