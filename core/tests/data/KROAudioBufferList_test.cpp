// Audio buffer lists: frames, sample access, arithmetic, statistics against
// numpy and long-double loops, the threshold search, and the render path
// under the allocation guard.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <sstream>
#include <unistd.h>

#include "KROAllocationGuard.h"
#include "KROBufferListFixtures.h"
#include "KROTestCommand.h"
#include "KROVectorOps.h"

namespace {

constexpr std::int64_t kNotFound = 0x7fffffffffffffff;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

void expectNear(double actual, long double expected) {
    EXPECT_NEAR(actual, double(expected), 1e-5 * std::max(1.0L, std::fabs(expected)));
}

} // namespace

// Reads and writes are bounded by the capacity, not the current frames, so
// the tail of a short block stays reachable; outside, 0 and nothing.
TEST(KROAudioBufferList, SampleAccessIsBoundedByTheCapacity) {
    auto list = countingList(2, 16);
    ASSERT_TRUE(list->setFrames(8));
    EXPECT_EQ(list->valueAtFrame(9, 1), 110.0f);
    EXPECT_EQ(list->valueAtFrame(9), 10.0f);
    list->setValue(-3.0f, 12, 1);
    EXPECT_EQ(list->channel(1)[12], -3.0f);
    const auto before = samplesOf(*list);
    list->setValue(5.0f, 16, 0);
    list->setValue(5.0f, 0, 2);
    EXPECT_EQ(samplesOf(*list), before);
    EXPECT_EQ(list->valueAtFrame(16, 0), 0.0f);
    EXPECT_EQ(list->valueAtFrame(0, 2), 0.0f);
}

// A cleared range is cut to the current frames: a range partly past them
// clears the part inside, one entirely outside clears nothing.
TEST(KROAudioBufferList, ClearingStopsAtTheCurrentFrames) {
    auto list = countingList(2, 8);
    ASSERT_TRUE(list->setFrames(6));
    list->clearRange(NSMakeLongRange(4, 4));
    list->clearRange(NSMakeLongRange(6, 2));
    list->clearRange(NSMakeLongRange(100, 10));
    list->clearRange(NSMakeLongRange(0, 1), 1);
    EXPECT_EQ(samplesOf(*list, 0), (std::vector<float>{1, 2, 3, 4, 0, 0, 7, 8}));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{0, 102, 103, 104, 0, 0, 107, 108}));
    list->clearChannel(0);
    list->clearChannel(2);
    EXPECT_EQ(samplesOf(*list, 0), (std::vector<float>{0, 0, 0, 0, 0, 0, 7, 8}));
    list->clear();
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{0, 0, 0, 0, 0, 0, 107, 108}));
}

// Mixing adds the common channels over the smaller frame count, unclamped.
TEST(KROAudioBufferList, MixAddsTheCommonChannelsAndFrames) {
    auto receiver = constantList(2, 4, 0.75f);
    auto source = constantList(3, 4, 0.5f);
    ASSERT_TRUE(source->setFrames(2));
    KROErrorPtr error;
    EXPECT_TRUE(receiver->mixAudioBufferList(*source, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(samplesOf(*receiver, 1), (std::vector<float>{1.25f, 1.25f, 0.75f, 0.75f}));
    auto wide = constantList(3, 4, 1.0f);
    EXPECT_TRUE(wide->mixAudioBufferList(*receiver));
    EXPECT_EQ(samplesOf(*wide, 0), (std::vector<float>{2.25f, 2.25f, 1.75f, 1.75f}));
    EXPECT_EQ(samplesOf(*wide, 2), std::vector<float>(4, 1.0f));
}

// Each call on a list of 2 channels of 5 frames of 1.0, cut to 4 frames.
TEST(KROAudioBufferList, ScalesAndRampsTouchTheirRangeOnly) {
    struct Case {
        const char* what;
        std::function<void(KROAudioBufferList&)> change;
        std::vector<float> first, second;
    };
    const auto range = NSMakeLongRange;
    const std::vector<float> ones(5, 1.0f);
    const Case cases[] = {
        {"scale", [](auto& l) { l.scale(2); }, {2, 2, 2, 2, 1}, {2, 2, 2, 2, 1}},
        {"scale channel", [](auto& l) { l.scale(3, 1u); }, ones, {3, 3, 3, 3, 1}},
        {"scale range",
         [&](auto& l) { l.scale(0.5f, range(2, 9)); },
         {1, 1, .5f, .5f, 1},
         {1, 1, .5f, .5f, 1}},
        {"scale channel range",
         [&](auto& l) { l.scale(-1, 0, range(0, 1)); },
         {-1, 1, 1, 1, 1},
         ones},
        {"missing channel", [&](auto& l) { l.scale(5, 2u, range(0, 4)); }, ones, ones},
        {"range past frames", [&](auto& l) { l.scale(5, 0u, range(4, 1)); }, ones, ones},
        {"ramp past frames", [&](auto& l) { l.scaleWithRampStart(5, 6, 0, range(4, 1)); }, ones,
         ones},
        {"ramp missing channel", [&](auto& l) { l.scaleWithRampStart(5, 6, 2, range(0, 3)); }, ones,
         ones},
        {"equal ends scale",
         [](auto& l) { l.scaleWithRampStart(.5f, .5f); },
         {.5f, .5f, .5f, .5f, 1},
         {.5f, .5f, .5f, .5f, 1}},
        {"fade in", [](auto& l) { l.fadeIn(); }, {0, .25f, .5f, .75f, 1}, {0, .25f, .5f, .75f, 1}},
        {"fade out",
         [](auto& l) { l.fadeOut(); },
         {1, .75f, .5f, .25f, 1},
         {1, .75f, .5f, .25f, 1}},
        {"ramp range",
         [&](auto& l) { l.scaleWithRampStart(1, 0, range(1, 2)); },
         {1, 1, .5f, 1, 1},
         {1, 1, .5f, 1, 1}},
        {"ramp channel",
         [&](auto& l) { l.scaleWithRampStart(2, 0, 1, range(0, 2)); },
         ones,
         {2, 1, 1, 1, 1}},
        {"invert", [](auto& l) { l.invert(); }, {-1, -1, -1, -1, 1}, {-1, -1, -1, -1, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto list = constantList(2, 5, 1.0f);
        ASSERT_TRUE(list->setFrames(4));
        c.change(*list);
        EXPECT_EQ(samplesOf(*list, 0), c.first);
        EXPECT_EQ(samplesOf(*list, 1), c.second);
    }
}

// The last frame of a ramp gets start + (n - 1) * step, one step short of the
// end, so a ramp from 1 to 0 over 4 frames scales by 1, 0.75, 0.5, 0.25 and a
// following ramp from the end value neither repeats nor skips a step.
TEST(KROAudioBufferList, ARampStopsOneStepShortOfItsEnd) {
    auto list = constantList(2, 8, 2.0f);
    list->scaleWithRampStart(1.0f, 0.0f, NSMakeLongRange(0, 4));
    list->scaleWithRampStart(0.0f, -1.0f, NSMakeLongRange(4, 4));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{2, 1.5f, 1, 0.5f, 0, -0.5f, -1, -1.5f}));
    auto long_ = constantList(1, 512, 1.0f);
    long_->fadeOut();
    EXPECT_EQ(long_->valueAtFrame(511), 1.0f / 512);
    // Ramps longer than one stack block of the ramp, element for element.
    for (std::uint64_t count : {1023u, 1024u, 1025u, 3001u}) {
        SCOPED_TRACE(count);
        auto ramp = constantList(1, count + 3, 1.0f);
        ramp->scaleWithRampStart(0.25f, 1.75f, 0, NSMakeLongRange(2, count));
        const float step = 1.5f / static_cast<float>(count);
        EXPECT_EQ(ramp->valueAtFrame(1), 1.0f);
        EXPECT_EQ(ramp->valueAtFrame(count + 2), 1.0f);
        for (std::uint64_t i = 0; i < count; ++i) {
            ASSERT_EQ(ramp->valueAtFrame(2 + i), 0.25f + static_cast<float>(i) * step) << i;
        }
    }
    float far[3];
    kro_vramp(1.0f, 0.5f, far, 3, std::size_t{1} << 33);
    EXPECT_EQ(far[2], 1.0f + static_cast<float>((std::size_t{1} << 33) + 2) * 0.5f);
}

TEST(KROAudioBufferList, ReverseTurnsFramesAroundInPlace) {
    auto list = countingList(2, 6);
    list->reverse();
    EXPECT_EQ(samplesOf(*list, 0), (std::vector<float>{6, 5, 4, 3, 2, 1}));
    list->reverseRange(NSMakeLongRange(1, 3));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{106, 103, 104, 105, 102, 101}));
    list->reverseChannel(1, NSMakeLongRange(4, 10));
    list->reverseChannel(2, NSMakeLongRange(0, 6));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{106, 103, 104, 105, 101, 102}));
    EXPECT_EQ(samplesOf(*list, 0), (std::vector<float>{6, 3, 4, 5, 2, 1}));
}

// Statistics run over the current frames; average is the mean magnitude and
// energy the plain sum of squares; a missing channel gives 0, no frames the
// starting values, and NaN is skipped by the extremes only.
TEST(KROAudioBufferList, StatisticsFollowTheLevelMeaningsOfTheirNames) {
    auto list = makeList(2, 8);
    fillChannel(*list, 0, {1, -1, 1, -1, 100, -100, 100, -100});
    fillChannel(*list, 1, {-0.5f, -0.5f, -0.25f, -0.5f});
    ASSERT_TRUE(list->setFrames(4));
    EXPECT_EQ(list->maximumOfChannel(1), -0.25f);
    EXPECT_EQ(list->maximum(), 1.0f);
    EXPECT_EQ(list->minimumOfChannel(0), -1.0f);
    EXPECT_EQ(list->minimum(), -1.0f);
    EXPECT_EQ(list->magnitudeOfChannel(1), 0.5f);
    EXPECT_EQ(list->magnitude(), 1.0f);
    EXPECT_EQ(list->averageOfChannel(0), 1.0f);
    EXPECT_EQ(list->energyOfChannel(0), 4.0f);
    EXPECT_EQ(list->rmsOfChannel(0), 1.0f);
    EXPECT_EQ(list->average(), (1.0f + 0.4375f) / 2);
    EXPECT_EQ(list->energy(), (4.0f + 0.8125f) / 2);
    EXPECT_FLOAT_EQ(list->rms(), std::sqrt((1.0f + 0.203125f) / 2));
    for (const auto& statistic :
         {&KROAudioBufferList::maximumOfChannel, &KROAudioBufferList::minimumOfChannel,
          &KROAudioBufferList::magnitudeOfChannel, &KROAudioBufferList::rmsOfChannel,
          &KROAudioBufferList::averageOfChannel, &KROAudioBufferList::energyOfChannel}) {
        EXPECT_EQ((list.get()->*statistic)(2), 0.0f);
    }
    ASSERT_TRUE(list->setFrames(0));
    EXPECT_EQ(list->maximum(), -kInfinity);
    EXPECT_EQ(list->minimumOfChannel(0), kInfinity);
    EXPECT_EQ(list->magnitude(), 0.0f);
    EXPECT_EQ(list->energyOfChannel(0), 0.0f);
    auto withNaN = makeList(1, 70);
    std::vector<float> values = randomSamples(70, 3, 0.5f);
    values[0] = values[17] = values[69] = kNaN;
    values[20] = 0.875f;
    values[66] = -0.9375f;
    fillChannel(*withNaN, 0, values);
    EXPECT_EQ(withNaN->maximum(), 0.875f);
    EXPECT_EQ(withNaN->minimum(), -0.9375f);
    EXPECT_EQ(withNaN->magnitude(), 0.9375f);
    EXPECT_TRUE(std::isnan(withNaN->energy()));
    EXPECT_TRUE(std::isnan(withNaN->rms()));
}

// Random data at lengths around the kernels' lanes, against loops in long double.
TEST(KROAudioBufferList, StatisticsMatchLongDoubleLoops) {
    for (std::uint64_t frames : {1u, 63u, 64u, 65u, 129u, 511u, 4099u}) {
        SCOPED_TRACE(frames);
        auto list = makeList(2, frames);
        long double energies[2] = {}, magnitudes[2] = {};
        float maxima[2] = {-kInfinity, -kInfinity}, minima[2] = {kInfinity, kInfinity};
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            const auto values = randomSamples(frames, 11 * channel + frames, channel ? 0.25f : 1);
            fillChannel(*list, channel, values);
            for (float x : values) {
                maxima[channel] = std::max(maxima[channel], x);
                minima[channel] = std::min(minima[channel], x);
                energies[channel] += static_cast<long double>(x) * x;
                magnitudes[channel] += std::fabs(static_cast<long double>(x));
            }
            EXPECT_EQ(list->maximumOfChannel(channel), maxima[channel]);
            EXPECT_EQ(list->minimumOfChannel(channel), minima[channel]);
            expectNear(list->energyOfChannel(channel), energies[channel]);
            expectNear(list->rmsOfChannel(channel), std::sqrt(energies[channel] / frames));
            expectNear(list->averageOfChannel(channel), magnitudes[channel] / frames);
        }
        EXPECT_EQ(list->magnitude(), std::max({maxima[0], maxima[1], -minima[0], -minima[1]}));
        expectNear(list->energy(), (energies[0] + energies[1]) / 2);
        expectNear(list->rms(), std::sqrt((energies[0] + energies[1]) / 2 / frames));
    }
}

// numpy's statistics of three channels: one line per channel, then one for the list.
TEST(KROAudioBufferList, StatisticsMatchNumpy) {
    if (KRORunCommand("/usr/bin/python3 -c 'import numpy' 2>/dev/null").status != 0) {
        GTEST_SKIP() << "numpy is not installed (scripts/install-deps installs python3-numpy)";
    }
    const std::uint64_t frames = 4099;
    auto list = makeList(3, frames);
    const std::filesystem::path file = std::filesystem::temp_directory_path() /
                                       ("kro_statistics_" + std::to_string(getpid()) + ".f32");
    {
        std::ofstream out(file, std::ios::binary);
        for (std::uint32_t channel = 0; channel < 3; ++channel) {
            const auto values = randomSamples(frames, 7 + channel, channel == 2 ? 4.0f : 1.0f);
            fillChannel(*list, channel, values);
            out.write(reinterpret_cast<const char*>(values.data()), frames * sizeof(float));
        }
    }
    const std::string script =
        "import sys, numpy as np\n"
        "x = np.fromfile(sys.argv[1], dtype=np.float32).astype(np.float64).reshape(3, -1)\n"
        "r = np.array([[c.max(), c.min(), np.abs(c).max(), np.sqrt(np.mean(c * c)),"
        " np.mean(np.abs(c)), np.sum(c * c)] for c in x])\n"
        "rows = list(r) + [[r[:, 0].max(), r[:, 1].min(), r[:, 2].max(),"
        " np.sqrt(np.mean(r[:, 3] ** 2)), r[:, 4].mean(), r[:, 5].mean()]]\n"
        "for row in rows: print(' '.join(repr(float(v)) for v in row))\n";
    const auto result =
        KRORunCommand("/usr/bin/python3 - " + file.string() + " <<'EOF'\n" + script + "EOF\n");
    std::filesystem::remove(file);
    ASSERT_EQ(result.status, 0) << result.output;
    std::istringstream lines(result.output);
    for (std::uint32_t row = 0; row < 4; ++row) {
        SCOPED_TRACE(row);
        double v[6];
        for (double& value : v) {
            ASSERT_TRUE(lines >> value);
        }
        const bool all = row == 3;
        EXPECT_EQ(all ? list->maximum() : list->maximumOfChannel(row), float(v[0]));
        EXPECT_EQ(all ? list->minimum() : list->minimumOfChannel(row), float(v[1]));
        EXPECT_EQ(all ? list->magnitude() : list->magnitudeOfChannel(row), float(v[2]));
        expectNear(all ? list->rms() : list->rmsOfChannel(row), v[3]);
        expectNear(all ? list->average() : list->averageOfChannel(row), v[4]);
        expectNear(all ? list->energy() : list->energyOfChannel(row), v[5]);
    }
}

// The first frame at or above the threshold, from either end; a NaN sample
// counts as a hit; the list form takes the first channel with a hit, not the
// earliest frame across channels.
TEST(KROAudioBufferList, TheThresholdSearchFindsTheFirstHit) {
    auto list = makeList(2, 2000);
    fillChannel(*list, 0, {0.0f, 0.6f, 0.1f, -0.75f, 0.2f, 0.65f, kNaN, 0.0f});
    ASSERT_TRUE(list->setFrames(6));
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, 0, false), 1);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.5f, 0, true), 5);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.75f, 0, false), 3);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.0f, 0, true), 5);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.76f, 0, false), kNotFound);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.0f, 2, false), kNotFound);
    ASSERT_TRUE(list->setFrames(7));
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.7f, 0, true), 6);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.76f, 0, false), kNotFound);
    ASSERT_TRUE(list->setFrames(2000));
    list->setValue(0.0f, 6, 0);
    list->setValue(0.9f, 1000, 0);
    list->setValue(0.9f, 5, 1);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.8f, false), 1000);
    EXPECT_EQ(list->frameGreaterThanOrEqualToMagnitude(0.95f, true), kNotFound);
}

// Everything but construction runs on the render thread and allocates nothing.
TEST(KROAudioBufferList, TheRenderPathAllocatesNothing) {
    auto list = countingList(2, 4096, 0.001f);
    auto other = countingList(2, 4096, 0.002f);
    const auto range = NSMakeLongRange(5, 3000);
    volatile float sink = 0;
    const std::function<void()> operations[] = {
        [&] { list->clear(); },
        [&] { list->clearRange(range); },
        [&] { list->clearRange(range, 1); },
        [&] { list->mixAudioBufferList(*other); },
        [&] { list->fadeIn(); },
        [&] { list->scale(0.5f, range); },
        [&] { list->scaleWithRampStart(0.2f, 0.8f, range); },
        [&] { list->invert(); },
        [&] { list->reverse(); },
        [&] { list->setValue(0.25f, 9, 1); },
        [&] { sink = list->maximum() + list->minimum() + list->magnitude(); },
        [&] { sink = list->rms() + list->average() + list->energy(); },
        [&] { sink = float(list->frameGreaterThanOrEqualToMagnitude(0.1f, true)); },
        [&] { list->setFrames(1000); },
        [&] { list->copyBufferList(*other); },
        [&] { list->copyFrames(range, 1, *other, 100, 0); },
        [&] { list->copyChannel(1, *other, 0); },
    };
    for (const auto& operation : operations) {
        KRO_EXPECT_NO_ALLOCATION(operation());
    }
    (void)sink;
    // The guard sees construction: the object, the record and two buffers;
    // ThreadSanitizer does not report the buffers' aligned allocation.
    KROAllocationGuard guard;
    auto made = KROAudioBufferList::bufferListWithChannels(2, 64);
#if defined(__SANITIZE_THREAD__)
    EXPECT_EQ(guard.count(), 2u);
#else
    EXPECT_EQ(guard.count(), 4u);
#endif
}
