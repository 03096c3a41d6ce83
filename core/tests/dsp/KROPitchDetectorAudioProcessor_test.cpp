// The pitch tracker against known tones and aubio's yin; its processor, bad input, threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <random>
#include <sstream>
#include <thread>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROPitchDetectorAudioProcessor.h"
#include "ko_sst.h"

using namespace kro_dsp_test;

namespace {

constexpr double kRate = 44100.0;

struct Result {
    float semitone, level;
    std::int64_t position;
    std::int32_t event;
};

// A tracker whose callbacks are kept.
struct Tracker {
    explicit Tracker(std::int32_t step = 1024, float f0 = 440.0f * 0.018581361f) {
        EXPECT_EQ(ko_sst__create(kRate, f0, step, &context), 0);
        ko_sst__set_output_destination(context, collect, this);
    }
    ~Tracker() { ko_sst__destroy(context); }
    static void collect(float semitone, float level, void* self, std::int64_t position,
                        std::int32_t event) {
        static_cast<Tracker*>(self)->results.push_back({semitone, level, position, event});
    }
    void feed(const std::vector<float>& samples, std::int32_t block = 512) {
        for (std::size_t at = 0; at < samples.size(); at += std::size_t(block)) {
            const auto count = std::int32_t(std::min<std::size_t>(block, samples.size() - at));
            ko_sst__process_input_samples(context, samples.data() + at, count, std::int64_t(at));
        }
    }
    ko_sst_t* context = nullptr;
    std::vector<Result> results;
};

// Sum of harmonics 1 .. count at amplitude weight(h), seconds long.
std::vector<float> harmonics(double hertz, int count, double seconds,
                             const std::function<double(int)>& weight) {
    std::vector<float> samples(std::size_t(seconds * kRate));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        double sum = 0.0;
        for (int h = 1; h <= count && h * hertz < kRate / 2; ++h) {
            sum += weight(h) * std::sin(2.0 * M_PI * h * hertz * double(i) / kRate + 0.3 * h);
        }
        samples[i] = float(sum);
    }
    return samples;
}

double semitoneOf(double hertz) {
    return 69.0 + 12.0 * std::log2(hertz / 440.0);
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return std::nan("");
    }
    std::nth_element(values.begin(), values.begin() + std::ptrdiff_t(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

// aubio's yin on the same samples and hop, as MIDI note numbers: the median of
// its steady frames.
double aubioSemitone(const std::vector<float>& samples) {
    const auto raw = rawFloatFile("pitch.f32", samples);
    const auto wave = raw.parent_path() / (raw.filename().string() + ".wav");
    const auto run = KRORunCommand("sox -t f32 -r 44100 -c 1 '" + raw.string() + "' '" +
                                   wave.string() + "' && aubiopitch -i '" + wave.string() +
                                   "' -p yin -B 2048 -H 1024 -u midi 2>&1");
    std::filesystem::remove(raw);
    std::filesystem::remove(wave);
    std::istringstream lines(run.output);
    std::vector<double> notes;
    double time = 0.0, note = 0.0;
    while (lines >> time >> note) {
        if (time > 0.1) {
            notes.push_back(note);
        }
    }
    EXPECT_FALSE(notes.empty()) << run.output;
    return median(notes);
}

double trackedSemitone(const std::vector<float>& samples) {
    Tracker tracker;
    tracker.feed(samples);
    std::vector<double> notes;
    for (const Result& result : tracker.results) {
        if (result.semitone != 0.0f) {
            notes.push_back(result.semitone);
        }
    }
    EXPECT_GT(notes.size(), tracker.results.size() / 2);
    return median(notes);
}

} // namespace

// Clean tones across the range read within 3 cents of their frequency, and
// within 5 cents of aubio's yin on the same samples. Above 1 kHz a period is
// under 44 samples and the kept doubled vertex offset costs up to 8 cents.
TEST(ko_sst, PitchesOfCleanTonesAgreeWithTheirFrequencyAndWithAubio) {
    const auto sawtooth = [](int h) { return 0.3 / h; };
    const auto voiced = [](int h) { return 0.6 * std::exp(-0.5 * (h - 1)) * (h == 2 ? 1.6 : 1.0); };
    const struct {
        const char* what;
        double hertz;
        std::vector<float> samples;
        double cents = 3.0;
    } cases[] = {
        {"sine 55 Hz", 55.0, harmonics(55.0, 1, 1.0, [](int) { return 0.5; })},
        {"sine 440 Hz", 440.0, sine(-6.0, 440.0, 1.0, kRate)},
        {"sine 1661 Hz", 1661.0, harmonics(1661.0, 1, 1.0, [](int) { return 0.3; }), 8.0},
        {"sawtooth 98 Hz", 98.0, harmonics(98.0, 60, 1.0, sawtooth)},
        {"sawtooth 622 Hz", 622.25, harmonics(622.25, 30, 1.0, sawtooth)},
        {"voice-like 185 Hz, strong second harmonic", 185.0, harmonics(185.0, 20, 1.0, voiced)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const double ours = trackedSemitone(c.samples);
        EXPECT_NEAR(ours, semitoneOf(c.hertz), c.cents / 100.0);
        EXPECT_NEAR(ours, aubioSemitone(c.samples), (c.cents + 2.0) / 100.0);
    }
}

// S = 1024: a window of 2048, an FFT of 4096; the first analysis after 2048
// samples, then one every 1024, at any block size. Silence, NaN and a step of
// noise report 0, 0, 0; a note holds its event number through a slow glide
// and a silent gap starts the next.
TEST(ko_sst, StepsEventsAndSilence) {
    for (std::int32_t block : {1, 100, 1024, 5000}) {
        SCOPED_TRACE(block);
        Tracker tracker;
        tracker.feed(std::vector<float>(2047, 0.0f), block);
        EXPECT_TRUE(tracker.results.empty());
        tracker.feed(std::vector<float>(1 + 1024 * 3, 0.0f), block);
        ASSERT_EQ(tracker.results.size(), 4u);
        for (const Result& result : tracker.results) {
            EXPECT_EQ(result.semitone, 0.0f);
            EXPECT_EQ(result.level, 0.0f);
            EXPECT_EQ(result.event, 0);
        }
        // Half a step before the last position of the call before.
        if (block == 1024) {
            EXPECT_EQ(tracker.results[0].position, 2046 - 512);
            EXPECT_EQ(tracker.results[3].position, 3071 - 512);
        }
    }

    std::vector<float> glide(44100);
    double phase = 0.0;
    for (std::size_t i = 0; i < glide.size(); ++i) {
        // From 440 Hz up one semitone in a second: 1/43 semitone a step.
        phase += 2.0 * M_PI * 440.0 * std::exp2(double(i) / kRate / 12.0) / kRate;
        glide[i] = float(0.5 * std::sin(phase));
    }
    std::vector<float> song = glide;
    song.insert(song.end(), 8192, 0.0f);
    song.insert(song.end(), glide.begin(), glide.end());
    std::fill_n(song.begin() + 20000, 4, std::numeric_limits<float>::quiet_NaN());
    Tracker tracker;
    tracker.feed(song);
    std::vector<std::int32_t> events;
    for (const Result& result : tracker.results) {
        if (events.empty() || events.back() != result.event) {
            events.push_back(result.event);
        }
    }
    EXPECT_EQ(events, (std::vector<std::int32_t>{1, 0, 2, 0, 3}));
    // log2 of the mean square of a sine of amplitude 0.5: log2(0.125) = -3.
    EXPECT_NEAR(tracker.results.back().level, -3.0f, 0.01f);
    EXPECT_NEAR(tracker.results.back().semitone, 70.0f, 0.05f);
}

// Each refused call returns 1, prints its one line and changes nothing.
TEST(ko_sst, RefusedCallsPrintTheirLine) {
    Tracker tracker;
    ko_sst_t* made = tracker.context;
    const float samples[4] = {};
    const std::string create = "ko_sst__create -- error: specified ";
    const std::pair<std::function<int()>, std::string> cases[] = {
        {[&] { return ko_sst__create(0.0, 8.0f, 1024, &made); },
         create + "sample_rate_hz is 0.000000; it should be greater than zero"},
        {[&] { return ko_sst__create(kRate, 8.0f, 0, &made); },
         create + "step_nsamp is 0; it should be greater than zero"},
        {[&] { return ko_sst__create(kRate, -1.0f, 1024, &made); },
         create + "f0_hz is -1.000000; it should be greater than zero"},
        {[&] { return ko_sst__create(kRate, 8.0f, 1 << 30, &made); },
         "ko_sst__create -- couldn't create fft_setup"},
        {[&] { return ko_sst__destroy(nullptr); },
         "ko_sst__destroy -- error: specified module context is NULL"},
        {[&] { return ko_sst__set_foo(tracker.context, -0.5f); },
         "ko_sst__set_foo -- error: specified foo is -0.500000; it should be >= 0.0"},
        {[&] { return ko_sst__process_input_samples(tracker.context, nullptr, 4, 0); },
         "ko_sst__process_input_samples -- error: specified input sample array is NULL"},
        {[&] { return ko_sst__process_input_samples(tracker.context, samples, 0, 0); },
         "ko_sst__process_input_samples -- error: specified in_n_samp is 0; it should be "
         "greater than zero"},
        {[&] { return ko_sst__process_input_samples(nullptr, samples, 4, 0); },
         "ko_sst__process_input_samples -- error: specified module context is NULL"},
    };
    for (const auto& [call, line] : cases) {
        SCOPED_TRACE(line);
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line + "\n");
    }
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(ko_sst__set_foo(tracker.context, 0.0f), 0);
}

namespace {

Chain pitchChain(double rate = kRate) {
    return makeChain("KROTestGenerator", "KROPitchDetectorAudioProcessor", 2, 512, rate);
}

// The published semitone after each step of 1024 frames of the samples.
std::vector<float> publishedSteps(Chain& chain, const std::vector<float>& samples) {
    auto detector = chain.meterAs<KROPitchDetectorAudioProcessor>();
    const Channels channels = {samples};
    std::vector<float> published;
    for (std::size_t start = 0; start + 1024 <= samples.size(); start += 1024) {
        chain.renderSamples(channels, start, 512);
        chain.renderSamples(channels, start + 512, 512);
        published.push_back(detector->semitone());
    }
    return published;
}

} // namespace

// The published pitch follows the common whole semitone of the last ten
// steps: a note shows at its fifth step (ties go to the first in the ring),
// and silence wins back at its fifth. The audio passes untouched.
TEST(KROPitchDetectorAudioProcessor, PublishesTheSmoothedSemitoneAndPower) {
    Chain chain = pitchChain();
    auto detector = chain.meterAs<KROPitchDetectorAudioProcessor>();
    std::vector<float> tone(1024 * 11, 0.0f);
    const auto a4 = sine(-6.0, 440.0, 10 * 1024 / kRate, kRate);
    std::copy(a4.begin(), a4.end(), tone.begin() + 1024);
    tone.insert(tone.end(), 1024 * 8, 0.0f);
    const auto steps = publishedSteps(chain, tone);
    // Analyses end steps 1 to 10 on the tone, which reads from step 1 on.
    for (std::size_t step = 0; step < steps.size(); ++step) {
        SCOPED_TRACE(step);
        const bool showing = step >= 5 && step <= 14;
        EXPECT_NEAR(steps[step], showing ? 69.0f : 0.0f, 0.02f);
    }
    const Channels channels = {a4};
    const auto& out = chain.renderSamples(channels, 1000, 512);
    EXPECT_TRUE(std::equal(out.channel(1), out.channel(1) + 512, a4.begin() + 1000));

    detector->setSemitoneSmoothingEnabled(false);
    detector->setReferenceFrequency(415.0);
    publishedSteps(chain, a4);
    EXPECT_NEAR(detector->semitone(), 69.0f + 12.0f * std::log2(440.0f / 415.0f), 0.02f);
    // Mean square 0.125: level log2 = -3, shown as 10^(-3/20).
    EXPECT_NEAR(detector->power(), std::pow(10.0f, -3.0f / 20.0f), 1e-3f);

    // Within one semitone the fractions of the ring's mean and of the value
    // shown are averaged; a new semitone is shown as the mean.
    detector->setSemitoneSmoothingEnabled(true);
    for (int i = 0; i < 10; ++i) {
        detector->didDetectSemitone(0.0f);
    }
    for (int i = 0; i < 6; ++i) {
        detector->didDetectSemitone(60.2f);
    }
    const float mean = (6 * 60.2f + 60.4f) / 7;
    const float second = (mean + 60.2f) / 2, third = (mean + second) / 2;
    const std::pair<float, float> detectedAndShown[] = {
        {60.4f, second}, {62.0f, third}, {0.0f, (mean + third) / 2}};
    for (const auto& [detected, shown] : detectedAndShown) {
        detector->didDetectSemitone(detected);
        EXPECT_NEAR(detector->semitone(), shown, 1e-5f) << detected;
    }
    detector->setSemitoneSmoothingEnabled(false);
    const float before = detector->power();
    detector->setPowerSmoothingEnabled(true);
    publishedSteps(chain, std::vector<float>(1024, 0.0f));
    // One step of silence: the level falls by 0.01^(1024 / 44100 / 0.3).
    EXPECT_NEAR(detector->power(), before * std::pow(0.01f, 1024.0f / 44100.0f / 0.3f), 1e-6f);
}

// Bad samples and rates never reach the published values as NaN; a square
// at full scale has a pitch; rendering allocates nothing; rebuilding from a
// host thread while rendering is safe.
TEST(KROPitchDetectorAudioProcessor, BadInputAndRebuildsWhileRendering) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<float> square(8192);
    for (std::size_t i = 0; i < square.size(); ++i) {
        square[i] = (i % 100) < 50 ? 1.0f : -1.0f;
    }
    const struct {
        const char* what;
        std::vector<float> samples;
        float semitone;
    } cases[] = {
        {"NaN", std::vector<float>(8192, nan), 0.0f},
        {"infinity", std::vector<float>(8192, std::numeric_limits<float>::infinity()), 0.0f},
        {"DC", std::vector<float>(8192, 0.5f), 0.0f},
        {"full-scale square at 441 Hz", square, float(semitoneOf(441.0))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Chain chain = pitchChain();
        auto detector = chain.meterAs<KROPitchDetectorAudioProcessor>();
        detector->setSemitoneSmoothingEnabled(false);
        publishedSteps(chain, c.samples);
        EXPECT_NEAR(detector->semitone(), c.semitone, 0.03f);
        EXPECT_FALSE(std::isnan(detector->power()));
    }

    Chain chain = pitchChain(0.0);
    publishedSteps(chain, square);
    EXPECT_EQ(chain.meterAs<KROPitchDetectorAudioProcessor>()->semitone(), 0.0f);

    Chain running = pitchChain();
    auto detector = running.meterAs<KROPitchDetectorAudioProcessor>();
    running.sourceAs<KROTestGenerator>()->signal = [](std::uint64_t frame, std::uint32_t) {
        return float(std::sin(2.0 * M_PI * 440.0 * double(frame) / kRate));
    };
    running.render(512);
    KRO_EXPECT_NO_ALLOCATION(for (int i = 0; i < 16; ++i) running.render(512));
    std::atomic<bool> done{false};
    std::thread host([&] {
        for (int i = 0; !done.load(); ++i) {
            detector->setAnalysisFrames(i % 2 ? 1024 : 512);
        }
    });
    for (int i = 0; i < 200; ++i) {
        running.render(512);
    }
    done.store(true);
    host.join();
    EXPECT_FALSE(std::isnan(detector->semitone()));
}
