// Buffer lists at the byte level: construction, foreign records, copies,
// lengths, and every failure with its code and action.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <optional>

#include "KROAllocationGuard.h"
#include "KROBufferListFixtures.h"

namespace {

// The error of a failure site: family, domain, code, and the sentence made
// from the action key's text and the code's reason.
void expectBufferListError(const KROErrorPtr& error, std::int64_t code, const char* actionKey) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROBufferListError");
    EXPECT_EQ(error->domain(), "KROBufferListErrorDomain");
    EXPECT_EQ(error->code(), code);
    const std::string reasonKey = "KROBufferListError_failureReason_" + std::to_string(code);
    EXPECT_NE(KROLocalizedString(reasonKey), reasonKey);
    EXPECT_NE(KROLocalizedString(actionKey), actionKey);
    EXPECT_EQ(error->description(), KROLocalizedString(actionKey) + " " +
                                        KROLocalizedString("KROError_conjunction") + " " +
                                        KROLocalizedString(reasonKey) + ".");
}

std::vector<std::uint8_t> bytesOf(const KROBufferList& list, std::uint32_t index) {
    const auto* bytes = static_cast<const std::uint8_t*>(list.bufferAtIndex(index));
    return std::vector<std::uint8_t>(bytes, bytes + list.capacity());
}

} // namespace

// Each refused construction reports its code, keeps no memory, and without
// an out-argument makes no error object.
TEST(KROBufferList, RefusedConstructionsReportTheirCode) {
    struct Case {
        const char* what;
        std::int64_t code;
        std::function<bool(KROAudioBufferList&, ForeignRecord&, KROErrorPtr*)> init;
        int failAt = -1;
    };
    using List = KROAudioBufferList;
    using Record = ForeignRecord;
    const Case cases[] = {
        {"no buffers", 1, [](List& l, Record&, auto* e) { return l.initWithChannels(0, 16, e); }},
        {"count before capacity", 1,
         [](List& l, Record&, auto* e) { return l.initWithNumberOfBuffers(0, 0, e); }},
        {"no capacity", 2, [](List& l, Record&, auto* e) { return l.initWithChannels(2, 0, e); }},
        {"record allocation", 3,
         [](List& l, Record&, auto* e) { return l.initWithChannels(3, 16, e); }, 0},
        {"first buffer", 4, [](List& l, Record&, auto* e) { return l.initWithChannels(3, 16, e); },
         1},
        {"last buffer", 4, [](List& l, Record&, auto* e) { return l.initWithChannels(3, 16, e); },
         3},
        {"foreign record absent", 5,
         [](List& l, Record&, auto* e) { return l.initWithBufferList(nullptr, e); }},
        {"foreign record of no buffers", 6,
         [](List& l, Record& r, auto* e) {
             r.get()->mNumberBuffers = 0;
             return l.initWithBufferList(r.get(), e);
         }},
        {"a stereo buffer", 7,
         [](List& l, Record& r, auto* e) {
             r.buffer(2).mNumberChannels = 2;
             return l.initWithBufferList(r.get(), e);
         }},
        {"sizes differ", 8,
         [](List& l, Record& r, auto* e) {
             r.buffer(1).mDataByteSize = 32;
             return l.initWithBufferList(r.get(), e);
         }},
        {"no memory", 9,
         [](List& l, Record& r, auto* e) {
             r.buffer(2).mData = nullptr;
             return l.initWithBufferList(r.get(), e);
         }},
        {"the earlier buffer decides", 9,
         [](List& l, Record& r, auto* e) {
             r.buffer(1).mData = nullptr;
             r.buffer(2).mNumberChannels = 2;
             return l.initWithBufferList(r.get(), e);
         }},
        {"within a buffer the channels decide", 7,
         [](List& l, Record& r, auto* e) {
             r.buffer(1) = AudioBuffer{2, 8, nullptr};
             return l.initWithBufferList(r.get(), e);
         }},
        {"zero bytes", 10,
         [](List& l, Record& r, auto* e) {
             for (std::uint32_t index = 0; index < 3; ++index) {
                 r.buffer(index).mDataByteSize = 0;
             }
             return l.initWithBufferList(r.get(), e);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        for (const bool withError : {true, false}) {
            std::optional<FailingAllocator> allocator;
            if (c.failAt >= 0) {
                allocator.emplace(c.failAt);
            }
            ForeignRecord record(3, 16);
            KROAudioBufferList list;
            KROErrorPtr error;
            if (withError) {
                EXPECT_FALSE(c.init(list, record, &error));
                expectBufferListError(error, c.code, "KROBufferList_action_create");
            } else if (c.failAt < 0) {
                KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(c.init(list, record, nullptr)));
            } else {
                EXPECT_FALSE(c.init(list, record, nullptr));
            }
            EXPECT_EQ(list.audioBufferList(), nullptr);
            EXPECT_EQ(list.capacity(), 0u);
        }
    }
#if !defined(KRO_SANITIZER_BUILD) // The sanitizers stop on an impossible allocation.
    KROErrorPtr error;
    EXPECT_FALSE(KROBufferList::bufferListWithNumberOfBuffers(2, std::uint64_t{1} << 62, &error));
    expectBufferListError(error, 4, "KROBufferList_action_create");
#endif
}

// Each refused copy or length reports its code and action and changes
// nothing; the count mismatch of copyBufferList carries the copy-range key and
// the length mismatch the copy-buffer key, swapped on purpose.
TEST(KROBufferList, RefusedCopiesReportTheirCodeAndChangeNothing) {
    struct Sources {
        std::shared_ptr<KROAudioBufferList> three = countingList(3, 8);
        std::shared_ptr<KROAudioBufferList> one = countingList(1, 8);
        std::shared_ptr<KROAudioBufferList> four = countingList(2, 8);
        ForeignRecord record{2, 8};
        std::shared_ptr<KROAudioBufferList> withNullBuffer =
            KROAudioBufferList::bufferListWithBufferList(record.get());
        Sources() {
            EXPECT_TRUE(four->setFrames(4));
            record.buffer(1).mData = nullptr;
        }
    };
    struct Case {
        const char* what;
        std::int64_t code;
        const char* action;
        std::function<bool(KROAudioBufferList&, Sources&, KROErrorPtr*)> change;
    };
    const auto range = NSMakeLongRange;
    const Case cases[] = {
        {"list of other count", 11, "KROBufferList_action_copyRange",
         [](auto& d, Sources& s, auto* e) { return d.copyBufferList(*s.three, e); }},
        {"range of other count", 11, "KROBufferList_action_copyRange",
         [&](auto& d, Sources& s, auto* e) { return d.copyRange(range(0, 4), *s.one, 0, e); }},
        {"frames of other count", 11, "KROBufferList_action_copyRange",
         [&](auto& d, Sources& s, auto* e) { return d.copyFrames(range(0, 1), *s.one, 0, e); }},
        {"list of other length", 12, "KROBufferList_action_copyBuffer",
         [](auto& d, Sources& s, auto* e) { return d.copyBufferList(*s.four, e); }},
        {"buffer of other length", 12, "KROBufferList_action_copyBuffer",
         [](auto& d, Sources& s, auto* e) { return d.copyBufferAtIndex(0, *s.four, 0, e); }},
        {"channel of other length", 12, "KROBufferList_action_copyBuffer",
         [](auto& d, Sources& s, auto* e) { return d.copyChannel(0, *s.four, 1, e); }},
        {"destination index", 13, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyRange(range(0, 4), 0, *s.three, 0, 2, e);
         }},
        {"destination index first", 13, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyRange(range(0, 4), 5, *s.one, 0, 5, e);
         }},
        {"source index", 14, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyRange(range(0, 4), 1, *s.one, 0, 1, e);
         }},
        {"past the destination", 15, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyFrames(range(0, 3), 0, *s.three, 6, 0, e);
         }},
        {"position overflows", 15, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyRange(range(0, 8), *s.four, std::numeric_limits<std::uint64_t>::max() - 4,
                                e);
         }},
        {"past the source's length", 16, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyFrames(range(2, 3), 1, *s.four, 0, 1, e);
         }},
        {"null source buffer", 17, "KROBufferList_action_copyBuffers",
         [&](auto& d, Sources& s, auto* e) {
             return d.copyFrames(range(0, 4), 1, *s.withNullBuffer, 0, 0, e);
         }},
        {"length past the capacity", 17, "KROBufferList_action_setLength",
         [](auto& d, Sources&, auto* e) { return d.setLength(d.capacity() + 1, e); }},
        {"frames past the capacity", 17, "KROBufferList_action_setLength",
         [](auto& d, Sources&, auto* e) { return d.setFrames(d.frameCapacity() + 1, e); }},
    };
    Sources sources;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto destination = countingList(2, 8, 1000);
        ASSERT_TRUE(destination->setFrames(7));
        const auto before = samplesOf(*destination);
        KROErrorPtr error;
        EXPECT_FALSE(c.change(*destination, sources, &error));
        expectBufferListError(error, c.code, c.action);
        KRO_EXPECT_NO_ALLOCATION(EXPECT_FALSE(c.change(*destination, sources, nullptr)));
        EXPECT_EQ(samplesOf(*destination), before);
        EXPECT_EQ(destination->frames(), 7u);
    }
}

TEST(KROBufferList, ListCopiesStopAtTheFirstFailureAndKeepWhatTheyCopied) {
    ForeignRecord record(3, 4);
    auto source = KROAudioBufferList::bufferListWithBufferList(record.get());
    record.buffer(1).mData = nullptr;
    auto destination = makeList(3, 4);
    KROErrorPtr error;
    EXPECT_FALSE(destination->copyBufferList(*source, &error));
    expectBufferListError(error, 17, "KROBufferList_action_copyBuffers");
    EXPECT_EQ(samplesOf(*destination, 0), std::vector<float>(4, 0.5f));
    EXPECT_EQ(samplesOf(*destination, 2), std::vector<float>(4, 0.0f));
}

// The receiver is the destination; frames become bytes; the limits are the
// current lengths; a channel may be copied into another of the same list.
TEST(KROBufferList, CopiesMoveTheRangesTheyName) {
    auto source = countingList(3, 8);
    auto whole = makeList(3, 8);
    ASSERT_TRUE(whole->copyBufferList(*source));
    EXPECT_EQ(samplesOf(*whole), samplesOf(*source));

    auto frames = makeList(3, 8);
    ASSERT_TRUE(frames->copyFrames(NSMakeLongRange(1, 2), *source, 5));
    EXPECT_EQ(samplesOf(*frames, 2), (std::vector<float>{0, 0, 0, 0, 0, 202, 203, 0}));

    auto channel = makeList(2, 8);
    ASSERT_TRUE(channel->copyChannel(2, *source, 1));
    EXPECT_EQ(samplesOf(*channel, 0), std::vector<float>(8, 0));
    EXPECT_EQ(samplesOf(*channel, 1), samplesOf(*source, 2));

    ASSERT_TRUE(source->copyChannel(0, *source, 1));
    ASSERT_TRUE(source->copyFrames(NSMakeLongRange(6, 2), 1, *source, 0, 0));
    EXPECT_EQ(samplesOf(*source, 0), (std::vector<float>{7, 8, 3, 4, 5, 6, 7, 8}));

    auto shortList = makeList(1, 8);
    ASSERT_TRUE(shortList->setFrames(4));
    ASSERT_TRUE(source->setFrames(6));
    EXPECT_TRUE(shortList->copyFrames(NSMakeLongRange(2, 4), 0, *source, 0, 0));
    EXPECT_FALSE(shortList->copyFrames(NSMakeLongRange(3, 4), 0, *source, 0, 0));
    EXPECT_FALSE(shortList->copyFrames(NSMakeLongRange(2, 5), 0, *source, 0, 0));

    auto bytes = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    auto other = KROBufferList::bufferListWithNumberOfBuffers(2, 8);
    for (int i = 0; i < 8; ++i) {
        static_cast<std::uint8_t*>(other->bufferAtIndex(1))[i] = std::uint8_t(i + 1);
    }
    ASSERT_TRUE(bytes->copyRange(NSMakeLongRange(2, 3), *other, 4));
    EXPECT_EQ(bytesOf(*bytes, 1), (std::vector<std::uint8_t>{0, 0, 0, 0, 3, 4, 5, 0}));
}

// A copy is always a plain KROBufferList of full length and its own memory:
// the receiver's length copied, the rest zero, the range carried over.
TEST(KROBufferList, ACopyIsAPlainListOfFullLength) {
    auto list = countingList(2, 16);
    ASSERT_TRUE(list->setFrames(10));
    list->setRange(NSMakeLongRange(44, 16));
    std::shared_ptr<KROBufferList> copy = list->copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->className(), "KROBufferList");
    EXPECT_EQ(std::dynamic_pointer_cast<KROAudioBufferList>(copy), nullptr);
    EXPECT_EQ(copy->numberOfBuffers(), 2u);
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

TEST(KROBufferList, AForeignRecordIsWrappedWithoutCopyingOrOwning) {
    ForeignRecord record(2, 32);
    {
        auto list = KROAudioBufferList::bufferListWithBufferList(record.get());
        ASSERT_TRUE(list);
        EXPECT_EQ(list->audioBufferList(), record.get());
        EXPECT_EQ(list->capacity(), 128u);
        EXPECT_EQ(list->channel(1), record.samples(1).data());
        list->scale(2.0f);
        EXPECT_NE(list->copy()->bufferAtIndex(0), record.samples(0).data());
    }
    EXPECT_EQ(record.samples(0)[31], 1.0f);
    EXPECT_EQ(record.buffer(1).mData, record.samples(1).data());
}

// A new owned list: single-channel buffers of full length, all zero, range 0.
TEST(KROBufferList, ANewListIsZeroAtFullLength) {
    auto list = makeList(2, 512);
    EXPECT_EQ(list->frames(), 512u);
    EXPECT_EQ(list->frameCapacity(), 512u);
    EXPECT_EQ(list->length(), 2048u);
    EXPECT_EQ(list->range(), NSMakeLongRange(0, 0));
    EXPECT_EQ(samplesOf(*list), std::vector<std::vector<float>>(2, std::vector<float>(512, 0)));
    for (std::uint32_t index = 0; index < 2; ++index) {
        const AudioBuffer& buffer = KROAudioBufferAt(*list->audioBufferList(), index);
        EXPECT_EQ(buffer.mNumberChannels, 1u);
        EXPECT_EQ(buffer.mData, list->bufferAtIndex(index));
    }
    EXPECT_EQ(list->bufferAtIndex(2), nullptr);
    EXPECT_EQ(list->channel(2), nullptr);
    ASSERT_TRUE(list->initWithChannels(3, 4)); // a second init replaces the first memory
    EXPECT_EQ(list->numberOfChannels(), 3u);
    EXPECT_EQ(list->frames(), 4u);
}

// The length is written into every buffer; shrinking and growing again brings
// the old samples back; frames drop the remainder of the byte length.
TEST(KROBufferList, TheLengthIsEveryBuffersAndKeepsTheSamples) {
    auto list = countingList(2, 8);
    ASSERT_TRUE(list->setLength(13));
    EXPECT_EQ(list->frames(), 3u);
    EXPECT_EQ(KROAudioBufferAt(*list->audioBufferList(), 1).mDataByteSize, 13u);
    EXPECT_EQ(list->description(), "KROBufferList: 2 buffers, length = 13, maxLength = 32");
    ASSERT_TRUE(list->setLength(list->capacity()));
    EXPECT_EQ(list->valueAtFrame(7, 1), 108.0f);
}

// On the byte class a cleared range is in bytes, cut to the current length,
// and clearing a buffer past the count does nothing; the audio class reads
// the same call in frames.
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
}

TEST(KROBufferList, AnUninitialisedListIsEmptyAndItsOperationsDoNothing) {
    KROAudioBufferList list;
    EXPECT_EQ(list.numberOfBuffers(), 0u);
    EXPECT_EQ(list.length(), 0u);
    EXPECT_EQ(list.bufferAtIndex(0), nullptr);
    list.clear();
    list.scale(2.0f, 0, NSMakeLongRange(0, 4));
    list.scaleWithRampStart(0.0f, 1.0f, 0, NSMakeLongRange(0, 4));
    list.reverse();
    list.invert();
    EXPECT_EQ(list.frameGreaterThanOrEqualToMagnitude(0.0f, 0, false),
              KROAudioBufferList::notFound);
    EXPECT_EQ(list.maximumOfChannel(0), 0.0f);
    EXPECT_EQ(list.valueAtFrame(0), 0.0f);
}
