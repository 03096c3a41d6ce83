// The delay: an impulse exactly frameDelay frames later, never past the maximum.
#include <gtest/gtest.h>

#include "KROAllocationGuard.h"
#include "KRODelayAudioProcessor.h"
#include "KRODspTestSupport.h"

using namespace kro_dsp_test;

TEST(KRODelayAudioProcessor, AnImpulseComesOutFrameDelayFramesLater) {
    struct Case {
        const char* what;
        std::uint64_t delay;
        std::uint64_t arrival;
    };
    const Case cases[] = {
        {"no delay passes through", 0, 5},
        {"one frame", 1, 6},
        {"across the end of the ring", 900, 905},
        {"the maximum", 1000, 1005},
        {"beyond the maximum stops at it", 5000, 1005},
    };
    const std::uint64_t blocks[] = {300, 512, 100, 512, 512, 1};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Chain chain = makeChain("KROTestGenerator", "KRODelayAudioProcessor", 2, 512, 48000.0);
        auto delay = chain.meterAs<KRODelayAudioProcessor>();
        // The maximum sizes the ring: it is set before initialisation.
        chain.stream->uninitialize();
        delay->setMaximumFrameDelay(1000);
        delay->setFrameDelay(c.delay);
        ASSERT_TRUE(chain.stream->initialize());

        std::uint64_t played = 0;
        chain.sourceAs<KROTestGenerator>()->signal = [&played](std::uint64_t frame,
                                                               std::uint32_t channel) {
            return played + frame == 5 ? float(channel + 1) : 0.0f;
        };
        std::vector<std::uint64_t> arrivals;
        for (const std::uint64_t frames : blocks) {
            const KROAudioBufferList* buffer = nullptr;
            KRO_EXPECT_NO_ALLOCATION(buffer = &chain.head->renderBlock(frames));
            for (std::uint64_t frame = 0; frame < frames; ++frame) {
                if (buffer->valueAtFrame(frame, 1) != 0.0f) {
                    EXPECT_EQ(buffer->valueAtFrame(frame, 0), 1.0f);
                    EXPECT_EQ(buffer->valueAtFrame(frame, 1), 2.0f);
                    arrivals.push_back(played + frame);
                }
            }
            played += frames;
        }
        EXPECT_EQ(arrivals, std::vector<std::uint64_t>{c.arrival});
        EXPECT_EQ(delay->frameDelay(), std::min<std::uint64_t>(c.delay, 1000));
    }
}
