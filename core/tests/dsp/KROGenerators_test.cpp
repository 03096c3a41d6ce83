// The tone and noise generators: closed forms, ramps, pink rows, numpy, robustness.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <numeric>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROMusicalNote.h"
#include "KROPinkNoiseAudioGenerator.h"
#include "KROSineWaveAudioGenerator.h"
#include "KROSineWaveSynthAudioGenerator.h"

using namespace kro_dsp_test;
using Sine = KROSineWaveAudioGenerator;
using Synth = KROSineWaveSynthAudioGenerator;
using Pink = KROPinkNoiseAudioGenerator;

namespace {

const char* const kGenerators[] = {"KROSineWaveAudioGenerator", "KROSineWaveSynthAudioGenerator",
                                   "KROPinkNoiseAudioGenerator"};

KROMusicalNoteSet note(float semitone, float level) {
    return {KROMusicalNote::noteWithSemitone(semitone, level)};
}

// The largest distance from the tone at the phase, its gain from g0 to g1 linearly.
double distanceFromTone(const KROAudioBufferList& buffer, double hertz, double phase,
                        double g0 = 1.0, double g1 = 1.0) {
    double worst = 0.0;
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        for (std::uint64_t i = 0; i < buffer.frames(); ++i) {
            const double gain = g0 + (g1 - g0) * double(i) / double(buffer.frames());
            const double tone = gain * std::sin(2 * M_PI * hertz * double(i) / 48000.0 + phase);
            worst = std::max(worst, std::fabs(buffer.channel(channel)[i] - tone));
        }
    }
    return worst;
}

} // namespace

// Kept: the phase adds the fractional cycles and is never wrapped.
TEST(KROSineWaveAudioGenerator, TheToneFollowsItsClosedForm) {
    Chain chain = makeChain(kGenerators[0], nullptr, 4, 480);
    for (int block = 0; block < 50; ++block) {
        ASSERT_LT(distanceFromTone(chain.render(480), 1000.0, 0.0), 2e-7);
    }
    Chain drifting = makeChain(kGenerators[0], nullptr, 1, 441);
    const auto sine = drifting.get<Sine>("source");
    sine->setFrequency(440.0f);
    double worst = 0.0;
    for (int block = 0; block < 109; ++block) {
        worst = std::max(worst, distanceFromTone(drifting.render(441), 440.0,
                                                 2 * M_PI * 440.0 * block * 441 / 48000.0));
    }
    EXPECT_LT(worst, 2e-3);
    const double cycles = 441 * 440.0 / 48000.0;
    EXPECT_NEAR(sine->lastPhase(), 109 * (cycles - std::floor(cycles)) * 2 * M_PI, 1e-3);
    EXPECT_TRUE(sine->reset() && sine->lastPhase() == 0.0f);
}

// No note is silence; a note rises over one block, its end falls over one.
TEST(KROSineWaveSynthAudioGenerator, NotesRampTheToneOverOneBlock) {
    Chain chain = makeChain(kGenerators[1], nullptr, 3, 512);
    const auto synth = chain.get<Synth>("source");
    EXPECT_EQ(std::bit_cast<std::uint32_t>(synth->level()), 0xff7fffffu);
    EXPECT_EQ(chain.render(512).magnitude() + chain.render(512).magnitude(), 0.0f);
    synth->notesBegan(note(69.0f, -6.0f));
    const double gain = std::pow(10.0, -6.0 / 20.0);
    for (const auto& [from, to] : {std::pair(0.0, gain), {gain, gain}, {gain, 0.0}}) {
        if (to == 0.0) {
            synth->notesEnded(note(69.0f, -6.0f));
        }
        const double phase = synth->lastPhase();
        EXPECT_LT(distanceFromTone(chain.render(512), 440.0, phase, from, to), 1e-6);
    }
    EXPECT_EQ(chain.render(512).magnitude(), 0.0f);
    synth->notesBegan(note(72.0f, -3.0f));
    chain.render(100);
    synth->setLevel(-20.0f);
    const float phase = synth->lastPhase();
    chain.render(0);
    EXPECT_EQ(std::pair(synth->lastLevel(), synth->lastPhase()), std::pair(-20.0f, phase));
    EXPECT_TRUE(synth->reset() && synth->lastPhase() == 0.0f);
    EXPECT_EQ(chain.render(300).channel(0)[0], 0.0f);
}

// Note 69 is 440 Hz; of several notes one is taken whole.
TEST(KROSineWaveSynthAudioGenerator, NotesSetTheFrequencyAndLevel) {
    auto synth = std::make_shared<Synth>();
    ASSERT_TRUE(synth->init());
    for (const auto& [semitone, hertz] :
         {std::pair(60.0f, 261.6255653005986), {81.0f, 880.0}, {69.5f, 452.8929841231365}}) {
        synth->notesChanged(note(semitone, -1.0f));
        EXPECT_EQ(synth->frequency(), static_cast<float>(hertz)) << semitone;
    }
    const KROMusicalNoteSet chord = {KROMusicalNote::noteWithSemitone(60.0f, -1.0f),
                                     KROMusicalNote::noteWithSemitone(64.0f, -2.0f)};
    synth->notesChanged(chord);
    synth->notesChanged({});
    const auto taken = std::find_if(chord.begin(), chord.end(), [&](const auto& note) {
        return Synth::frequencyOfSemitone(note->semitone()) == synth->frequency();
    });
    ASSERT_NE(taken, chord.end());
    EXPECT_EQ(synth->level(), (*taken)->level());
    synth->notesEnded(chord);
    EXPECT_EQ(std::pair(synth->level(), synth->frequency()),
              std::pair(Synth::silenceLevel, Synth::frequencyOfSemitone((*taken)->semitone())));
}

// Each frame redraws the row of the index's trailing zero bits (wrapping after
// 524,287), then a white value.
TEST(KROPinkNoiseAudioGenerator, EachRowChangesAtItsOctave) {
    Chain chain = makeChain(kGenerators[2], nullptr, 1, 1);
    const Pink::Noise& noise = *chain.get<Pink>("source")->noiseOfChannel(0);
    std::uint64_t mismatches = 0;
    for (std::uint64_t frame = 1; frame <= 524288; ++frame) {
        auto expected = noise.rows;
        std::int64_t seed = Pink::randSeed();
        chain.render(1);
        if (noise.index != 0) {
            expected[std::size_t(std::countr_zero(std::uint32_t(noise.index)))] = Pink::step(seed);
        }
        Pink::step(seed);
        mismatches +=
            noise.index != std::int32_t(frame & 0x7ffff) || noise.rows != expected ||
            Pink::randSeed() != seed ||
            std::accumulate(expected.begin(), expected.end(), std::int64_t{0}) != noise.runningSum;
    }
    EXPECT_EQ(mismatches, 0u);
}

// One seed for every channel of every stream; pink noise has no reset.
TEST(KROPinkNoiseAudioGenerator, AllChannelsDrawFromOneSeed) {
    std::vector<float> first;
    for (const std::uint32_t channels : {1u, 2u}) {
        Chain chain = makeChain(kGenerators[2], nullptr, channels, 1000);
        std::int64_t seed = Pink::randSeed();
        const KROAudioBufferList& buffer = chain.render(1000);
        for (std::uint32_t draw = 0; draw < 2000 * channels; ++draw) {
            Pink::step(seed);
        }
        EXPECT_EQ(Pink::randSeed(), seed);
        const std::vector<float> samples(buffer.channel(0), buffer.channel(0) + 1000);
        EXPECT_NE(samples, first);
        EXPECT_FALSE(channels == 2 &&
                     std::equal(samples.begin(), samples.end(), buffer.channel(1)));
        first = samples;
        const auto pink = chain.get<Pink>("source");
        const auto rows = pink->noiseOfChannel(0)->rows;
        EXPECT_TRUE(chain.stream->reset() && pink->noiseOfChannel(0)->rows == rows);
        EXPECT_TRUE(chain.stream->uninitialize() && !pink->noiseOfChannel(0));
    }
}

// About -10 dB a decade; the RMS of 20 uniform 24-bit values scaled by 2^-23 / 10.
TEST(KROPinkNoiseAudioGenerator, TheSpectrumAndRmsMatchNumpy) {
    if (KRORunCommand("/usr/bin/python3 -c 'import numpy'").status != 0) {
        GTEST_SKIP() << "/usr/bin/python3 with numpy is missing (scripts/install-deps installs it)";
    }
    Chain chain = makeChain(kGenerators[2], nullptr, 1, 4096);
    std::vector<float> samples;
    double sumOfSquares = 0.0;
    for (int block = 0; block < 640; ++block) {
        const float* rendered = chain.render(4096).channel(0);
        samples.insert(samples.end(), rendered, rendered + (block < 128 ? 0 : 4096));
    }
    for (const float sample : samples) {
        sumOfSquares += double(sample) * sample;
    }
    const double ours = std::sqrt(sumOfSquares / double(samples.size()));
    const auto path = rawFloatFile("pink.f32", samples);
    const std::string output =
        KRORunCommand("/usr/bin/python3 '" KRO_SOURCE_DIR "/core/tests/dsp/pink_spectrum.py' '" +
                      path.string() + "' 48000 20 10000")
            .output;
    std::filesystem::remove(path);
    double slope = 0.0, rms = 0.0;
    ASSERT_EQ(std::sscanf(output.c_str(), "slope=%lf rms=%lf", &slope, &rms), 2) << output;
    EXPECT_NEAR(slope, -10.0, 1.0);
    EXPECT_NEAR(rms, ours, 1e-5 * ours);
    EXPECT_NEAR(rms, std::sqrt(20.0 / 12.0) * 0.2, 0.05 * std::sqrt(20.0 / 12.0) * 0.2);
}

// Made by name, robust to bad settings, any block up to 2^18 frames, no allocation.
TEST(KROAudioGenerator, EveryGeneratorIsRobustAndRealTime) {
    const float inf = std::numeric_limits<float>::infinity();
    const float absurd[] = {-440.0f, 0.0f, 1e-30f, 24000.0f,
                            1e30f,   inf,  -inf,   std::numeric_limits<float>::quiet_NaN()};
    for (const char* name : kGenerators) {
        SCOPED_TRACE(name);
        KROPropertyList settings = entry(name, nullptr);
        settings.setObjectForKey("frequency", "loud");
        settings.setObjectForKey("channelConfigurations", "stereo");
        const auto made = KROAudioProcessor::processorWithSettings(settings);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(std::pair(made->numberOfInputBuses(), made->settings().count()),
                  std::pair(std::size_t{0}, std::size_t{2}));
        Chain chain = makeChain(name, nullptr, 2, std::uint64_t{1} << 18);
        const auto sine = std::dynamic_pointer_cast<Sine>(chain.get<KROAudioProcessor>("source"));
        const auto synth = std::dynamic_pointer_cast<Synth>(chain.get<KROAudioProcessor>("source"));
        const auto tune = [&](float hertz, float decibels) {
            if (sine) {
                sine->setFrequency(hertz);
            }
            if (synth) {
                synth->notesBegan(note(69.0f, decibels));
                synth->setFrequency(hertz);
            }
        };
        for (const float value : absurd) {
            tune(value, value);
            for (const std::uint64_t frames : {512, 0, 1 << 18}) {
                EXPECT_EQ(chain.render(frames).frames(), frames);
            }
            tune(440.0f, 0.0f);
            chain.render(64), chain.render(64);
            const KROAudioBufferList& buffer = chain.render(512);
            const float limit = name == kGenerators[2] ? 2.0f : 1.0f;
            EXPECT_TRUE(buffer.magnitude() > 0.0f && buffer.maximum() <= limit &&
                        buffer.minimum() >= -limit && !std::isnan(buffer.rms()))
                << value;
        }
        const KROMusicalNoteSet notes = note(64.0f, -3.0f);
        KRO_EXPECT_NO_ALLOCATION(for (int block = 0; block < 16; ++block) {
            if (synth && block % 4 == 0) {
                block % 8 ? synth->notesEnded(notes) : synth->notesBegan(notes);
            }
            chain.render(block % 2 ? 1024 : 333);
        });
    }
}
