// The hinge: 512 frames late in real time, at once offline or disabled.
#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KROHingeAudioProcessor.h"
#include "KROShapingTestSupport.h"

using namespace kro_shaping_test;

namespace {

// 1.0 at one absolute frame of the render info's clock, silence elsewhere.
class KROTestImpulse : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestImpulse)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        buffer.clear();
        const std::int64_t at = impulseAt - info.sampleTime();
        if (at >= 0 && static_cast<std::uint64_t>(at) < buffer.frames()) {
            buffer.setValue(1.0f, static_cast<std::uint64_t>(at));
        }
    }

    std::int64_t impulseAt = 700;
};

// head (one channel, 512 frames) <- hinge <- impulse.
Graph hingeGraph() {
    return graph({entry("KROHingeAudioProcessor", "hinge"), entry("KROTestImpulse", "impulse")}, {},
                 1, 512);
}

} // namespace

TEST(KROHingeAudioProcessor, AnImpulseComesOut512FramesLateInRealTimeAndAtOnceOtherwise) {
    struct Case {
        const char* what;
        bool realtime;
        bool enabled;
        std::int64_t arrival;
        std::uint64_t latency;
    };
    const Case cases[] = {
        {"real time", true, true, 700 + 512, 512},
        {"offline", false, true, 700, 0},
        {"disabled in real time", true, false, 700, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Graph hinged = hingeGraph();
        auto hinge = hinged.get<KROHingeAudioProcessor>("hinge");
        hinged.head->info()->setRealtime(c.realtime);
        hinge->setEnabled(c.enabled);
        std::vector<std::int64_t> arrivals;
        for (int block = 0; block < 4; ++block) {
            KRO_EXPECT_NO_ALLOCATION(hinged.head->renderBlock());
            // The device's pace: the worker finishes each block in time.
            hinge->queue()->sync([] {});
            const KROAudioBufferList& buffer = *hinged.head->buffer;
            for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
                if (buffer.valueAtFrame(frame) != 0.0f) {
                    EXPECT_EQ(buffer.valueAtFrame(frame), 1.0f);
                    arrivals.push_back(block * 512 + std::int64_t(frame));
                }
            }
        }
        EXPECT_EQ(arrivals, std::vector<std::int64_t>{c.arrival});
        EXPECT_EQ(hinge->latency(), c.latency);
    }
}

TEST(KROHingeAudioProcessor, ABlockStillQueuedWhenTheHingeIsTakenDownDoesNothing) {
    const Graph hinged = hingeGraph();
    for (int block = 0; block < 8; ++block) {
        hinged.head->renderBlock();
    }
    hinged.stream->uninitialize();
    hinged.get<KROHingeAudioProcessor>("hinge")->queue()->sync([] {});
}

KRO_REGISTER_CLASS(KROTestImpulse, KROAudioGenerator)
