// The dynamics engine as plain functions: refusals, power filter, gain follower, positions.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <functional>
#include <vector>

#include "kx_dsp_gdp.h"

namespace {

constexpr double kRate = 48000.0;
constexpr int kFrame = 512;
constexpr int kTaps = 512;

// A frame's position and its first channel, kept in storage reserved ahead so
// that receiving a frame allocates nothing.
struct Frame {
    std::int64_t position;
    std::vector<float> first;
};
constexpr std::size_t kFramesKept = 256;

// An engine of two channels that keeps every frame it gives out.
struct Engine {
    Engine() {
        EXPECT_EQ(kx_dsp_gdp__create(kRate, 2, kFrame, kTaps, 97, &context), 0);
        kx_dsp_gdp__set_output_destination(context, &Engine::receive, this);
        frames.resize(kFramesKept, {0, std::vector<float>(kFrame)});
    }
    ~Engine() { kx_dsp_gdp__destroy(context); }

    static int receive(void* self, float* const* obufs, std::int32_t, std::int32_t frames,
                       std::int64_t position) {
        auto& engine = *static_cast<Engine*>(self);
        Frame& kept = engine.frames.at(engine.received++);
        kept.position = position;
        std::copy(obufs[0], obufs[0] + frames, kept.first.begin());
        return 0;
    }
    // Every sample of both channels is value.
    void feed(float value, int samples, std::int64_t position = 0) {
        std::vector<float> block(std::size_t(samples), value);
        const float* channels[] = {block.data(), block.data()};
        EXPECT_EQ(kx_dsp_gdp__process_input_samples(context, channels, 2, samples, position), 0);
    }
    // A table that maps every input level to level (log2 of power).
    void setFlatTable(float level) {
        const float table[] = {level, level, level};
        EXPECT_EQ(kx_dsp_gdp__set_power_transfer_function(context, -32.0f, 0.0f, table, 3), 0);
    }
    // The gain of each sample of the frames from first on, log2 of power,
    // for an input of value.
    std::vector<double> gains(std::size_t first, float value) const {
        std::vector<double> result;
        for (std::size_t frame = first; frame < received; ++frame) {
            for (const float sample : frames[frame].first) {
                result.push_back(2.0 * std::log2(double(sample) / double(value)));
            }
        }
        return result;
    }

    kx_dsp_gdp_t* context = nullptr;
    std::vector<Frame> frames;
    std::size_t received = 0;
};

} // namespace

// Each refused call returns 1, prints its one line with the function's name
// first, and changes nothing: the engine then renders as an untouched one.
TEST(kx_dsp_gdp, RefusedCallsPrintTheirLineAndChangeNothing) {
    Engine engine, untouched;
    // A failed creation sets the out pointer to none.
    kx_dsp_gdp_t* made = engine.context;
    kx_dsp_gdp_t* const context = engine.context;
    const float table[] = {0.0f, -1.0f, -2.0f};
    const float samples[8] = {};
    const float* threeChannels[] = {samples, samples, samples};
    const std::string create = "kx_dsp_gdp__create -- error: specified ";
    const std::string table_ = "kx_dsp_gdp__set_power_transfer_function -- error: specified ";
    const std::string process = "kx_dsp_gdp__process_input_samples -- error: specified ";
    const std::pair<std::function<int()>, std::string> cases[] = {
        {[&] { return kx_dsp_gdp__create(0.0, 2, 512, 512, 97, &made); },
         create + "sample_rate_hz is 0.000000; it should be greater than zero"},
        {[&] { return kx_dsp_gdp__create(kRate, 0, 512, 512, 97, &made); },
         create + "n_channels is 0; it should be greater than zero"},
        {[&] { return kx_dsp_gdp__create(kRate, 2, -1, 512, 97, &made); },
         create + "frame_nsamp is -1; it should be greater than zero"},
        {[&] { return kx_dsp_gdp__create(kRate, 2, 512, 0, 97, &made); },
         create + "in_delay_nsamp is 0; it should be greater than zero"},
        {[&] { return kx_dsp_gdp__create(kRate, 2, 512, 512, 2, &made); },
         create + "pxf_cap is 2; it should be greater or equal to 2"},
        {[&] { return kx_dsp_gdp__destroy(nullptr); },
         "kx_dsp_gdp__destroy -- error: specified module context is NULL"},
        {[&] { return kx_dsp_gdp__set_output_destination(nullptr, nullptr, nullptr); },
         process + "module context is NULL"},
        {[&] { return kx_dsp_gdp__set_input_power_lpf_wavelength_sec(context, -1.0f); },
         "kx_dsp_gdp__set_input_power_lpf_wavelength_sec -- error: specified in_pwr_lpf_l_sec "
         "is -1.000000; it should be >= 0.0"},
        {[&] { return kx_dsp_gdp__set_attack_time_constant_sec(context, 0.0005f); },
         "kx_dsp_gdp__set_attack_time_constant_sec -- error: specified set_attack_tau_sec is "
         "0.000500; it should be >= 0.001"},
        {[&] { return kx_dsp_gdp__set_release_time_constant_sec(context, -0.1f); },
         "kx_dsp_gdp__set_release_time_constant_sec -- error: specified release_tau_sec is "
         "-0.100000; it should be >= 0.0"},
        {[&] { return kx_dsp_gdp__set_power_transfer_function(context, -32, 0, table, 1); },
         table_ + "n_el is 1; it should be greater than or equal to 2"},
        {[&] { return kx_dsp_gdp__set_power_transfer_function(context, -32, 0, table, 98); },
         table_ + "n_el is 98; it should be less than or equal to the capacity specifiedat "
                  "module creation time, which was97."},
        {[&] { return kx_dsp_gdp__set_power_transfer_function(context, 0, 0, table, 3); },
         table_ + "in_pwr_l2o_at_elmin is not less than specified in_pwr_l2o_at_elmax"},
        {[&] { return kx_dsp_gdp__set_power_transfer_function(context, -32, 0, nullptr, 3); },
         table_ + "out_pwr_l2o_array is NULL"},
        {[&] { return kx_dsp_gdp__process_input_samples(context, nullptr, 2, 8, 0); },
         process + "input sample array is NULL"},
        {[&] { return kx_dsp_gdp__process_input_samples(context, threeChannels, 3, 8, 0); },
         process + "in_n_ch is 3; which does not match the number of channels specified at "
                   "module creation time (2)"},
        {[&] { return kx_dsp_gdp__process_input_samples(context, threeChannels, 2, 0, 0); },
         process + "in_n_samp is 0; it should be greater than zero"},
    };
    for (const auto& [call, line] : cases) {
        SCOPED_TRACE(line);
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line + "\n");
    }
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(kx_dsp_gdp__gain(nullptr), 0.0f);
    for (Engine* each : {&engine, &untouched}) {
        each->setFlatTable(-4.0f);
        each->feed(0.25f, 3 * kFrame);
    }
    ASSERT_EQ(engine.received, 3u);
    for (std::size_t frame = 0; frame < 3; ++frame) {
        EXPECT_EQ(engine.frames[frame].first, untouched.frames[frame].first) << frame;
    }
}

// The power filter is a symmetric low-pass of unit sum: flat below, closed above.
TEST(kx_dsp_gdp, ThePowerFilterIsALinearPhaseLowPass) {
    for (const float cutoff : {100.0f, 1000.0f}) {
        SCOPED_TRACE(cutoff);
        std::vector<float> plain(kTaps), unit(kTaps);
        ASSERT_EQ(kx_dsp_gdp__calculate_lowpass_fir_coeffs(cutoff, kRate, plain.data(), unit.data(),
                                                           kTaps),
                  0);
        EXPECT_EQ(plain[0], 0.0f);
        for (int k = 1; k < kTaps / 2; ++k) {
            ASSERT_EQ(plain[kTaps / 2 - k], plain[kTaps / 2 + k]) << k;
        }
        auto response = [&](double hertz) {
            std::complex<double> sum;
            for (int k = 0; k < kTaps; ++k) {
                sum += double(unit[k]) * std::polar(1.0, -2.0 * M_PI * hertz * k / kRate);
            }
            return std::abs(sum);
        };
        EXPECT_NEAR(response(0.0), 1.0, 1e-5);
        EXPECT_NEAR(response(cutoff / 8.0), 1.0, 0.1);
        EXPECT_LT(response(cutoff * 2.0 + 200.0), 0.1);
    }
}

// A step moves the gain along x(t) = T + (x0 - T)(1 + wt)e^(-wt), at the attack
// rate down and the release rate up; frames come out 256 samples early.
TEST(kx_dsp_gdp, TheGainFollowsACriticallyDampedStep) {
    Engine engine;
    ASSERT_EQ(kx_dsp_gdp__set_attack_time_constant_sec(engine.context, 0.005f), 0);
    ASSERT_EQ(kx_dsp_gdp__set_release_time_constant_sec(engine.context, 0.05f), 0);
    // Two channels of 0.5 read log2(0.5 / sqrt 2) = -1.5; a flat table at
    // -1.5 is unity, at -7.5 a target of -6.
    const float input = 0.5f;
    engine.setFlatTable(-1.5f);
    engine.feed(input, 20 * kFrame);
    const std::pair<float, double> steps[] = {{-7.5f, 1.0 / 0.005}, {-1.5f, 1.0 / 0.05}};
    double from = 0.0;
    for (const auto& [table, rate] : steps) {
        SCOPED_TRACE(table);
        const double target = double(table) + 1.5;
        const std::size_t first = engine.received;
        engine.setFlatTable(table);
        engine.feed(input, 60 * kFrame);
        const std::vector<double> gains = engine.gains(first, input);
        double worst = 0.0;
        for (std::size_t n = 0; n < gains.size(); ++n) {
            const double t = double(n) / kRate;
            const double closed = target + (from - target) * (1.0 + rate * t) * std::exp(-rate * t);
            worst = std::max(worst, std::abs(gains[n] - closed));
        }
        EXPECT_LT(worst, 0.02 * std::abs(target - from));
        EXPECT_NEAR(gains.back(), target, 1e-3);
        from = target;
    }
    EXPECT_NEAR(kx_dsp_gdp__gain(engine.context), 1.0f, 1e-3);

    Engine positions;
    for (std::int64_t fed = 0; fed < 5 * kFrame; fed += 300) {
        positions.feed(0.1f, 300, 1000 + fed);
    }
    ASSERT_EQ(positions.received, 5u);
    for (std::size_t frame = 0; frame < 5; ++frame) {
        EXPECT_EQ(positions.frames[frame].position, 1000 + std::int64_t(frame) * kFrame - 256);
    }
}
