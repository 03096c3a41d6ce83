// The fader: a new gain reached over one block (numpy) and then held (sox
// vol); automation followed exactly offline (numpy) and by one ramp a block
// in real time; a disabled fader that leaves audio and gain alone.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>

#include "KROAllocationGuard.h"
#include "KROAudioAutomation.h"
#include "KRODspTestSupport.h"
#include "KROFaderAudioProcessor.h"

using namespace kro_dsp_test;

namespace {

constexpr double kRate = 48000.0;

struct FaderChain {
    explicit FaderChain(std::uint64_t maxFrames)
        : chain(makeChain("KRODspTestSource", "KROFaderAudioProcessor", 1, maxFrames, kRate)),
          fader(chain.meterAs<KROFaderAudioProcessor>()) {
        // A signal that runs on across blocks.
        chain.sourceAs<KRODspTestSource>()->signal = [this](std::uint64_t frame, std::uint32_t) {
            return constant ? 1.0f : 0.8f * float(std::sin(0.0123 * double(played + frame)));
        };
    }

    // Renders blocks of frames, noting input and output.
    void render(int blocks, std::uint64_t frames) {
        for (int block = 0; block < blocks; ++block) {
            for (std::uint64_t frame = 0; frame < frames; ++frame) {
                input.push_back(constant ? 1.0f
                                         : 0.8f * float(std::sin(0.0123 * double(played + frame))));
            }
            const KROAudioBufferList* buffer = nullptr;
            KRO_EXPECT_NO_ALLOCATION(buffer = &chain.head->renderBlock(frames));
            output.insert(output.end(), buffer->channel(0), buffer->channel(0) + frames);
            played += frames;
        }
    }

    Chain chain;
    std::shared_ptr<KROFaderAudioProcessor> fader;
    bool constant = false;
    std::uint64_t played = 0;
    std::vector<float> input;
    std::vector<float> output;
};

std::vector<float> readRawFloats(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

// The input run through a command that reads IN and writes OUT.
std::vector<float> reference(const std::vector<float>& input, const std::string& command) {
    const auto in = scratchFile("fader-in.f32");
    const auto out = scratchFile("fader-out.f32");
    writeRawFloats(in, input.data(), input.size());
    std::string line = command;
    line.replace(line.find("IN"), 2, "'" + in.string() + "'");
    line.replace(line.find("OUT"), 3, "'" + out.string() + "'");
    const std::string messages = runCommand(line);
    auto samples = readRawFloats(out);
    EXPECT_EQ(samples.size(), input.size()) << messages;
    std::filesystem::remove(in);
    std::filesystem::remove(out);
    return samples;
}

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

std::shared_ptr<KROAudioAutomation> decibelRamp() {
    auto automation = KROAudioAutomation::automation();
    automation->setParameterKey("gain");
    automation->setLocation(0.01);
    automation->setLength(0.01);
    automation->setMinimum(-20.0f);
    automation->setMaximum(0.0f);
    return automation;
}

// The gain of decibelRamp at a time inside it.
float decibelRampAt(double seconds) {
    return std::pow(10.0f, float(-20.0 + 20.0 * (seconds - 0.01) / 0.01) / 20.0f);
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
    expectNear(chain.output, reference(chain.input, numpy("ramp IN OUT 0 -6 512 512")), 512, 1024,
               1e-6f);
    expectNear(chain.output,
               reference(chain.input, "sox -D -t f32 -r 48000 -c 1 IN -t f32 OUT vol -6dB"), 1024,
               2048, 1e-6f);
    EXPECT_NEAR(chain.fader->gain(), -6.0f, 1e-5f);
}

TEST(KROFaderAudioProcessor, OfflineAnAutomationGivesEachFrameTheCurvesExactValueAsNumpy) {
    if (!haveProgram("/usr/bin/python3")) {
        GTEST_SKIP() << "/usr/bin/python3 is missing (scripts/install-deps installs it)";
    }
    FaderChain chain(256);
    chain.constant = true;
    chain.fader->insertAutomationsAtIndexes({decibelRamp()}, {0});
    chain.render(6, 256);
    expectNear(chain.output,
               reference(chain.input, numpy("automation IN OUT 48000 0.01 0.01 -20 0")), 0, 1536,
               2e-6f);
}

// decibelRamp runs over frames 480 to 960; blocks of 256 frames, a constant
// source of 1, so the output is the gain.
TEST(KROFaderAudioProcessor, InRealTimeEachBlockRampsBetweenTheCurvesValuesAtItsEnds) {
    struct Case {
        const char* what;
        bool running;
        int block;
        std::uint64_t frame;
        float gain;
    };
    const Case cases[] = {
        {"frames before the automation keep the reached gain", true, 1, 223, 1.0f},
        {"the automation begins at its own value", true, 1, 224, 0.1f},
        {"a block inside starts at the curve's value there", true, 2, 0,
         decibelRampAt(512 / kRate)},
        {"and ramps toward the value at its end", true, 2, 128,
         (decibelRampAt(512 / kRate) + decibelRampAt(768 / kRate)) / 2},
        {"frames after the end take the asked gain", true, 3, 192, 1.0f},
        {"a standing transport holds the value at the block's start", false, 2, 255,
         decibelRampAt(512 / kRate)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        FaderChain chain(256);
        chain.constant = true;
        chain.chain.head->info()->setRealtime(true);
        chain.chain.head->info()->setRunning(c.running);
        chain.fader->insertAutomationsAtIndexes({decibelRamp()}, {0});
        chain.render(c.block + 1, 256);
        EXPECT_NEAR(chain.output[std::size_t(c.block) * 256 + c.frame], c.gain, 1e-5f);
    }
}

TEST(KROFaderAudioProcessor, ADisabledFaderLeavesAudioAndGainAloneAndOverlapsMultiply) {
    FaderChain chain(64);
    chain.constant = true;
    chain.fader->setEnabled(false);
    chain.fader->setGain(-6.0f);
    chain.render(1, 64);
    EXPECT_EQ(chain.output.back(), 1.0f);
    // The asked gain waits, and the reached one is what gain reports.
    EXPECT_EQ(chain.fader->gain(), 0.0f);
    chain.fader->setEnabled(true);
    chain.render(1, 64);
    EXPECT_EQ(chain.output[64], 1.0f);
    EXPECT_LT(chain.output[127], 0.51f);

    // Two automations over the same frames each apply.
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
