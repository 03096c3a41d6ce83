// A file played to a JACK device through a transport while the disk is slow:
// the render thread never waits for it and never plays the wrong frames.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <thread>

#include "../streaming/KROStreamingTestSupport.h"
#include "KROAllocationGuard.h"
#include "KROAudioFileAudioGenerator.h"
#include "KROConductorAudioProcessor.h"
#include "KROJACKServerTest.h"

namespace {

// Reads that take 0.2 s, and every fifth 1.5 s: slower than the audio at
// times, so that the ring runs dry.
class SlowWAVEContent : public KROAudioFileWAVEContent {
public:
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame, KROErrorPtr* error) override {
        const bool stall = ++reads_ % 5 == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(stall ? 1500 : 200));
        return KROAudioFileWAVEContent::getAudio(buffer, frame, error);
    }

private:
    int reads_ = 0;
};

// Sorts every frame that reaches the head: the file's own sample at the
// transport's position, silence, or anything else. Each pull runs under the
// allocation guard.
class PlaybackJudge : public KROAudioBusObserver {
public:
    explicit PlaybackJudge(const KROConductorAudioProcessor& conductor) : conductor_(conductor) {}

    void willRender(KROAudioBufferList&, KROAudioBus&, KROAudioStreamRenderInfo&) override {
        guard_.emplace();
    }
    void didRender(KROAudioBufferList& buffer, KROAudioBus&, KROAudioStreamRenderInfo&) override {
        allocations += guard_->count();
        guard_.reset();
        const std::int64_t first = conductor_.currentSampleFrame() - std::int64_t(buffer.frames());
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            const float left = buffer.channel(0)[frame];
            const float right = buffer.channel(1)[frame];
            if (left == 0.0f && right == 0.0f) {
                ++silent;
            } else if (left == signatureSample(first + std::int64_t(frame), 0) &&
                       right == signatureSample(first + std::int64_t(frame), 1)) {
                ++played;
            } else {
                ++wrong;
            }
        }
    }

    std::atomic<std::uint64_t> played{0}, silent{0}, wrong{0}, allocations{0};

private:
    const KROConductorAudioProcessor& conductor_;
    std::optional<KROAllocationGuard> guard_;
};

// file -> transport -> the device head.
constexpr const char* kDescription = R"(<plist><dict>
<key>processors</key><array>
  <dict><key>class</key><string>KROHardwareAudioProcessor</string>
    <key>identifier</key><string>output</string><key>isRenderHead</key><true/></dict>
  <dict><key>class</key><string>KROConductorAudioProcessor</string>
    <key>identifier</key><string>transport</string></dict>
  <dict><key>class</key><string>KROAudioFileAudioGenerator</string>
    <key>identifier</key><string>file</string></dict></array>
<key>connections</key><array>
  <dict><key>input</key><string>file</string><key>output</key><string>transport</string></dict>
  <dict><key>input</key><string>transport</string><key>output</key><string>output</string></dict>
</array></dict></plist>)";

// Seconds of playing: KRO_PLAYBACK_TEST_SECONDS, 6 unless set (30 for the
// long run).
int playingSeconds() {
    const char* text = std::getenv("KRO_PLAYBACK_TEST_SECONDS");
    return text ? std::max(1, std::atoi(text)) : 6;
}

class KROAudioFileAudioGeneratorOnJACK : public KROJACKServerTest {};

} // namespace

TEST_F(KROAudioFileAudioGeneratorOnJACK, ASlowDiskGivesSilenceNeverTheWrongFrames) {
    const int seconds = playingSeconds();
    KROScratchDirectory directory;
    writeSignatureFile(directory / "take.wav", 2, std::uint64_t(seconds + 2) * 48000);
    auto content = std::make_shared<SlowWAVEContent>();
    content->setURL(directory / "take.wav");
    ASSERT_TRUE(content->parse());
    auto reader = std::make_shared<KROAudioFileReader>();
    reader->initWithFileContent(content);

    const auto description = KROPropertyList::fromData(kDescription, std::strlen(kDescription));
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(description && stream.initWithDescription(*description, &error));
    const auto file = kro_graph_test::processorOf<KROAudioFileAudioGenerator>(stream, "file");
    const auto transport =
        kro_graph_test::processorOf<KROConductorAudioProcessor>(stream, "transport");
    file->setAudioFile(reader);
    file->setConductor(transport.get());
    PlaybackJudge judge(*transport);
    stream.renderHeadProcessor()->inputBus()->addPreRenderTarget(&judge);
    stream.renderHeadProcessor()->inputBus()->addPostRenderTarget(&judge);
    ASSERT_TRUE(stream.initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(stream.start(&error)) << (error ? error->description() : "");
    file->prepareForPlaybackFromFrame(0);
    transport->start();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    ASSERT_TRUE(stream.stop(&error));
    stream.uninitialize();

    const std::uint64_t total = judge.played + judge.silent + judge.wrong;
    std::cout << "slow disk on JACK, " << seconds << " s: " << judge.played << " frames played, "
              << judge.silent << " silent, " << judge.wrong << " wrong\n";
    EXPECT_EQ(judge.wrong.load(), 0u);
    EXPECT_EQ(judge.allocations.load(), 0u);
    EXPECT_GT(judge.silent.load(), 0u) << "the disk was never too slow";
    EXPECT_GT(judge.played.load(), total / 3);
}
