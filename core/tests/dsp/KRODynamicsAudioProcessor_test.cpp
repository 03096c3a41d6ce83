// The compressor and expander: transfer, look-ahead, host-thread updates, bad input.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KRODynamicsAudioProcessor.h"

using namespace kro_dsp_test;

namespace {

using Dynamics = KRODynamicsAudioProcessor;

struct Shape {
    bool compress = false;
    float compressThreshold = -12.0f, compressSlope = 1.0f;
    bool expand = false;
    float expandThreshold = -36.0f, expandSlope = 1.0f;
};

void apply(Dynamics& dynamics, const Shape& shape) {
    dynamics.setCompressionEnabled(shape.compress);
    dynamics.setCompressionThreshold(shape.compressThreshold);
    dynamics.setCompressionSlope(shape.compressSlope);
    dynamics.setExpansionEnabled(shape.expand);
    dynamics.setExpansionThreshold(shape.expandThreshold);
    dynamics.setExpansionSlope(shape.expandSlope);
    dynamics.update();
}

double rms(const std::vector<float>& samples, std::size_t from) {
    double sum = 0.0;
    for (std::size_t i = from; i < samples.size(); ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return std::sqrt(sum / double(samples.size() - from));
}

// A chain whose middle is the dynamics engine.
Chain dynamicsChain(std::uint32_t channels, std::uint64_t maxFrames, double rate = 48000.0) {
    return makeChain("KROTestGenerator", "KRODynamicsAudioProcessor", channels, maxFrames, rate);
}

// Renders samples through the chain in blocks of frames; channel 0 out.
std::vector<float> renderAll(Chain& chain, const std::vector<float>& in, std::uint64_t frames) {
    const Channels channels = {in};
    std::vector<float> out;
    for (std::size_t start = 0; start < in.size(); start += frames) {
        const auto& block = chain.renderSamples(channels, start, frames);
        out.insert(out.end(), block.channel(0), block.channel(0) + frames);
    }
    return out;
}

} // namespace

// A stereo tone of L dB reads as power L - 1.5 dB (summed over sqrt 2); the steady
// gain is the table's output less that; an expander above a compressor wins.
TEST(KRODynamicsAudioProcessor, TheTransferFunctionMeasuredWithTones) {
    const struct {
        const char* what;
        Shape shape;
        double toneDecibels;
        double gainDecibels;
    } cases[] = {
        {"2:1 above -12", {true, -12, 2}, 0.0, -(12.0 - 1.505) / 2.0},
        {"2:1, below -12", {true, -12, 2}, -20.0, 0.0},
        {"4:1 above -24", {true, -24, 4}, -6.0, (-24.0 + 16.495 / 4.0) - (-7.505)},
        {"2:1 expander below -36", {false, -12, 1, true, -36, 2}, -50.0, -15.505},
        {"expander above the compressor", {true, -30, 2, true, -20, 2}, -26.0, -7.505},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Chain chain = dynamicsChain(2, 512);
        auto dynamics = chain.meterAs<Dynamics>();
        apply(*dynamics, c.shape);
        const auto tone = sine(c.toneDecibels, 1000.0, 2.0, 48000.0);
        const auto out = renderAll(chain, tone, 512);
        const double gain = 20.0 * std::log10(rms(out, 72000) / rms(tone, 72000));
        EXPECT_NEAR(gain, c.gainDecibels, 0.1);
    }
}

// In use the audio is 256 frames late and exact at unity gain; a short block
// waits for a whole frame. Without processing, or disabled, nothing is delayed.
TEST(KRODynamicsAudioProcessor, LookAheadOfHalfTheFilter) {
    std::vector<float> clicks(4096, 0.0f);
    clicks[100] = 0.001f;
    clicks[1000] = -0.001f;
    Chain chain = dynamicsChain(2, 512);
    auto dynamics = chain.meterAs<Dynamics>();
    dynamics->setInputScalar(2.0f);
    dynamics->setOutputScalar(0.25f);
    const auto plain = renderAll(chain, clicks, 512);
    EXPECT_EQ(dynamics->latency(), 0u);
    EXPECT_EQ(dynamics->currentScalar(), 1.0f);
    EXPECT_EQ(plain[1000], -0.0005f);

    apply(*dynamics, {true, -60, 2});
    EXPECT_EQ(dynamics->latency(), 256u);
    const auto late = renderAll(chain, clicks, 512);
    for (std::size_t i = 0; i < late.size(); ++i) {
        ASSERT_NEAR(late[i], i >= 256 ? clicks[i - 256] * 0.5f : 0.0f, 1e-9) << i;
    }
    EXPECT_NEAR(dynamics->currentScalar(), 1.0f, 1e-5);

    Chain shorter = dynamicsChain(1, 512);
    apply(*shorter.meterAs<Dynamics>(), {true, -60, 2});
    const auto blocks = renderAll(shorter, clicks, 384);
    EXPECT_EQ(blocks[100], clicks[100]);
    EXPECT_NEAR(blocks[384 + 356], clicks[100], 1e-9);

    dynamics->setEnabled(false);
    EXPECT_EQ(renderAll(chain, clicks, 512), clicks);
}

// At 100 Hz the fast setting reaches its target in two samples and the slow one
// stands still: any other gain would be a torn update of one table and other times.
TEST(KRODynamicsAudioProcessor, UpdateFromAHostThreadIsNeverTorn) {
    Chain chain = dynamicsChain(2, 64, 400.0);
    Dynamics& dynamics = *chain.meterAs<Dynamics>();
    auto fast = [&] {
        dynamics.setAttackTime(0.001);
        dynamics.setReleaseTime(0.0);
        apply(dynamics, {true, -60, 4});
    };
    auto slow = [&] {
        dynamics.setAttackTime(1e30);
        dynamics.setReleaseTime(1e30);
        apply(dynamics, {true, -60, 1.5f});
    };
    fast();
    chain.sourceAs<KROTestGenerator>()->setConstant(0.5f);
    for (int block = 0; block < 10; ++block) {
        chain.render(64);
    }
    // Two channels of 0.5 have a power of 0.5, read over the square root of 2.
    const double level = 10.0 * std::log10(0.5) - 5.0 * std::log10(2.0);
    const double fastGain = (-60.0 + (level + 60.0) / 4.0) - level;
    std::atomic<bool> done{false};
    std::atomic<int> updates{0};
    std::thread host([&] {
        while (!done.load()) {
            if (++updates % 2) {
                slow();
            } else {
                fast();
            }
            (void)dynamics.currentScalar();
        }
    });
    double worst = 0.0;
    for (int block = 0; block < 200000 && (block < 3000 || updates.load() < 200); ++block) {
        const auto& out = chain.render(64);
        for (std::uint64_t i = 0; i < 64; ++i) {
            const double error = std::abs(20.0 * std::log10(out.channel(1)[i] / 0.5) - fastGain);
            worst = std::max(worst, error);
        }
    }
    done.store(true);
    host.join();
    EXPECT_GE(updates.load(), 200);
    EXPECT_LT(worst, 0.01);
}

// An engine that cannot be made fails with no error; bad slopes, thresholds,
// times and samples leave the gain finite, and rendering allocates nothing.
TEST(KRODynamicsAudioProcessor, BadSettingsAndSamplesLeaveTheGainFinite) {
    const std::tuple<double, std::uint32_t, std::uint64_t> engines[] = {
        {0.0, 2, 512}, {48000.0, 0, 512}, {48000.0, 2, 0}};
    for (const auto& [rate, channels, frames] : engines) {
        Chain chain = dynamicsChain(2, 512);
        auto dynamics = chain.meterAs<Dynamics>();
        ASSERT_TRUE(dynamics->uninitialize());
        KROAudioConnection& output = *dynamics->outputConnection();
        output.setSampleRate(rate);
        output.setNumberOfChannels(channels);
        output.setMaxFrames(frames);
        KROErrorPtr error;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(dynamics->initializeForRender(&error));
        EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("kx_dsp_gdp__create -- error", 0),
                  0u);
        EXPECT_EQ(error, nullptr);
        EXPECT_EQ(dynamics->currentScalar(), 1.0f);
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const Shape shapes[] = {{true, -12, 0},     {true, -12, -1}, {true, -12, nan},
                            {true, -12, 1e-6f}, {true, -inf, 2}, {false, 0, 1, true, inf, 2}};
    Channels signal = {std::vector<float>(48000)};
    for (std::size_t i = 0; i < signal[0].size(); ++i) {
        signal[0][i] = i < 12000 ? 0.5f : (i / 24 % 2 ? 1.0f : -1.0f);
    }
    signal[0][20000] = nan;
    signal[0][30000] = inf;
    for (const Shape& shape : shapes) {
        Chain chain = dynamicsChain(2, 512);
        auto dynamics = chain.meterAs<Dynamics>();
        dynamics->setAttackTime(nan);
        dynamics->setReleaseTime(0.0);
        testing::internal::CaptureStderr();
        apply(*dynamics, shape);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("set_attack_tau_sec is nan"),
                  std::string::npos);
        chain.renderSamples(signal, 0, 512);
        std::size_t notFinite = 0;
        KRO_EXPECT_NO_ALLOCATION(
            for (std::size_t start = 512; start < signal[0].size(); start += 512) {
                const auto& block = chain.renderSamples(signal, start, 512);
                for (std::uint64_t i = 0; i < 512; ++i) {
                    notFinite += !std::isfinite(block.channel(0)[i]);
                }
            });
        EXPECT_LE(notFinite, 2u);
        EXPECT_TRUE(std::isfinite(dynamics->currentScalar()));
    }
}

// A setting of the wrong kind is ignored and the last good one kept.
TEST(KRODynamicsAudioProcessor, SettingOfTheWrongKindIsIgnored) {
    auto dynamics = std::make_shared<Dynamics>();
    KROPropertyList settings;
    settings.setObjectForKey("attackTime", 1.75);
    ASSERT_TRUE(dynamics->init() && dynamics->setSettings(settings));
    settings.setObjectForKey("attackTime", "fast");
    ASSERT_TRUE(dynamics->setSettings(settings));
    EXPECT_EQ(dynamics->attackTime(), 1.75);
}
