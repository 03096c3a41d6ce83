// The conductor: blocks cut at landmarks exact to the frame, stops, jumps
// and turns, the delegate told once, and the clock that upstream sees. The
// source writes each frame's own sample time, so the head's buffer shows
// which frames were played and in which order.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>

#include "KROAllocationGuard.h"
#include "KROConductorAudioProcessor.h"
#include "KROGraphTestClasses.h"

using namespace kro_graph_test;

namespace {

constexpr double kRate = 48000.0;

// Writes sampleTime + i into frame i, and notes what each pull saw.
class KROTestClock : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestClock)

public:
    struct Pull {
        std::int64_t sampleTime;
        std::uint64_t frames;
        bool reverse;
        bool running;
    };

    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            buffer.setValue(static_cast<float>(info.sampleTime() + std::int64_t(frame)), frame);
        }
        if (count < pulls.size()) {
            pulls[count++] = {info.sampleTime(), buffer.frames(), info.isReverse(),
                              info.isRunning()};
        }
    }

    std::array<Pull, 8> pulls{};
    std::size_t count = 0;
};

class KROTestActionLandmark : public KROConductorLandmark {
public:
    void action() override { ++actions; }
    bool hasAction() const override { return true; }
    int actions = 0;
};

class Delegate : public KROConductorDelegate {
public:
    void conductorDidStop(KROConductorAudioProcessor& /*conductor*/) override { ++stops; }
    int stops = 0;
};

// head (one channel, 512 frames) <- conductor <- clock.
struct Transport {
    Transport() {
        KROPropertyList head = entry("KROTestHead", "head");
        head.setObjectForKey("isRenderHead", true);
        head.setObjectForKey("channels", 1);
        head.setObjectForKey("frames", 512);
        EXPECT_TRUE(stream.initWithDescription(description(
            {head, entry("KROConductorAudioProcessor", "conductor"),
             entry("KROTestClock", "clock")},
            {connection("in", "clock", "conductor"), connection("out", "conductor", "head")})));
        EXPECT_TRUE(stream.initialize());
        this->head = processorOf<KROTestHead>(stream, "head");
        conductor = processorOf<KROConductorAudioProcessor>(stream, "conductor");
        clock = processorOf<KROTestClock>(stream, "clock");
        conductor->setDelegate(&delegate);
    }

    std::shared_ptr<KROConductorLandmark>
    add(double frame, const std::function<void(KROConductorLandmark&)>& flags,
        std::shared_ptr<KROConductorLandmark> landmark = KROConductorLandmark::landmark()) {
        landmark->setLocation(frame / kRate);
        flags(*landmark);
        conductor->insertObjectInLandmarksAtIndex(landmark, conductor->countOfLandmarks());
        return landmark;
    }

    KROAudioStream stream;
    Delegate delegate;
    std::shared_ptr<KROTestHead> head;
    std::shared_ptr<KROConductorAudioProcessor> conductor;
    std::shared_ptr<KROTestClock> clock;
};

// Frames of the head's buffer: runs of frame numbers, counting up (step 1),
// down (-1), or silence (step 0).
struct Run {
    float first;
    int count;
    int step;
};

std::vector<float> played(std::initializer_list<Run> runs) {
    std::vector<float> samples;
    for (const Run& run : runs) {
        for (int i = 0; i < run.count; ++i) {
            samples.push_back(run.step == 0 ? 0.0f : run.first + float(i * run.step));
        }
    }
    return samples;
}

std::vector<float> samplesOf(const KROAudioBufferList& buffer) {
    return {buffer.channel(0), buffer.channel(0) + buffer.frames()};
}

const auto stopForward = [](KROConductorLandmark& l) { l.setStopWhenForward(true); };
const auto jumpForwardTo = [](double frame) {
    return [frame](KROConductorLandmark& l) {
        l.setJumpWhenForward(true);
        l.setJumpLocation(frame / kRate);
    };
};

} // namespace

TEST(KROConductorAudioProcessor, BlocksAreCutAtLandmarksExactToTheFrame) {
    struct Case {
        const char* what;
        std::function<void(Transport&)> setUp;
        std::vector<float> samples;
        std::int64_t playhead;
        bool running;
        int stops;
    };
    const Case cases[] = {
        {"a stop landmark ends the block at its frame",
         [](Transport& t) { t.add(100, stopForward); }, played({{0, 100, 1}, {0, 412, 0}}), 100,
         false, 1},
        {"a landmark on the block's last boundary fires in this block",
         [](Transport& t) { t.add(512, stopForward); }, played({{0, 512, 1}}), 512, false, 1},
        {"of two landmarks at one frame the later acts",
         [](Transport& t) {
             t.add(300, stopForward);
             t.add(300, jumpForwardTo(50));
         },
         played({{0, 300, 1}, {50, 212, 1}}), 262, true, 0},
        {"a jump loops inside the block",
         [](Transport& t) {
             t.conductor->setLocation(900 / kRate);
             t.add(1000, jumpForwardTo(100));
         },
         played({{900, 100, 1}, {100, 412, 1}}), 512, true, 0},
        {"a jump back to where the piece began stops",
         [](Transport& t) { t.add(100, jumpForwardTo(0)); }, played({{0, 100, 1}, {0, 412, 0}}), 0,
         false, 1},
        {"a reverse landmark turns the playhead round",
         [](Transport& t) {
             t.add(200, [](KROConductorLandmark& l) { l.setReverseDirectionWhenForward(true); });
         },
         played({{0, 200, 1}, {199, 312, -1}}), -112, true, 0},
        {"a disabled landmark does nothing",
         [](Transport& t) { t.add(100, stopForward)->setEnabled(false); }, played({{0, 512, 1}}),
         512, true, 0},
        {"a forward landmark is passed in reverse",
         [](Transport& t) {
             t.conductor->setLocation(600 / kRate);
             t.conductor->setReverse(true);
             t.add(300, stopForward);
         },
         played({{599, 512, -1}}), 88, true, 0},
        {"reverse motion goes on below frame 0",
         [](Transport& t) {
             t.conductor->setLocation(100 / kRate);
             t.conductor->setReverse(true);
         },
         played({{99, 512, -1}}), -412, true, 0},
        {"an action does not cut the block",
         [](Transport& t) {
             t.add(
                 100, [](KROConductorLandmark&) {}, std::make_shared<KROTestActionLandmark>());
         },
         played({{0, 512, 1}}), 512, true, 0},
        {"landmarks beyond any frame, or at none, are passed",
         [](Transport& t) {
             for (const double seconds :
                  {1e300, -1e300, std::numeric_limits<double>::quiet_NaN()}) {
                 t.add(seconds * kRate, stopForward);
             }
         },
         played({{0, 512, 1}}), 512, true, 0},
        {"a request of no frames stops the transport",
         [](Transport& t) { t.head->buffer->setFrames(0); },
         {},
         0,
         false,
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Transport transport;
        c.setUp(transport);
        transport.conductor->start();
        KRO_EXPECT_NO_ALLOCATION(transport.head->renderBlock());
        EXPECT_EQ(samplesOf(*transport.head->buffer), c.samples);
        EXPECT_EQ(transport.conductor->currentSampleFrame(), c.playhead);
        EXPECT_EQ(transport.conductor->isRunning(), c.running);
        EXPECT_EQ(transport.delegate.stops, c.stops);
    }
}

TEST(KROConductorAudioProcessor, UpstreamSeesEachPieceFromItsLowestFrameWithItsDirection) {
    const auto turn = [](KROConductorLandmark& l) { l.setReverseDirectionWhenForward(true); };
    Transport transport;
    transport.add(200, turn);
    transport.conductor->start();
    transport.head->renderBlock();
    ASSERT_EQ(transport.clock->count, 2u);
    const auto& pulls = transport.clock->pulls;
    EXPECT_EQ(pulls[0].sampleTime, 0);
    EXPECT_EQ(pulls[0].frames, 200u);
    EXPECT_FALSE(pulls[0].reverse);
    EXPECT_EQ(pulls[1].sampleTime, -112);
    EXPECT_EQ(pulls[1].frames, 312u);
    EXPECT_TRUE(pulls[1].reverse);
    EXPECT_TRUE(pulls[1].running);

    // A nearer landmark with only an action hides a turn further on in the
    // same block, and acts once, at the end of the piece.
    Transport hidden;
    auto action = std::make_shared<KROTestActionLandmark>();
    hidden.add(250, turn);
    hidden.add(
        100, [](KROConductorLandmark&) {}, action);
    hidden.conductor->start();
    hidden.head->renderBlock();
    EXPECT_EQ(action->actions, 1);
    EXPECT_EQ(hidden.clock->count, 1u);
    EXPECT_FALSE(hidden.conductor->isReverse());
}

TEST(KROConductorAudioProcessor, AStoppedTransportStillPullsAndStartingGoesOnPastTheStop) {
    Transport transport;
    transport.add(100, stopForward);
    // Standing: upstream renders into the head's buffer at the conductor's
    // time, told that the transport stands.
    transport.head->renderBlock();
    EXPECT_EQ(samplesOf(*transport.head->buffer), played({{0, 512, 1}}));
    EXPECT_FALSE(transport.clock->pulls[0].running);
    transport.conductor->start();
    transport.head->renderBlock();
    EXPECT_DOUBLE_EQ(transport.conductor->location(), 100 / kRate);
    // A landmark at the playhead never fires: playback goes on from a stop.
    transport.conductor->start();
    transport.head->renderBlock();
    EXPECT_EQ(samplesOf(*transport.head->buffer), played({{100, 512, 1}}));
    EXPECT_TRUE(transport.clock->pulls[2].running);
    EXPECT_EQ(transport.delegate.stops, 1);
    // stop() does not tell the delegate.
    transport.conductor->stop();
    EXPECT_EQ(transport.delegate.stops, 1);
}

TEST(KROConductorAudioProcessor, ANewSampleRateKeepsThePositionInSeconds) {
    Transport transport;
    transport.conductor->setLocation(1.5);
    transport.stream.uninitialize();
    transport.head->sampleRate = 44100.0;
    ASSERT_TRUE(transport.stream.initialize());
    EXPECT_EQ(transport.conductor->currentSampleFrame(), 66150);
    EXPECT_DOUBLE_EQ(transport.conductor->location(), 1.5);
}

KRO_REGISTER_CLASS(KROTestClock, KROAudioGenerator)
