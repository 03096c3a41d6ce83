// The fader: gain ramps (numpy, sox vol), automation offline and in real time, disabled.
#include <gtest/gtest.h>

#include <cmath>

#include "KROAllocationGuard.h"
#include "KROAudioAutomation.h"
#include "KRODspTestSupport.h"
#include "KROFaderAudioProcessor.h"

using namespace kro_dsp_test;

namespace {

constexpr double kRate = 48000.0;

// source -> fader -> head, one channel; the source runs on across blocks.
struct FaderChain {
    explicit FaderChain(std::uint64_t maxFrames, bool constant = false)
        : chain(makeChain("KROTestGenerator", "KROFaderAudioProcessor", 1, maxFrames, kRate)),
          fader(chain.meterAs<KROFaderAudioProcessor>()), constant(constant) {
        chain.sourceAs<KROTestGenerator>()->signal = [this](std::uint64_t frame, std::uint32_t) {
            return sample(played + frame);
        };
    }
    float sample(std::uint64_t n) const {
        return constant ? 1.0f : 0.8f * float(std::sin(0.0123 * double(n)));
    }
    void render(int blocks, std::uint64_t frames) {
        for (int block = 0; block < blocks; ++block) {
            const KROAudioBufferList* buffer = nullptr;
            KRO_EXPECT_NO_ALLOCATION(buffer = &chain.head->renderBlock(frames));
            for (std::uint64_t frame = 0; frame < frames; ++frame) {
                input.push_back(sample(played + frame));
                output.push_back(buffer->valueAtFrame(frame));
            }
            played += frames;
        }
    }

    Chain chain;
    std::shared_ptr<KROFaderAudioProcessor> fader;
    bool constant;
    std::uint64_t played = 0;
    std::vector<float> input;
    std::vector<float> output;
};

std::string numpy(const std::string& arguments) {
    return "/usr/bin/python3 '" + std::string(KRO_SOURCE_DIR) +
           "/core/tests/dsp/fader_reference.py' " + arguments;
}

void expectNear(const std::vector<float>& ours, const std::vector<float>& theirs, std::size_t from,
                std::size_t to, float tolerance) {
    ASSERT_GE(theirs.size(), to);
    for (std::size_t i = from; i < to; ++i) {
        ASSERT_NEAR(ours[i], theirs[i], tolerance) << "frame " << i;
    }
}

// "gain" from -20 dB to 0 dB over frames 480 to 960.
std::shared_ptr<KROAudioAutomation> decibelRamp() {
    auto automation = KROAudioAutomation::automation();
    automation->setParameterKey("gain");
    automation->setLocation(0.01);
    automation->setLength(0.01);
    automation->setMinimum(-20.0f);
    return automation;
}

float decibelRampAt(double frame) {
    return std::pow(10.0f, float(-20.0 + 20.0 * (frame - 480) / 480) / 20.0f);
}

} // namespace

TEST(KROFaderAudioProcessor, ANewGainRampsOverOneBlockAsNumpyAndThenHoldsAsSoxVol) {
    if (!haveProgram("sox") || !haveProgram("/usr/bin/python3")) {
        GTEST_SKIP() << "sox or python3 is missing (scripts/install-deps installs them)";
    }
    FaderChain chain(512);
    chain.render(1, 512);
    chain.fader->setGain(-6.0f);
    chain.render(3, 512);
    expectNear(chain.output, chain.input, 0, 512, 0.0f);
    expectNear(chain.output, throughCommand(chain.input, numpy("ramp IN OUT 0 -6 512 512")), 512,
               1024, 1e-6f);
    expectNear(chain.output,
               throughCommand(chain.input, "sox -D -t f32 -r 48000 -c 1 IN -t f32 OUT vol -6dB"),
               1024, 2048, 1e-6f);
    EXPECT_NEAR(chain.fader->gain(), -6.0f, 1e-5f);
}

TEST(KROFaderAudioProcessor, OfflineAnAutomationGivesEachFrameTheCurvesExactValueAsNumpy) {
    if (!haveProgram("/usr/bin/python3")) {
        GTEST_SKIP() << "/usr/bin/python3 is missing (scripts/install-deps installs it)";
    }
    FaderChain chain(256, true);
    chain.fader->insertAutomationsAtIndexes({decibelRamp()}, {0});
    chain.render(6, 256);
    expectNear(chain.output,
               throughCommand(chain.input, numpy("automation IN OUT 48000 0.01 0.01 -20 0")), 0,
               1536, 2e-6f);
}

// A source of 1, so the output is the gain (0.5 outside the automation).
TEST(KROFaderAudioProcessor, InRealTimeEachBlockRampsBetweenTheCurvesValuesAtItsEnds) {
    struct Case {
        const char* what;
        bool running;
        std::size_t frame;
        float gain;
    };
    // clang-format off
    const Case cases[] = {
        {"frames before the automation keep the reached gain", true, 256 + 223, 0.5f},
        {"the automation begins at its own value", true, 256 + 224, 0.1f},
        {"a block inside starts at the curve's value there", true, 512, decibelRampAt(512)},
        {"and ramps toward the value at its end", true, 512 + 128, (decibelRampAt(512) + decibelRampAt(768)) / 2},
        {"frames after the end take the asked gain", true, 768 + 192, 0.5f},
        {"a standing transport holds the value at the block's start", false, 512 + 255, decibelRampAt(512)},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        FaderChain chain(256, true);
        chain.chain.head->info()->setRealtime(true);
        chain.chain.head->info()->setRunning(c.running);
        chain.fader->insertAutomationsAtIndexes({decibelRamp()}, {0});
        chain.fader->setScalar(0.5f);
        chain.render(4, 256);
        EXPECT_NEAR(chain.output[c.frame], c.gain, 1e-5f);
    }
}

TEST(KROFaderAudioProcessor, ADisabledFaderLeavesAudioAndGainAloneAndOverlapsMultiply) {
    FaderChain chain(64, true);
    chain.fader->setEnabled(false);
    chain.fader->setGain(-6.0f);
    chain.render(1, 64);
    EXPECT_EQ(chain.output.back(), 1.0f);
    // The asked gain waits, and gain reports the one reached.
    EXPECT_EQ(chain.fader->gain(), 0.0f);
    chain.fader->setEnabled(true);
    chain.render(1, 64);
    EXPECT_EQ(chain.output[64], 1.0f);
    EXPECT_LT(chain.output[127], 0.51f);
    for (int i = 0; i < 2; ++i) {
        auto half = KROAudioAutomation::automation();
        half->setParameterKey("scalar");
        half->setLength(1.0);
        half->setMinimum(0.5f);
        half->setMaximum(0.5f);
        chain.fader->insertAutomationsAtIndexes({half}, {0});
    }
    chain.render(1, 64);
    EXPECT_FLOAT_EQ(chain.output.back(), 0.25f);
}
