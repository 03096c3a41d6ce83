// The DC remover against sox's one-pole high-pass (gain (1 + p) / 2 taken out).
#include <gtest/gtest.h>

#include <cmath>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KRORemoveDCAudioProcessor.h"

using namespace kro_dsp_test;

namespace {

constexpr double kRate = 48000.0;

// DC, a tone and a wobble per channel, then 0.25 s of silence.
float testSignal(std::uint64_t frame, std::uint32_t channel) {
    const double t = double(frame) / kRate;
    if (t >= 0.75) {
        return 0.0f;
    }
    return float(0.3 - 0.2 * channel + 0.4 * std::sin(2 * M_PI * 1000 * t) +
                 0.1 * std::sin(2 * M_PI * 7 * t));
}

} // namespace

TEST(KRORemoveDCAudioProcessor, FiltersAsSoxsSinglePoleHighPassOfTheSamePole) {
    if (!haveProgram("sox")) {
        GTEST_SKIP() << "sox is missing (scripts/install-deps installs it)";
    }
    Chain chain = makeChain("KROTestGenerator", "KRORemoveDCAudioProcessor", 2, 512, kRate);
    std::uint64_t played = 0;
    chain.sourceAs<KROTestGenerator>()->signal = [&played](std::uint64_t frame,
                                                           std::uint32_t channel) {
        return testSignal(played + frame, channel);
    };
    constexpr std::uint64_t kFrames = 48000;
    std::vector<float> input;
    std::vector<float> output;
    while (played < kFrames) {
        const std::uint64_t frames = std::min<std::uint64_t>(kFrames - played, 512);
        const KROAudioBufferList* buffer = nullptr;
        KRO_EXPECT_NO_ALLOCATION(buffer = &chain.head->renderBlock(frames));
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            for (std::uint32_t channel = 0; channel < 2; ++channel) {
                input.push_back(testSignal(played + frame, channel));
                output.push_back(buffer->valueAtFrame(frame, channel));
            }
        }
        played += frames;
    }
    // sox's pole is exp(-2 pi f / rate): the frequency that gives ours.
    const double pole = KRORemoveDCAudioProcessor::poleForSampleRate(kRate);
    EXPECT_DOUBLE_EQ(pole, 0.997375);
    const double frequency = -std::log(pole) * kRate / (2 * M_PI);
    char effect[64];
    std::snprintf(effect, sizeof effect, " highpass -1 %.17g", frequency);
    const std::vector<float> theirs =
        throughCommand(input, "sox -D -t f32 -r 48000 -c 2 IN -t f32 OUT" + std::string(effect));
    ASSERT_EQ(theirs.size(), output.size());
    for (std::size_t i = 0; i < output.size(); ++i) {
        ASSERT_NEAR(output[i], theirs[i] / ((1.0 + pole) / 2.0), 2e-6) << "sample " << i;
    }
}

// A constant 1: the filter's first output is 1, then it decays by the pole.
TEST(KRORemoveDCAudioProcessor, TurningTheFilterOffKeepsItsStateUntilReset) {
    Chain chain = makeChain("KROTestGenerator", "KRORemoveDCAudioProcessor", 1, 64, kRate);
    chain.sourceAs<KROTestGenerator>()->signal = [](std::uint64_t, std::uint32_t) { return 1.0f; };
    auto filter = chain.meterAs<KRORemoveDCAudioProcessor>();
    const float last = chain.head->renderBlock(64).valueAtFrame(63);
    EXPECT_NEAR(last, std::pow(0.997375, 63), 1e-6);
    filter->setEnabled(false);
    EXPECT_EQ(chain.head->renderBlock(64).valueAtFrame(0), 1.0f);
    filter->setEnabled(true);
    EXPECT_NEAR(chain.head->renderBlock(64).valueAtFrame(0), 0.997375f * last, 1e-7);
    ASSERT_TRUE(chain.stream->reset());
    EXPECT_EQ(chain.head->renderBlock(64).valueAtFrame(0), 1.0f);
}

TEST(KRORemoveDCAudioProcessor, WithoutARateItPassesAudioAndWithoutChannelsItFails) {
    Chain chain = makeChain("KROTestGenerator", "KRORemoveDCAudioProcessor", 1, 64, 0.0);
    chain.sourceAs<KROTestGenerator>()->signal = [](std::uint64_t, std::uint32_t) { return 1.0f; };
    EXPECT_EQ(chain.head->renderBlock(64).valueAtFrame(10), 1.0f);

    auto filter = chain.meterAs<KRORemoveDCAudioProcessor>();
    KROAudioConnection& output = *filter->outputConnection();
    output.setSampleRate(kRate);
    output.setNumberOfChannels(0);
    KROErrorPtr error;
    EXPECT_FALSE(filter->initializeForRender(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), KROError::errorDomain());
    EXPECT_EQ(error->code(), 1);
    EXPECT_EQ(error->localizedDescription().rfind("Constructing the KRORemoveDCAudioProcessor", 0),
              0u);
}
