// The file player: its reader, the disk thread's ring, foreseen jumps, offline reads.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "KROAllocationGuard.h"
#include "KROAudioFileAudioGenerator.h"
#include "KROConductorAudioProcessor.h"
#include "KROErrorFamilies.h"
#include "KROStreamingTestSupport.h"

namespace {

constexpr std::uint64_t kFileFrames = 5 * 48000;
constexpr std::uint64_t kSecond = 48000;

// A WAVE handler whose reads wait for a permit while the gate is closed.
class GatedWAVEContent : public KROAudioFileWAVEContent {
public:
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame, KROErrorPtr* error) override {
        {
            std::unique_lock lock(mutex);
            ++entered;
            changed.notify_all();
            changed.wait(lock, [] { return permits != 0; });
            permits -= permits > 0 ? 1 : 0;
        }
        return KROAudioFileWAVEContent::getAudio(buffer, frame, error);
    }
    // permits: -1 lets every read through.
    static void allow(int count) {
        const std::lock_guard lock(mutex);
        permits = count;
        changed.notify_all();
    }
    static void waitForReads(int count) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return entered >= count; });
    }
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline int permits = -1;
    static inline int entered = 0;
};

class KROAudioFileAudioGeneratorTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeSignatureFile(directory_ / "take.wav", 2, kFileFrames);
        auto content = std::make_shared<GatedWAVEContent>();
        content->setURL(directory_ / "take.wav");
        ASSERT_TRUE(content->parse());
        reader_ = std::make_shared<KROAudioFileReader>();
        reader_->initWithFileContent(content);
        generator_ = made<KROAudioFileAudioGenerator>();
        generator_->setAudioFile(reader_);
        head_ = made<KROTestHead>();
        head_->maxFrames = 512;
        head_->info()->setRunning(true);
    }

    // A test that stopped with the gate closed must not leave the disk
    // thread waiting.
    void TearDown() override { GatedWAVEContent::allow(-1); }

    void build(std::vector<std::shared_ptr<KROAudioProcessor>> chain) {
        chain.insert(chain.begin(), generator_);
        chain.push_back(head_);
        buildChain(stream_, chain);
        ASSERT_TRUE(stream_.initialize());
    }

    // One block, under the allocation guard; then the disk thread catches up.
    const KROAudioBufferList& renderBlock() {
        std::size_t allocations = 0;
        {
            const KROAllocationGuard guard;
            head_->renderBlock();
            allocations = guard.count();
        }
        EXPECT_EQ(allocations, 0u);
        KROAudioFileAudioGenerator::waitForDiskThread();
        return *head_->buffer;
    }

    KROScratchDirectory directory_;
    std::shared_ptr<KROAudioFileReader> reader_;
    std::shared_ptr<KROAudioFileAudioGenerator> generator_;
    std::shared_ptr<KROTestHead> head_;
    KROAudioStream stream_;
};

using Generator = KROAudioFileAudioGenerator;
using Buffer = KROAudioFileAudioGeneratorPlaybackBuffer;

} // namespace

// Reads outside the file are silent on either side, and a short file reads
// what it has.
TEST_F(KROAudioFileAudioGeneratorTest, TheReaderGivesSilenceOutsideTheFile) {
    struct Case {
        const char* what;
        std::int64_t frame;
        std::int64_t firstInFile, endInFile; // offsets in the block holding file frames
    };
    const Case cases[] = {
        {"inside, across the cache's edge", 47900, 0, 300},
        {"starting before the file", -100, 100, 300},
        {"wholly before the file", -300, 0, 0},
        {"running past the end", std::int64_t(kFileFrames) - 50, 0, 50},
        {"at the end", std::int64_t(kFileFrames), 0, 0},
    };
    auto block = KROAudioBufferList::bufferListWithChannels(2, 300);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        block->channel(0)[0] = 9.0f;
        ASSERT_TRUE(reader_->getAudio(*block, c.frame));
        for (std::int64_t i = 0; i < 300; ++i) {
            const bool inFile = i >= c.firstInFile && i < c.endInFile;
            ASSERT_EQ(block->channel(1)[i], inFile ? signatureSample(c.frame + i, 1) : 0.0f) << i;
        }
    }
}

// From the middle of the file, "current" starts at the frame, "previous"
// holds the second before it and "next" the one after; near the head the ring
// starts at 0. Played from there, every block is the file, across the edges
// of the buffers, while the render thread allocates nothing.
TEST_F(KROAudioFileAudioGeneratorTest, PlaysTheFileFromAnyFrameAcrossTheRing) {
    build({});
    EXPECT_EQ(generator_->playbackBufferLength(), 1.0);
    struct Case {
        std::int64_t from;
        std::uint64_t current, previous, next;
    };
    for (const Case& c : {Case{100000, 100000, 52000, 148000}, Case{1000, 0, 0, 48000}}) {
        SCOPED_TRACE(c.from);
        generator_->prepareForPlaybackFromFrame(c.from);
        EXPECT_EQ(generator_->playbackBufferForRole(Buffer::current)->range(),
                  NSMakeLongRange(c.current, kSecond));
        EXPECT_EQ(generator_->playbackBufferForRole(Buffer::next)->range(),
                  NSMakeLongRange(c.next, kSecond));
        if (c.from > std::int64_t(kSecond)) {
            EXPECT_EQ(generator_->playbackBufferForRole(Buffer::previous)->range(),
                      NSMakeLongRange(c.previous, kSecond));
        }
        KROAudioFileAudioGenerator::waitForDiskThread();
        head_->sampleTime = c.from;
        for (int block = 0; block < 250; ++block) {
            const std::int64_t first = head_->sampleTime;
            ASSERT_EQ(firstWrongFrame(renderBlock(), first), -1) << "block at " << first;
        }
    }
}

// A playhead outside the ring plays silence, never a wait, until the loads it
// posted are in; a load that finishes for a place the ring has left is never
// heard.
TEST_F(KROAudioFileAudioGeneratorTest, AMissPlaysSilenceAndAStaleLoadIsNeverHeard) {
    build({});
    GatedWAVEContent::entered = 0;
    GatedWAVEContent::allow(0);
    head_->sampleTime = 60000;
    head_->renderBlock();
    EXPECT_EQ(head_->buffer->magnitude(), 0.0f);
    // The disk thread now reads for buffer 0 at 12000; the ring moves on.
    GatedWAVEContent::waitForReads(1);
    head_->sampleTime = 200000;
    head_->renderBlock();
    EXPECT_EQ(head_->buffer->magnitude(), 0.0f);
    EXPECT_EQ(generator_->playbackBufferForRole(Buffer::current)->range().location, 200000u);
    // That read ends and lands in buffer 0, which stands for 152000 by now.
    GatedWAVEContent::allow(1);
    GatedWAVEContent::waitForReads(2);
    head_->sampleTime = 152000;
    head_->renderBlock();
    EXPECT_EQ(head_->buffer->magnitude(), 0.0f);
    GatedWAVEContent::allow(-1);
    KROAudioFileAudioGenerator::waitForDiskThread();
    head_->sampleTime = 200512;
    EXPECT_EQ(firstWrongFrame(renderBlock(), 200512), -1);
}

// A forward jump of the conductor is foreseen: the buffer loaded after the
// one that holds the landmark starts at the jump's target, so the playhead
// lands in loaded audio and not a frame is silent.
TEST_F(KROAudioFileAudioGeneratorTest, AJumpLandsOnAudioLoadedBeforeIt) {
    auto conductor = std::make_shared<KROConductorAudioProcessor>();
    ASSERT_TRUE(conductor->init());
    build({conductor});
    generator_->setConductor(conductor.get());
    auto landmark = std::make_shared<KROConductorLandmark>();
    landmark->setLocation(3.5);
    landmark->setJumpWhenForward(true);
    landmark->setJumpLocation(1.0);
    conductor->insertObjectInLandmarksAtIndex(landmark, 0);
    conductor->setLocation(100000.0 / 48000.0);
    generator_->prepareForPlaybackFromFrame(100000);
    KROAudioFileAudioGenerator::waitForDiskThread();
    conductor->start();
    std::int64_t playhead = 100000;
    bool jumped = false;
    for (int block = 0; block < 200; ++block) {
        // Once the buffer after the landmark's is laid out, the disk stops:
        // only what was foreseen can play.
        if (playhead > 150000 && !jumped) {
            GatedWAVEContent::allow(0);
        }
        const KROAudioBufferList& out =
            GatedWAVEContent::permits == 0 ? head_->renderBlock() : renderBlock();
        for (std::uint64_t frame = 0; frame < out.frames(); ++frame, ++playhead) {
            if (playhead == 168000) {
                playhead = 48000;
                jumped = true;
            }
            ASSERT_EQ(out.channel(0)[frame], signatureSample(playhead, 0)) << "at " << playhead;
        }
    }
    EXPECT_TRUE(jumped);
    GatedWAVEContent::allow(-1);
}

// An offline render reads the file itself, needs no ring laid out, and fades
// nothing; the block in which a real-time transport starts is faded in.
TEST_F(KROAudioFileAudioGeneratorTest, OfflineReadsDirectlyAndRealTimeFadesInItsFirstBlock) {
    generator_->setAntiClickOnStart(true);
    build({});
    head_->info()->setRealtime(false);
    head_->sampleTime = 123456;
    EXPECT_EQ(firstWrongFrame(head_->renderBlock(), 123456), -1);

    head_->info()->setRealtime(true);
    head_->info()->setRunning(false);
    generator_->render(*head_->buffer, *generator_->outputBus(), *head_->info());
    head_->info()->setRunning(true);
    generator_->prepareForPlaybackFromFrame(0);
    head_->sampleTime = 0;
    const KROAudioBufferList& faded = renderBlock();
    for (std::uint64_t frame = 0; frame < 512; frame += 37) {
        EXPECT_FLOAT_EQ(faded.channel(0)[frame], signatureSample(frame, 0) * float(frame) / 512.0f);
    }
}

// A file of another channel count than the graph's is refused with code 1.
TEST_F(KROAudioFileAudioGeneratorTest, AnotherChannelCountIsRefused) {
    head_->channels = 1;
    buildChain(stream_, {generator_, head_});
    KROErrorPtr error;
    EXPECT_FALSE(stream_.initialize(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROAudioFileAudioGeneratorError");
    EXPECT_EQ(error->code(), 1);
}
