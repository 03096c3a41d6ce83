// The hinge's latency measured with impulses on a private JACK server.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <map>
#include <thread>

#include "KROAudioBufferList.h"
#include "KROAudioBus.h"
#include "KROAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"
#include "KROHingeAudioProcessor.h"
#include "KROJACKServerTest.h"

namespace {

constexpr std::int64_t kImpulseSpacing = 4800;

// 1.0 on channel 0 wherever the clock is a multiple of the spacing.
class KROTestImpulseTrain : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestImpulseTrain)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        buffer.clear();
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            const bool impulse = (info.sampleTime() + std::int64_t(frame)) % kImpulseSpacing == 0;
            buffer.setValue(impulse ? 1.0f : 0.0f, frame);
        }
    }
};

// The clock of every impulse that reaches the head.
class ArrivalObserver : public KROAudioBusObserver {
public:
    void willRender(KROAudioBufferList&, KROAudioBus&, KROAudioStreamRenderInfo&) override {}
    void didRender(KROAudioBufferList& buffer, KROAudioBus& /*bus*/,
                   KROAudioStreamRenderInfo& info) override {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            const std::size_t at = count.load();
            if (buffer.valueAtFrame(frame) != 0.0f && at < arrivals.size()) {
                arrivals[at] = info.sampleTime() + std::int64_t(frame);
                count.store(at + 1);
            }
        }
    }

    std::array<std::int64_t, 256> arrivals{};
    std::atomic<std::size_t> count{0};
};

// impulses -> hinge -> the device head.
constexpr const char* kDescription = R"(<plist><dict>
<key>processors</key><array>
  <dict><key>class</key><string>KROHardwareAudioProcessor</string>
    <key>identifier</key><string>output</string><key>isRenderHead</key><true/></dict>
  <dict><key>class</key><string>KROHingeAudioProcessor</string>
    <key>identifier</key><string>hinge</string></dict>
  <dict><key>class</key><string>KROTestImpulseTrain</string>
    <key>identifier</key><string>impulses</string></dict></array>
<key>connections</key><array>
  <dict><key>input</key><string>impulses</string><key>output</key><string>hinge</string></dict>
  <dict><key>input</key><string>hinge</string><key>output</key><string>output</string></dict>
</array></dict></plist>)";

class KROHingeAudioProcessorOnJACK : public KROJACKServerTest {
protected:
    void SetUp() override {
        alarm(watchdogSeconds);
        // Blocks of 512, at which the ring of two blocks holds 512 frames exactly.
        ASSERT_TRUE(server_.start(512)) << "jackd did not start";
    }
};

} // namespace

TEST_F(KROHingeAudioProcessorOnJACK, TheHingeDeliversImpulses512FramesLateAtTheDeviceHead) {
    const auto description = KROPropertyList::fromData(kDescription, std::strlen(kDescription));
    ASSERT_NE(description, nullptr);
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(*description, &error));
    ArrivalObserver observer;
    stream.renderHeadProcessor()->inputBus()->addPostRenderTarget(&observer);
    ASSERT_TRUE(stream.initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(stream.start(&error)) << (error ? error->description() : "");
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_TRUE(stream.stop(&error));

    // Delays past the multiple; blocks the worker missed are counted apart.
    std::map<std::int64_t, int> delays;
    for (std::size_t i = 0; i < observer.count.load(); ++i) {
        ++delays[observer.arrivals[i] % kImpulseSpacing];
    }
    for (const auto& [delay, count] : delays) {
        std::cout << "hinge on JACK: " << count << " impulses " << delay << " frames late\n";
    }
    const auto hinge =
        std::dynamic_pointer_cast<KROHingeAudioProcessor>(stream.processorWithIdentifier("hinge"));
    EXPECT_EQ(hinge->latency(), 512u);
    EXPECT_GT(observer.count.load(), 10u);
    EXPECT_GE(delays[512], int(observer.count.load() * 8 / 10));
}

KRO_REGISTER_CLASS(KROTestImpulseTrain, KROAudioGenerator)
