// Audio buffer lists: access, arithmetic, statistics (numpy), search, real time.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <sstream>

#include "../util/KROScratchDirectory.h"
#include "../util/KROTestOracles.h"
#include "KROAllocationGuard.h"
#include "KROBufferListFixtures.h"

namespace {

constexpr std::int64_t kNotFound = 0x7fffffffffffffff;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

void expectNear(double actual, long double expected) {
    EXPECT_NEAR(actual, double(expected), 1e-5 * std::max(1.0L, std::fabs(expected)));
}

} // namespace

// Access is bounded by the capacity, not the frames: a short block's tail stays reachable.
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
    EXPECT_EQ(list->valueAtFrame(16, 0) + list->valueAtFrame(0, 2), 0.0f);
    ASSERT_TRUE(list->setFrames(6));
    list->reverse();
    list->reverseRange(NSMakeLongRange(1, 3));
    list->reverseChannel(1, NSMakeLongRange(4, 10));
    list->reverseChannel(2, NSMakeLongRange(0, 6));
    EXPECT_EQ(samplesOf(*list, 0),
              (std::vector<float>{6, 3, 4, 5, 2, 1, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(list->valueAtFrame(4, 1), 101);
}

// On 2 x 5 frames of 1.0 cut to 4: each call touches its range and channels only.
TEST(KROAudioBufferList, ArithmeticTouchesItsRangeOnly) {
    using Samples = std::vector<float>;
    const auto r = NSMakeLongRange;
    const auto halves = constantList(3, 3, 0.5f), mono = constantList(1, 5, 0.5f);
    const Samples o(5, 1), z{0, 0, 0, 0, 1}, half{.5f, .5f, .5f, .5f, 1}, up{0, .25f, .5f, .75f, 1};
    const std::tuple<std::function<void(KROAudioBufferList&)>, Samples, Samples> cases[] = {
        {[&](auto& l) { l.clearRange(r(3, 9)); }, {1, 1, 1, 0, 1}, {1, 1, 1, 0, 1}},
        {[&](auto& l) { l.clearRange(r(4, 2)); }, o, o},
        {[&](auto& l) { l.clearRange(r(0, 1), 1); }, o, {0, 1, 1, 1, 1}},
        {[](auto& l) { l.clearChannel(1), l.clearChannel(2); }, o, z},
        {[](auto& l) { l.clear(); }, z, z},
        {[&](auto& l) { l.mixAudioBufferList(*halves); },
         {1.5, 1.5, 1.5, 1, 1},
         {1.5, 1.5, 1.5, 1, 1}},
        {[&](auto& l) { l.mixAudioBufferList(*mono); }, {1.5, 1.5, 1.5, 1.5, 1}, o},
        {[](auto& l) { l.scale(2); }, {2, 2, 2, 2, 1}, {2, 2, 2, 2, 1}},
        {[](auto& l) { l.scale(3, 1u); }, o, {3, 3, 3, 3, 1}},
        {[&](auto& l) { l.scale(.5f, r(2, 9)); }, {1, 1, .5f, .5f, 1}, {1, 1, .5f, .5f, 1}},
        {[&](auto& l) { l.scale(-1, 0, r(0, 1)); }, {-1, 1, 1, 1, 1}, o},
        {[&](auto& l) { l.scale(5, 2u, r(0, 4)); }, o, o},
        {[&](auto& l) { l.scale(5, 0u, r(4, 1)); }, o, o},
        {[&](auto& l) { l.scaleWithRampStart(5, 6, 0, r(4, 1)); }, o, o},
        {[&](auto& l) { l.scaleWithRampStart(5, 6, 2, r(0, 3)); }, o, o},
        {[](auto& l) { l.scaleWithRampStart(.5f, .5f); }, half, half},
        {[](auto& l) { l.fadeIn(); }, up, up},
        {[](auto& l) { l.fadeOut(); }, {1, .75f, .5f, .25f, 1}, {1, .75f, .5f, .25f, 1}},
        {[&](auto& l) { l.scaleWithRampStart(1, 0, r(1, 2)); },
         {1, 1, .5f, 1, 1},
         {1, 1, .5f, 1, 1}},
        {[&](auto& l) { l.scaleWithRampStart(2, 0, 1, r(0, 2)); }, o, {2, 1, 1, 1, 1}},
        {[](auto& l) { l.invert(); }, {-1, -1, -1, -1, 1}, {-1, -1, -1, -1, 1}},
    };
    for (std::size_t row = 0; row < std::size(cases); ++row) {
        SCOPED_TRACE(row);
        auto list = constantList(2, 5, 1.0f);
        ASSERT_TRUE(list->setFrames(4));
        EXPECT_TRUE(list->mixAudioBufferList(*makeList(1, 1)));
        std::get<0>(cases[row])(*list);
        EXPECT_EQ(samplesOf(*list),
                  (std::vector<Samples>{std::get<1>(cases[row]), std::get<2>(cases[row])}));
    }
}

// A ramp stops one step short of its end, so chained ramps neither repeat nor skip.
TEST(KROAudioBufferList, ARampStopsOneStepShortOfItsEnd) {
    auto list = constantList(2, 8, 2.0f);
    list->scaleWithRampStart(1.0f, 0.0f, NSMakeLongRange(0, 4));
    list->scaleWithRampStart(0.0f, -1.0f, NSMakeLongRange(4, 4));
    EXPECT_EQ(samplesOf(*list, 1), (std::vector<float>{2, 1.5f, 1, 0.5f, 0, -0.5f, -1, -1.5f}));
    auto long_ = constantList(1, 512, 1.0f);
    long_->fadeOut();
    EXPECT_EQ(long_->valueAtFrame(511), 1.0f / 512);
    // Longer than the stack block it is made in.
    auto ramp = constantList(1, 3005, 1.0f);
    ramp->scaleWithRampStart(0.25f, 1.75f, 0, NSMakeLongRange(2, 3001));
    const auto values = samplesOf(*ramp, 0);
    EXPECT_EQ(values[1] + values[3003], 2.0f);
    EXPECT_EQ(values[2], 0.25f);
    for (std::size_t i = 3; i < 3003; ++i) {
        ASSERT_NEAR(values[i] - values[i - 1], 1.5 / 3001, 1e-6) << i;
    }
    EXPECT_NEAR(values[3002], 1.75 - 1.5 / 3001, 1e-6);
}

// Statistics cover the frames; NaN is skipped by the extremes and carried by the sums.
TEST(KROAudioBufferList, StatisticsFollowTheLevelMeaningsOfTheirNames) {
    auto list = makeList(2, 70);
    std::vector<float> values = randomSamples(70, 3, 0.5f);
    values[0] = values[17] = values[69] = kNaN;
    values[20] = 0.875f;
    values[66] = -0.9375f;
    fillChannel(*list, 0, values);
    fillChannel(*list, 1, {1, -1, 1, -1, 100});
    EXPECT_EQ(list->maximumOfChannel(0), 0.875f);
    EXPECT_EQ(list->minimumOfChannel(0), -0.9375f);
    EXPECT_EQ(list->magnitude(), 100.0f);
    EXPECT_TRUE(std::isnan(list->energy()) && std::isnan(list->rms()));
    ASSERT_TRUE(list->setFrames(4));
    EXPECT_EQ(list->averageOfChannel(1), 1.0f);
    EXPECT_EQ(list->energyOfChannel(1), 4.0f);
    EXPECT_EQ(list->maximumOfChannel(2) + list->rmsOfChannel(2) + list->averageOfChannel(2), 0);
    ASSERT_TRUE(list->setFrames(0));
    EXPECT_EQ(list->maximum(), -kInfinity);
    EXPECT_EQ(list->minimum(), kInfinity);
    EXPECT_EQ(list->magnitude() + list->energy(), 0.0f);
}

// With a tail past the kernels' lanes.
TEST(KROAudioBufferList, StatisticsMatchNumpy) {
    if (KRORunPython("import numpy\n").status != 0) {
        GTEST_SKIP() << "numpy is not installed (scripts/install-deps installs python3-numpy)";
    }
    auto list = makeList(3, 4099);
    KROScratchDirectory directory;
    std::string samples;
    for (std::uint32_t channel = 0; channel < 3; ++channel) {
        const auto values = randomSamples(4099, 7 + channel, channel == 2 ? 4.0f : 1.0f);
        fillChannel(*list, channel, values);
        samples.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
    }
    KROWriteFile(directory / "samples", samples);
    std::istringstream lines(
        KRORunPython("import sys, numpy as np\n"
                     "x = np.fromfile(sys.argv[1], dtype=np.float32).astype(float).reshape(3, -1)\n"
                     "r = np.array([[c.max(), c.min(), abs(c).max(), np.sqrt(np.mean(c * c)),"
                     " np.mean(abs(c)), np.sum(c * c)] for c in x])\n"
                     "for row in list(r) + [[r[:, 0].max(), r[:, 1].min(), r[:, 2].max(),"
                     " np.sqrt(np.mean(r[:, 3] ** 2)), r[:, 4].mean(), r[:, 5].mean()]]:\n"
                     "    print(*map(repr, map(float, row)))\n",
                     (directory / "samples").string())
            .output);
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

// From either end; NaN is a hit; the list form takes the first channel with a hit.
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
}
