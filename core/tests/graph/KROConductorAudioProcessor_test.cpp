// The conductor: blocks cut at landmarks to the frame, the delegate, the clock
// upstream. The source writes each frame's sample time, so the head shows the order.
#include <gtest/gtest.h>

#include <limits>

#include "KROAllocationGuard.h"
#include "KROConductorAudioProcessor.h"
#include "KROShapingTestSupport.h"

using namespace kro_shaping_test;

namespace {

constexpr double kRate = 48000.0;

// Writes sampleTime + i into frame i; keeps what the last pull saw.
class KROTestClock : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestClock)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            buffer.setValue(float(info.sampleTime() + std::int64_t(frame)), frame);
        }
        lastSampleTime = info.sampleTime();
        lastReverse = info.isReverse();
    }
    std::int64_t lastSampleTime = -1;
    bool lastReverse = false;
};

class ActionLandmark : public KROConductorLandmark {
public:
    void action() override { ++calls; }
    bool hasAction() const override { return true; }
    static inline int calls = 0;
};

class Delegate : public KROConductorDelegate {
public:
    void conductorDidStop(KROConductorAudioProcessor& /*conductor*/) override { ++stops; }
    int stops = 0;
};

enum Flags { stop = 1, jump = 2, turn = 4, disabled = 8, action = 16 };

// A landmark at a frame, for forward motion, jumping to jumpTo.
struct Mark {
    double frame;
    int flags;
    double jumpTo = 0;
};

// head (one channel, 512 frames) <- conductor <- clock.
struct Transport {
    explicit Transport(const std::vector<Mark>& marks = {})
        : graph(kro_shaping_test::graph(
              {entry("KROConductorAudioProcessor", "conductor"), entry("KROTestClock", "clock")},
              {}, 1, 512)),
          head(graph.head), conductor(graph.get<KROConductorAudioProcessor>("conductor")),
          clock(graph.get<KROTestClock>("clock")) {
        conductor->setDelegate(&delegate);
        for (const Mark& mark : marks) {
            auto landmark = mark.flags & action ? std::make_shared<ActionLandmark>()
                                                : KROConductorLandmark::landmark();
            landmark->setLocation(mark.frame / kRate);
            landmark->setStopWhenForward(mark.flags & stop);
            landmark->setJumpWhenForward(mark.flags & jump);
            landmark->setJumpLocation(mark.jumpTo / kRate);
            landmark->setReverseDirectionWhenForward(mark.flags & turn);
            landmark->setEnabled(!(mark.flags & disabled));
            conductor->insertObjectInLandmarksAtIndex(landmark, conductor->countOfLandmarks());
        }
    }

    Graph graph;
    Delegate delegate;
    std::shared_ptr<KROTestHead> head;
    std::shared_ptr<KROConductorAudioProcessor> conductor;
    std::shared_ptr<KROTestClock> clock;
};

// Runs of frame numbers counting up (step 1), down (-1), or silence (0).
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

} // namespace

TEST(KROConductorAudioProcessor, BlocksAreCutAtLandmarksExactToTheFrame) {
    constexpr double never = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* what;
        std::int64_t from;
        bool reverse;
        // 0: standing, 1: start(), 2: setRunning(true), which the render
        // info upstream does not learn of.
        int start;
        std::uint64_t frames;
        std::vector<Mark> marks;
        std::vector<float> samples;
        std::int64_t playhead;
        bool running;
        int stops;
        std::int64_t lastSampleTime;
        bool lastReverse;
    };
    // clang-format off
    const Case cases[] = {
        // what, from, reverse, start, frames, landmarks, samples,
        // playhead, running, stops, the last pull's sample time and direction
        {"a stop ends the block at its frame", 0, false, 1, 512, {{100, stop}},
         played({{0, 100, 1}, {0, 412, 0}}), 100, false, 1, 0, false},
        {"a stop under the playhead never fires", 100, false, 1, 512, {{100, stop}},
         played({{100, 512, 1}}), 612, true, 0, 100, false},
        {"stop beats jump", 0, false, 1, 512, {{100, stop | jump, 300}},
         played({{0, 100, 1}, {0, 412, 0}}), 100, false, 1, 0, false},
        {"a landmark on the block's end fires in it", 0, false, 1, 512, {{512, stop}},
         played({{0, 512, 1}}), 512, false, 1, 0, false},
        {"of two landmarks at one frame the later acts", 0, false, 1, 512,
         {{300, stop}, {300, jump, 50}},
         played({{0, 300, 1}, {50, 212, 1}}), 262, true, 0, 50, false},
        {"a jump loops inside the block", 900, false, 1, 512, {{1000, jump, 100}},
         played({{900, 100, 1}, {100, 412, 1}}), 512, true, 0, 100, false},
        {"a jump back to where the piece began stops", 0, false, 1, 512, {{100, jump, 0}},
         played({{0, 100, 1}, {0, 412, 0}}), 0, false, 1, 0, false},
        {"a turn plays the rest backward from its lowest frame", 0, false, 1, 512, {{200, turn}},
         played({{0, 200, 1}, {199, 312, -1}}), -112, true, 0, -112, true},
        {"a disabled landmark does nothing", 0, false, 1, 512, {{100, stop | disabled}},
         played({{0, 512, 1}}), 512, true, 0, 0, false},
        {"a forward landmark is passed in reverse", 600, true, 1, 512, {{300, stop}},
         played({{599, 512, -1}}), 88, true, 0, 88, true},
        {"reverse motion goes on below frame 0", 100, true, 1, 512, {},
         played({{99, 512, -1}}), -412, true, 0, -412, true},
        {"a nearer action hides a turn and does not cut", 0, false, 1, 512,
         {{250, turn}, {100, action}},
         played({{0, 512, 1}}), 512, true, 0, 0, false},
        {"landmarks at no frame are passed", 0, false, 1, 512,
         {{1e300, stop}, {-1e300, stop}, {never, stop}},
         played({{0, 512, 1}}), 512, true, 0, 0, false},
        {"a request of no frames stops", 0, false, 1, 0, {},
         {}, 0, false, 1, -1, false},
        {"a stop does not stop a transport set running by plain access", 0, false, 2, 512, {{100, stop}},
         played({{0, 100, 1}, {0, 412, 0}}), 100, true, 0, 0, false},
        {"a standing transport still pulls at its own time", 0, false, 0, 512, {{100, stop}},
         played({{0, 512, 1}}), 0, false, 0, 0, false},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Transport transport(c.marks);
        transport.conductor->setLocation(double(c.from) / kRate);
        transport.conductor->setReverse(c.reverse);
        if (c.start == 1) {
            transport.conductor->start();
        }
        transport.conductor->setRunning(c.start != 0);
        KRO_EXPECT_NO_ALLOCATION(transport.head->renderBlock(c.frames));
        const float* samples = transport.head->buffer->channel(0);
        EXPECT_EQ(std::vector<float>(samples, samples + c.frames), c.samples);
        EXPECT_EQ(transport.conductor->currentSampleFrame(), c.playhead);
        EXPECT_EQ(transport.conductor->isRunning(), c.running);
        EXPECT_EQ(transport.delegate.stops, c.stops);
        EXPECT_EQ(transport.clock->lastSampleTime, c.lastSampleTime);
        EXPECT_EQ(transport.clock->lastReverse, c.lastReverse);
    }
    // The action came once, at the end of its piece.
    EXPECT_EQ(ActionLandmark::calls, 1);
}

TEST(KROConductorAudioProcessor, ANewSampleRateKeepsThePositionInSeconds) {
    Transport transport;
    transport.conductor->setLocation(1.5);
    transport.graph.stream->uninitialize();
    transport.head->sampleRate = 44100.0;
    ASSERT_TRUE(transport.graph.stream->initialize());
    EXPECT_EQ(transport.conductor->currentSampleFrame(), 66150);
    EXPECT_DOUBLE_EQ(transport.conductor->location(), 1.5);
}

KRO_REGISTER_CLASS(KROTestClock, KROAudioGenerator)
