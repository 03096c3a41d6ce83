// The recorder: the file holds what passed, rendering never waits, a failing disk stops it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "KROAllocationGuard.h"
#include "KROAudioFileAudioGenerator.h"
#include "KROAudioStreamBasicDescription.h"
#include "KRODiskThreads.h"
#include "KROErrorFamilies.h"
#include "KROLog.h"
#include "KROStreamWriterAudioProcessor.h"
#include "KROStreamingTestSupport.h"
#include "KROWaveform.h"

namespace {

constexpr std::uint64_t kCapacity = 144128; // three seconds at 48 kHz, in whole entries

// Counts the writes.
class WriteCounter : public KROStreamWriterAudioProcessorDelegate {
public:
    void streamWriterDidWrite(KROStreamWriterAudioProcessor&) override { ++writes; }
    std::atomic<std::uint64_t> writes{0};
};

// Seconds of recording: KRO_RECORDING_TEST_SECONDS, 20 unless set (600 for
// the ten-minute run).
std::uint64_t recordingSeconds() {
    const char* text = std::getenv("KRO_RECORDING_TEST_SECONDS");
    return text ? std::uint64_t(std::max(1, std::atoi(text))) : 20;
}

class KROStreamWriterTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeSignatureFile(directory_ / "source.wav", 2, 48000 * 4);
        auto file = made<KROAudioFileAudioGenerator>();
        file->setAudioFile(KROAudioFileReader::readerWithURL(directory_ / "source.wav"));
        writer_ = made<KROStreamWriterAudioProcessor>();
        KROPropertyList settings = KROPropertyList::dictionary();
        settings.setObjectForKey("baseDirectory", directory_.path().string());
        settings.setObjectForKey("baseFilename", "take");
        settings.setObjectForKey("format", "WAVE File");
        settings.setObjectForKey("encoding", double(kAudioFormatLinearPCM));
        settings.setObjectForKey("waveformClasses", KROPropertyList::Array{"KROMinMaxWaveform"});
        ASSERT_TRUE(writer_->setSettings(settings));
        writer_->setDelegate(&counter_);
        head_ = made<KROTestHead>();
        head_->maxFrames = 1000;
        head_->info()->setRunning(true);
        head_->info()->setRealtime(false);
        buildChain(stream_, {file, writer_, head_});
        ASSERT_TRUE(stream_.initialize());
        // The file player's read cache is made by its first offline read.
        head_->renderBlock();
        head_->sampleTime = 0;
    }

    // A block of the source, which loops every four seconds; under the guard.
    void renderBlock(std::uint64_t frames = 1000) {
        head_->sampleTime %= 48000 * 4;
        std::size_t allocations = 0;
        {
            const KROAllocationGuard guard;
            head_->renderBlock(frames);
            allocations = guard.count();
        }
        ASSERT_EQ(allocations, 0u);
        pushed_ += frames;
    }

    KROScratchDirectory directory_;
    std::shared_ptr<KROStreamWriterAudioProcessor> writer_;
    std::shared_ptr<KROTestHead> head_;
    KROAudioStream stream_;
    WriteCounter counter_;
    std::uint64_t pushed_ = 0;
};

} // namespace

// A long recording at the pace of a disk that keeps up: the file holds every
// frame that passed, and each side file holds the table of its channel, one
// entry per 256 frames with a short last one.
TEST_F(KROStreamWriterTest, TheFileHoldsEveryFrameThatPassed) {
    ASSERT_TRUE(writer_->startWriting());
    const std::uint64_t frames = recordingSeconds() * 48000 + 1000;
    while (pushed_ < frames) {
        // The clock of the graph waits for the disk; the render thread never does.
        while ((pushed_ + 1000) / kCapacity > counter_.writes + 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        renderBlock();
    }
    ASSERT_TRUE(writer_->stopWriting());
    EXPECT_TRUE(writer_->stopWriting());
    EXPECT_EQ(writer_->framesDropped(), 0u);
    EXPECT_EQ(writer_->framesWritten(), frames);
    EXPECT_EQ(writer_->resultURL(), directory_ / "take.wav");
    const auto samples = libsndfileSamples(directory_ / "take.wav");
    ASSERT_EQ(samples.size(), 2 * frames);
    for (std::uint64_t i = 0; i < samples.size(); ++i) {
        const auto frame = std::int64_t(i / 2 % (48000 * 4));
        ASSERT_EQ(samples[i], signatureSample(frame, std::uint32_t(i % 2))) << i;
    }
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        std::vector<float> channelSamples(frames);
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            channelSamples[frame] = samples[2 * frame + channel];
        }
        KROMinMaxWaveform whole;
        whole.buildFromSamples(channelSamples.data(), frames);
        EXPECT_EQ(KROReadTestFile(writer_->waveformURLForClassName("KROMinMaxWaveform", channel)),
                  whole.table());
    }
}

// With the disk stuck, the render thread goes on at once and drops what finds
// both buffers full; what was kept reaches the file once the disk moves.
TEST_F(KROStreamWriterTest, AStuckDiskDropsBlocksAndNeverStopsTheRenderThread) {
    ASSERT_TRUE(writer_->startWriting());
    std::mutex stuck;
    std::unique_lock hold(stuck);
    KRODiskThreads::recording()->async([&] { const std::lock_guard wait(stuck); });
    const auto start = std::chrono::steady_clock::now();
    for (int block = 0; block < 400; ++block) {
        renderBlock();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(writer_->framesDropped(), 400000u - 2 * kCapacity);
    // stopWriting holds the lock while it waits for the stuck disk; a block
    // meanwhile finds the lock taken and is dropped at once.
    bool stopped = false;
    std::thread stopper([&] { stopped = writer_->stopWriting(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto blocked = std::chrono::steady_clock::now();
    renderBlock();
    EXPECT_LT(std::chrono::steady_clock::now() - blocked, std::chrono::milliseconds(50));
    hold.unlock();
    stopper.join();
    ASSERT_TRUE(stopped);
    EXPECT_EQ(libsndfileSamples(directory_ / "take.wav").size(), 2 * 2 * kCapacity);
}

// Refusals at the start, and a side file that vanishes mid-recording: the
// recording stops with a log line and what was written before stays.
TEST_F(KROStreamWriterTest, FailuresStopTheRecordingWithAReason) {
    KROErrorPtr error;
    writer_->setFormat("Tape");
    EXPECT_FALSE(writer_->startWriting(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROStreamWriterAudioProcessorError");
    EXPECT_EQ(error->code(), 1);
    writer_->setFormat("WAVE File");
    writer_->setBaseDirectory(directory_ / "missing");
    error.reset();
    EXPECT_FALSE(writer_->startWriting(&error));
    EXPECT_FALSE(error);
    writer_->setBaseDirectory(directory_.path());

    std::vector<std::string> lines;
    KROSetLogSink([&](const std::string& line) { lines.push_back(line); });
    ASSERT_TRUE(writer_->startWriting());
    for (int block = 0; block < 150; ++block) {
        renderBlock();
    }
    KROAudioFileAudioGenerator::waitForDiskThread();
    while (counter_.writes < 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::filesystem::remove(directory_ / "take.01.KROMinMaxWaveform");
    for (int block = 0; block < 150; ++block) {
        renderBlock();
    }
    for (int wait = 0; wait < 2000 && writer_->isWriting(); ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    KROSetLogSink({});
    EXPECT_FALSE(writer_->isWriting());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("KROStreamWriterAudioProcessor stopped writing due to error: ", 0), 0u)
        << lines[0];
    EXPECT_EQ(writer_->framesWritten(), 2 * kCapacity);
    EXPECT_TRUE(writer_->stopWriting());
}
