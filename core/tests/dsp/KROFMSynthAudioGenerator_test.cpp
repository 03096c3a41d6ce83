// The FM voice against closed forms of frequency modulation; controls, envelope, delay.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROFMSynthAudioGenerator.h"

using namespace kro_dsp_test;

namespace {

using Synth = KROFMSynthAudioGenerator;

struct Voice {
    explicit Voice(double rate = 48000.0, std::uint32_t channels = 2)
        : chain(makeChain("KROFMSynthAudioGenerator", nullptr, channels, 512, rate)),
          synth(chain.sourceAs<Synth>()) {}

    void play(float semitone, float level, bool began = true) {
        const KROMusicalNoteSet notes{KROMusicalNote::noteWithSemitone(semitone, level)};
        began ? synth->notesBegan(notes) : synth->notesChanged(notes);
    }
    // Renders blocks of 512 frames; channel 0 out.
    std::vector<float> render(std::size_t blocks) {
        std::vector<float> out;
        for (std::size_t block = 0; block < blocks; ++block) {
            const auto& buffer = chain.render(512);
            EXPECT_TRUE(std::equal(buffer.channel(0), buffer.channel(0) + 512, buffer.channel(1)));
            out.insert(out.end(), buffer.channel(0), buffer.channel(0) + 512);
        }
        return out;
    }

    Chain chain;
    std::shared_ptr<Synth> synth;
};

KROPropertyList carrier(double index, double mix, double sustain = 1.0) {
    KROPropertyList properties = KROPropertyList::dictionary();
    properties.setObjectForKey("modulationIndex", index);
    properties.setObjectForKey("mix", mix);
    properties.setObjectForKey("sustain", sustain);
    return properties;
}

KROPropertyList settingsWith(KROPropertyList::Array carriers, double distortion = 0.0,
                             double delayTime = 0.0, double delayFeedback = 0.0) {
    KROPropertyList settings = KROPropertyList::dictionary();
    settings.setObjectForKey("carriers", KROPropertyList(std::move(carriers)));
    settings.setObjectForKey("distortion", distortion);
    settings.setObjectForKey("delayTime", delayTime);
    settings.setObjectForKey("delayFeedback", delayFeedback);
    return settings;
}

// sum of sin(k theta) for k = 1 .. n.
double sineSum(double theta, double n) {
    return std::sin(n * theta / 2.0) * std::sin((n + 1.0) * theta / 2.0) / std::sin(theta / 2.0);
}

} // namespace

// With the envelope at sustain 1 and full amplitude, frame n (counted from 1
// at the note) is sin(n wc + I theta S(n)) for the modulator step theta and
// S(n) = sum of sin(k theta): the carrier's phase integrates the modulator.
// Tuning moves the carrier, distortion adds min(d, 1) tanh(d x).
TEST(KROFMSynthAudioGenerator, NotesFollowTheClosedFormOfFrequencyModulation) {
    const struct {
        const char* what;
        double index, tuning, distortion;
    } cases[] = {
        {"plain sine", 0.0, 0.0, 0.0},
        {"index 2", 2.0, 0.0, 0.0},
        {"index 5, carrier a fifth up", 5.0, 7.0, 0.0},
        {"index 1, distortion 3", 1.0, 0.0, 3.0},
        {"index 1, distortion 0.5", 1.0, 0.0, 0.5},
    };
    const double rate = 48000.0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Voice voice(rate);
        KROPropertyList first = carrier(c.index, 1.0);
        first.setObjectForKey("tuning", c.tuning);
        ASSERT_TRUE(
            voice.synth->setSettings(settingsWith({first, carrier(9.0, 0.0)}, c.distortion)));
        voice.play(69.0f, 0.0f);
        voice.synth->initializeForRender();
        const auto out = voice.render(4);
        const double theta = 2.0 * M_PI * 440.0 / rate;
        const double wc = 2.0 * M_PI * 440.0 * std::exp2(c.tuning / 12.0) / rate;
        for (std::size_t i : {0u, 1u, 37u, 511u, 900u, 1500u, 2047u}) {
            const double n = double(i + 1);
            const double x = std::sin(n * wc + c.index * theta * sineSum(theta, n));
            const double y = x + std::min(c.distortion, 1.0) * std::tanh(c.distortion * x);
            EXPECT_NEAR(out[i], y, 4e-3) << "frame " << i;
        }
    }
}

// Envelopes and LFOs step once every 32 frames: at 32 kHz an attack of one
// second has 1000 ticks, so after n frames the envelope is ceil(n / 32) / 1000.
// An attack of 0 starts in the decay, here 0.1 s (100 ticks) down to 0.5.
TEST(KROFMSynthAudioGenerator, ControlsMoveAtAThirtySecondOfTheRate) {
    Voice voice(32000.0);
    KROPropertyList slow = carrier(1.0, 0.5, 0.5);
    slow.setObjectForKey("attack", 1.0);
    slow.setObjectForKey("lfoFrequency", 2.0);
    slow.setObjectForKey("lfoDepth", 0.5);
    KROPropertyList decaying = carrier(1.0, 0.5, 0.5);
    decaying.setObjectForKey("decay", 0.1);
    ASSERT_TRUE(voice.synth->setSettings(settingsWith({slow, decaying})));
    voice.play(60.0f, -6.0f);
    const auto& attack = *voice.synth->carrierAtIndex(0);
    const auto& decay = *voice.synth->carrierAtIndex(1);
    EXPECT_EQ(voice.synth->carrierAtIndex(2), nullptr);
    for (std::uint64_t frames : {1u, 32u, 33u, 100u, 512u}) {
        SCOPED_TRACE(frames);
        voice.synth->notesBegan({KROMusicalNote::noteWithSemitone(60.0f, -6.0f)});
        voice.chain.render(frames);
        const auto ticks = double((frames + 31) / 32);
        EXPECT_EQ(voice.synth->controlIndex(), std::uint64_t(ticks));
        EXPECT_FLOAT_EQ(attack.envelopeValue, float(ticks / 1000.0));
        EXPECT_FLOAT_EQ(decay.envelopeValue, float(1.0 - 0.5 * (ticks / 100.0)));
        EXPECT_NEAR(attack.lfoValue, 0.5 * std::sin(std::fmod(attack.lfoPhase, 2 * M_PI)), 1e-6);
    }
    // The LFO's phase went on across the notes: 1 + 1 + 2 + 4 + 16 ticks of 2 Hz.
    EXPECT_NEAR(attack.lfoPhase, 24.0 * 2.0 * 2.0 * M_PI / 1000.0, 1e-5);
}

// A level of -20 dB is reached by a straight ramp across the next block; at
// the end of a note the amplitude falls to 0 in 200 ticks, stepping every 32
// frames, while pitch and target stay. notesBegan restarts a released note;
// notesChanged does not.
TEST(KROFMSynthAudioGenerator, TheAmplitudeRampsAndReleases) {
    Voice voice;
    ASSERT_TRUE(voice.synth->setSettings(settingsWith({carrier(0.0, 1.0), carrier(0.0, 0.0)})));
    voice.play(69.0f, -20.0f);
    auto plain = [](std::size_t i) {
        return std::sin(double(i + 1) * 2.0 * M_PI * 440.0 / 48000.0);
    };
    const auto ramp = voice.render(2);
    for (std::size_t i : {100u, 300u, 511u, 700u}) {
        const double gain = i < 512 ? 0.1 * double(i) / 512.0 : 0.1;
        EXPECT_NEAR(ramp[i], gain * plain(i), 2e-4) << i;
    }
    voice.synth->notesEnded({});
    const auto release = voice.render(13);
    for (std::size_t i : {0u, 40u, 3201u, 6000u, 6390u}) {
        const double ticks = double(i / 32 + 1);
        EXPECT_NEAR(release[i], 0.1 * std::max(0.0, 1.0 - ticks / 200.0) * plain(1024 + i), 2e-4)
            << i;
    }
    EXPECT_TRUE(
        std::all_of(release.begin() + 6400, release.end(), [](float x) { return x == 0.0f; }));
    voice.play(69.0f, -20.0f, false);
    EXPECT_TRUE(voice.synth->releasing());
    voice.play(69.0f, -20.0f);
    EXPECT_FALSE(voice.synth->releasing());
    EXPECT_NE(voice.render(1)[100], 0.0f);
}

// The delay line repeats the voice L - 1 frames later (L = delayTime times the
// rate), scaled by the feedback each time; a feedback of 1 never decays.
TEST(KROFMSynthAudioGenerator, TheFeedbackDelayRepeatsAndKeepsItsLimits) {
    for (double feedback : {0.5, 1.0, 7.0}) {
        SCOPED_TRACE(feedback);
        Voice voice;
        ASSERT_TRUE(voice.synth->setSettings(
            settingsWith({carrier(1.0, 1.0), carrier(0.0, 0.0)}, 0.0, 0.01, feedback)));
        EXPECT_EQ(voice.synth->delayFeedback(), std::min(feedback, 1.0));
        voice.play(57.0f, 0.0f);
        voice.render(1);
        voice.synth->notesEnded({});
        const auto out = voice.render(16);
        const std::size_t period = 479;
        for (std::size_t i : {6400u, 6900u, 7777u, 8000u}) {
            EXPECT_FLOAT_EQ(out[i], out[i - period] * float(std::min(feedback, 1.0))) << i;
        }
        EXPECT_NE(out[8000], 0.0f);
    }
    Voice voice;
    voice.synth->setDelayTime(100.0);
    voice.synth->setDistortion(-3.0f);
    EXPECT_EQ(voice.synth->delayTime(), 2.0);
    EXPECT_EQ(voice.synth->distortion(), 0.0f);
}

// More than two carriers are ignored, absent keys read as 0 (the release at
// its floor); notes that are not finite are ignored; rendering allocates
// nothing, also at odd rates.
TEST(KROFMSynthAudioGenerator, SettingsBadNotesAndRendering) {
    Voice voice;
    KROPropertyList empty = KROPropertyList::dictionary();
    ASSERT_TRUE(
        voice.synth->setSettings(settingsWith({empty, carrier(2.0, 1.0), carrier(3.0, 1.0)})));
    const auto& first = *voice.synth->carrierAtIndex(0);
    EXPECT_EQ(first.modulationIndex(), 0.0f);
    EXPECT_EQ(first.releaseLength(), 1e-06f);
    EXPECT_EQ(voice.synth->carrierAtIndex(1)->modulationIndex(), 2.0f);

    voice.play(69.0f, -6.0f);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float infinity = std::numeric_limits<float>::infinity();
    for (const auto& [semitone, level] :
         {std::pair{nan, 0.0f}, {infinity, 0.0f}, {60.0f, nan}, {60.0f, infinity}}) {
        voice.play(semitone, level);
    }
    EXPECT_FLOAT_EQ(voice.synth->modFreq(), 440.0f);
    voice.render(1);
    KRO_EXPECT_NO_ALLOCATION(for (int i = 0; i < 4; ++i) voice.chain.render(512));
    const auto more = voice.render(4);
    EXPECT_TRUE(std::all_of(more.begin(), more.end(), [](float x) { return std::isfinite(x); }));

    for (double rate : {0.0, 1.0, 1e12}) {
        SCOPED_TRACE(rate);
        Voice odd(rate);
        odd.synth->setDelayTime(1.0);
        odd.synth->setDelayFeedback(1.0f);
        odd.play(69.0f, 0.0f);
        const auto silentOrFinite = odd.render(2);
        EXPECT_TRUE(std::all_of(silentOrFinite.begin(), silentOrFinite.end(),
                                [](float x) { return std::isfinite(x); }));
    }
}
