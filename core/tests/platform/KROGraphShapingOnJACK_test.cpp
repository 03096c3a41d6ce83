// Graph shaping on a private JACK server with the dummy backend: the hinge's
// latency measured with impulses at the device head, and the example that
// mixes two generators through faders on a transport, captured by a second
// client.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <map>
#include <thread>

#include "KROAudioBufferList.h"
#include "KROAudioBus.h"
#include "KROAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROClassRegistry.h"
#include "KROConductorAudioProcessor.h"
#include "KROHingeAudioProcessor.h"
#include "KROJACKServerTest.h"
#include "KROJACKTestCapture.h"
#include "KROOSXHardwareAudioProcessor.h"

namespace {

constexpr std::int64_t kImpulseSpacing = 4800;

// 1.0 wherever the render info's clock is a multiple of the spacing.
class KROTestImpulseTrain : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestImpulseTrain)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        buffer.clear();
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            if ((info.sampleTime() + std::int64_t(frame)) % kImpulseSpacing == 0) {
                for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
                    buffer.setValue(1.0f, frame, channel);
                }
            }
        }
    }
};

// Notes, on the device's thread, the clock of every impulse that reaches
// the head.
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

KROPropertyList processor(const char* className, const char* identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    entry.setObjectForKey("identifier", identifier);
    return entry;
}

KROPropertyList join(const char* from, const char* to) {
    KROPropertyList entry;
    entry.setObjectForKey("input", from);
    entry.setObjectForKey("output", to);
    return entry;
}

// The RMS of x[n] - x[n - 48] over a stretch: a 1000 Hz tone at 48000 Hz
// repeats every 48 frames and cancels, so what remains is the noise.
double noiseBesideTheTone(const std::vector<float>& samples, std::size_t from, std::size_t to) {
    double sum = 0.0;
    for (std::size_t i = from; i < to; ++i) {
        const double difference = double(samples[i]) - samples[i - 48];
        sum += difference * difference;
    }
    return std::sqrt(sum / double(to - from));
}

class KROGraphShapingOnJACK : public KROJACKServerTest {
protected:
    void SetUp() override {
        alarm(watchdogSeconds);
        // Blocks of 512: the one length at which the hinge's ring of two
        // blocks holds its 512 frames exactly.
        ASSERT_TRUE(server_.start(512)) << "jackd did not start";
    }
};

} // namespace

TEST_F(KROGraphShapingOnJACK, TheHingeDeliversImpulses512FramesLateAtTheDeviceHead) {
    KROPropertyList head = processor("KROHardwareAudioProcessor", "output");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList description;
    description.setObjectForKey(
        "processors", KROPropertyList::Array{head, processor("KROHingeAudioProcessor", "hinge"),
                                             processor("KROTestImpulseTrain", "impulses")});
    description.setObjectForKey(
        "connections", KROPropertyList::Array{join("impulses", "hinge"), join("hinge", "output")});
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(description, &error));
    ArrivalObserver observer;
    stream.renderHeadProcessor()->inputBus()->addPostRenderTarget(&observer);
    ASSERT_TRUE(stream.initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(stream.start(&error)) << (error ? error->description() : "");
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_TRUE(stream.stop(&error));

    // The delay of each impulse is where it arrived past its multiple of the
    // spacing. A block that the machine made the worker miss plays what the
    // ring held; such delays are counted apart.
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

TEST_F(KROGraphShapingOnJACK, TheMixingExamplePlaysBothGeneratorsAndFadesTheNoiseInOnItsTransport) {
    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescriptionFile(
        std::filesystem::path(KRO_SOURCE_DIR) / "examples" / "two-generators-mixed.plist", &error))
        << (error ? error->description() : "");
    ASSERT_TRUE(stream.initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(stream.start(&error)) << (error ? error->description() : "");
    KROJACKTestCapture capture(48000 * 5);
    const std::string headPort = KROJACKTestCapture::firstPort("kro-.*-out-.*:out_1");
    ASSERT_FALSE(headPort.empty());
    ASSERT_TRUE(capture.open(headPort));
    const auto transport = std::dynamic_pointer_cast<KROConductorAudioProcessor>(
        stream.processorWithIdentifier("transport"));
    ASSERT_NE(transport, nullptr);
    transport->start();
    std::this_thread::sleep_for(std::chrono::milliseconds(4000));
    const double location = transport->location();
    ASSERT_TRUE(stream.stop(&error));

    const std::vector<float> samples = capture.samples();
    ASSERT_GT(samples.size(), 48000u * 3 + 9600u);
    const double early = noiseBesideTheTone(samples, 2400, 14400);
    const double late = noiseBesideTheTone(samples, 48000 * 3 + 4800, 48000 * 3 + 9600);
    std::cout << "noise beside the tone: " << early << " at first, " << late
              << " after the fade; transport at " << location << " s\n";
    EXPECT_LT(early, late / 10);
    EXPECT_GT(late, 0.01);
    EXPECT_GT(location, 3.0);
}

KRO_REGISTER_CLASS(KROTestImpulseTrain, KROAudioGenerator)
