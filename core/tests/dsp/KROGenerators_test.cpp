// The tone and noise generators: the sine tone against its closed form, the
// note-driven voice's ramps, the row structure of the pink noise and its
// spectrum against numpy, and what all three share: bad input, block sizes
// and the real-time contract.
#include <gtest/gtest.h>

#include <array>
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

constexpr double kTwoPi = 2.0 * M_PI;
const char* const kGenerators[] = {"KROSineWaveAudioGenerator", "KROSineWaveSynthAudioGenerator",
                                   "KROPinkNoiseAudioGenerator"};

Chain chainOf(const char* className, std::uint32_t channels = 2, std::uint64_t maxFrames = 512) {
    return makeChain(className, "", channels, maxFrames, 48000.0);
}

KROMusicalNoteSet note(float semitone, float level) {
    return {KROMusicalNote::noteWithSemitone(semitone, level)};
}

// The largest distance of channel 0 from the tone of the frequency, starting
// at the phase, with the gain rising linearly from g0 at frame 0 to g1 at the
// frame after the block; and whether every channel equals channel 0.
double distanceFromTone(const KROAudioBufferList& buffer, double hertz, double phase, double g0,
                        double g1, bool* channelsEqual = nullptr) {
    double worst = 0.0;
    const double n = double(buffer.frames());
    for (std::uint64_t i = 0; i < buffer.frames(); ++i) {
        const double gain = g0 + (g1 - g0) * double(i) / n;
        const double tone = gain * std::sin(kTwoPi * hertz * double(i) / 48000.0 + phase);
        worst = std::max(worst, std::fabs(buffer.channel(0)[i] - tone));
    }
    for (std::uint32_t channel = 1; channelsEqual && channel < buffer.numberOfChannels();
         ++channel) {
        *channelsEqual = std::equal(buffer.channel(0), buffer.channel(0) + buffer.frames(),
                                    buffer.channel(channel));
    }
    return worst;
}

// No sample is NaN, infinite or beyond the limit.
bool finiteWithin(const KROAudioBufferList& buffer, float limit) {
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            if (!(std::fabs(buffer.channel(channel)[frame]) <= limit)) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

// Every channel carries the tone; with whole cycles per block it stays the
// closed form, with fractional cycles the float phase drifts only a little.
// Kept: the phase adds the fractional cycles and is never wrapped.
TEST(KROSineWaveAudioGenerator, TheToneFollowsItsClosedForm) {
    Chain chain = chainOf(kGenerators[0], 4, 480);
    const auto sine = chain.get<Sine>("source");
    EXPECT_EQ(sine->frequency(), 1000.0f);
    bool equal = false;
    for (int block = 0; block < 50; ++block) {
        ASSERT_LT(distanceFromTone(chain.render(480), 1000.0, 0.0, 1.0, 1.0, &equal), 2e-7);
        ASSERT_TRUE(equal);
    }
    Chain drifting = chainOf(kGenerators[0], 1, 441);
    drifting.get<Sine>("source")->setFrequency(440.0f);
    double worst = 0.0;
    for (int block = 0; block < 109; ++block) {
        const double phase = kTwoPi * 440.0 * block * 441 / 48000.0;
        worst = std::max(worst, distanceFromTone(drifting.render(441), 440.0, phase, 1.0, 1.0));
    }
    EXPECT_LT(worst, 2e-3);
    const double cycles = 441 * 440.0 / 48000.0;
    EXPECT_NEAR(drifting.get<Sine>("source")->lastPhase(),
                109 * (cycles - std::floor(cycles)) * kTwoPi, 1e-3);
    EXPECT_TRUE(sine->reset());
    EXPECT_EQ(sine->lastPhase(), 0.0f);
}

// A voice that has had no note is digital silence. A note rises from silence
// to its gain over exactly one block and holds it; the end of the note falls
// to silence over one block. A block of no frames still takes the level.
TEST(KROSineWaveSynthAudioGenerator, NotesRampTheToneOverOneBlock) {
    Chain chain = chainOf(kGenerators[1], 3);
    const auto synth = chain.get<Synth>("source");
    EXPECT_EQ(std::bit_cast<std::uint32_t>(synth->level()), 0xff7fffffu);
    for (int block = 0; block < 3; ++block) {
        const KROAudioBufferList& silent = chain.render(512);
        ASSERT_EQ(silent.magnitude(), 0.0f);
    }
    synth->notesBegan(note(69.0f, -6.0f));
    EXPECT_EQ(synth->frequency(), 440.0f);
    const double gain = std::pow(10.0, -6.0 / 20.0);
    const double steps[][2] = {{0.0, gain}, {gain, gain}, {gain, 0.0}};
    bool equal = false;
    for (const auto& [from, to] : steps) {
        if (to == 0.0) {
            synth->notesEnded(note(69.0f, -6.0f));
        }
        const double phase = synth->lastPhase();
        EXPECT_LT(distanceFromTone(chain.render(512), 440.0, phase, from, to, &equal), 1e-6);
        EXPECT_TRUE(equal);
    }
    EXPECT_EQ(synth->frequency(), 440.0f);
    EXPECT_EQ(chain.render(512).magnitude(), 0.0f);

    synth->notesBegan(note(72.0f, -3.0f));
    chain.render(100);
    synth->setLevel(-20.0f);
    const float phase = synth->lastPhase();
    chain.render(0);
    EXPECT_EQ(synth->lastLevel(), -20.0f);
    EXPECT_EQ(synth->lastPhase(), phase);
    // Reset restarts from silence toward the kept target.
    EXPECT_TRUE(synth->reset());
    EXPECT_EQ(std::pair(synth->lastPhase(), synth->lastLevel()),
              std::pair(0.0f, Synth::silenceLevel));
    EXPECT_EQ(chain.render(300).channel(0)[0], 0.0f);
}

// The frequency of a semitone, 69 being 440 Hz; of several notes one is
// taken whole, and no note changes nothing.
TEST(KROSineWaveSynthAudioGenerator, NotesSetTheFrequencyAndLevel) {
    auto synth = std::make_shared<Synth>();
    ASSERT_TRUE(synth->init());
    const std::pair<float, double> cases[] = {
        {69.0f, 440.0}, {60.0f, 261.6255653005986}, {81.0f, 880.0}, {69.5f, 452.8929841231365}};
    for (const auto& [semitone, hertz] : cases) {
        synth->notesChanged(note(semitone, -1.0f));
        EXPECT_EQ(synth->frequency(), static_cast<float>(hertz)) << semitone;
    }
    const KROMusicalNoteSet chord = {KROMusicalNote::noteWithSemitone(60.0f, -1.0f),
                                     KROMusicalNote::noteWithSemitone(64.0f, -2.0f),
                                     KROMusicalNote::noteWithSemitone(67.0f, -3.0f)};
    synth->notesChanged(chord);
    const auto taken = std::find_if(chord.begin(), chord.end(), [&](const auto& note) {
        return Synth::frequencyOfSemitone(note->semitone()) == synth->frequency();
    });
    ASSERT_NE(taken, chord.end());
    EXPECT_EQ(synth->level(), (*taken)->level());
    synth->notesChanged({});
    EXPECT_EQ(synth->level(), (*taken)->level());
}

// The index counts 1, 2, ... from initialisation and wraps after 524,287;
// each frame draws anew the row of the index's trailing zero bits (row 18
// once in 524,288 frames), then a white value; at index 0 only the white
// value is drawn. The running sum is the sum of the rows.
TEST(KROPinkNoiseAudioGenerator, EachRowChangesAtItsOctave) {
    Chain chain = chainOf(kGenerators[2], 1, 1);
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
    EXPECT_EQ(noise.index, 0);
}

// Every channel of every stream draws from one seed, two draws a frame: a
// stereo stream takes it twice as fast as a mono one, its channels differ,
// and two streams one after the other do not repeat each other. Pink noise
// has no reset: its rows run on.
TEST(KROPinkNoiseAudioGenerator, AllChannelsDrawFromOneSeed) {
    const auto drawsAfter = [](std::int64_t seed, int draws) {
        while (draws-- > 0) {
            Pink::step(seed);
        }
        return seed;
    };
    std::vector<float> first;
    for (const std::uint32_t channels : {1u, 2u}) {
        Chain chain = chainOf(kGenerators[2], channels, 1000);
        const std::int64_t start = Pink::randSeed();
        const KROAudioBufferList& buffer = chain.render(1000);
        EXPECT_EQ(Pink::randSeed(), drawsAfter(start, 2000 * int(channels)));
        const std::vector<float> samples(buffer.channel(0), buffer.channel(0) + 1000);
        EXPECT_NE(samples, first);
        EXPECT_FALSE(channels == 2 &&
                     std::equal(samples.begin(), samples.end(), buffer.channel(1)));
        first = samples;
        const auto index = chain.get<Pink>("source")->noiseOfChannel(0)->index;
        EXPECT_TRUE(chain.stream->reset());
        EXPECT_EQ(chain.get<Pink>("source")->noiseOfChannel(0)->index, index);
        EXPECT_TRUE(chain.stream->uninitialize());
        EXPECT_EQ(chain.get<Pink>("source")->noiseOfChannel(0), nullptr);
    }
}

// The spectrum falls about 10 dB a decade, and once all 19 rows hold values
// the RMS is that of 20 independent uniform signed 24-bit values scaled by
// 2^-23 / 10: sqrt(20 / 12) * 0.2.
TEST(KROPinkNoiseAudioGenerator, TheSpectrumAndRmsMatchNumpy) {
    if (KRORunCommand("/usr/bin/python3 -c 'import numpy'").status != 0) {
        GTEST_SKIP() << "/usr/bin/python3 with numpy is missing (scripts/install-deps installs it)";
    }
    Chain chain = chainOf(kGenerators[2], 1, 4096);
    for (int block = 0; block < 128; ++block) {
        chain.render(4096);
    }
    std::vector<float> samples;
    for (int block = 0; block < 512; ++block) {
        const KROAudioBufferList& buffer = chain.render(4096);
        samples.insert(samples.end(), buffer.channel(0), buffer.channel(0) + 4096);
    }
    double sumOfSquares = 0.0;
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

// All three are made by name with no input bus and no settings keys of
// their own (a copy starts from the defaults), shrug off bad settings and
// absurd frequencies and levels, render blocks of any size up to 2^18 frames
// with finite samples, and after the first block allocate nothing.
TEST(KROAudioGenerator, EveryGeneratorIsRobustAndRealTime) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float absurd[] = {-440.0f, 0.0f, 1e-30f, 24000.0f, 1e30f, inf, -inf, nan};
    for (const char* name : kGenerators) {
        SCOPED_TRACE(name);
        KROPropertyList settings;
        settings.setObjectForKey("class", name);
        settings.setObjectForKey("frequency", "loud");
        settings.setObjectForKey("level", KROPropertyList::array());
        settings.setObjectForKey("channelConfigurations", "stereo");
        const auto made = KROAudioProcessor::processorWithSettings(settings);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(made->numberOfInputBuses(), 0u);
        EXPECT_EQ(made->settings().count(), 2u);

        Chain chain = chainOf(name, 2, std::uint64_t{1} << 18);
        const auto sine = std::dynamic_pointer_cast<Sine>(chain.get<KROAudioProcessor>("source"));
        const auto synth = std::dynamic_pointer_cast<Synth>(chain.get<KROAudioProcessor>("source"));
        const KROMusicalNoteSet notes = note(64.0f, -3.0f);
        if (sine) {
            sine->setFrequency(440.0f);
            EXPECT_EQ(std::dynamic_pointer_cast<Sine>(sine->copy())->frequency(), 1000.0f);
        }
        // The synth's level takes the absurd values too, as decibels.
        for (const float value : absurd) {
            if (sine) {
                sine->setFrequency(value);
            }
            if (synth) {
                synth->setFrequency(value);
                synth->notesBegan(note(69.0f, value));
            }
            for (const std::uint64_t frames : {512, 0, 1 << 18}) {
                EXPECT_EQ(chain.render(frames).frames(), frames);
            }
            if (sine) {
                sine->setFrequency(440.0f);
            }
            if (synth) {
                synth->notesBegan(note(69.0f, 0.0f));
                chain.render(64), chain.render(64);
            }
            const KROAudioBufferList& buffer = chain.render(512);
            EXPECT_GT(buffer.magnitude(), 0.0f) << value;
            EXPECT_TRUE(finiteWithin(buffer, name == kGenerators[2] ? 2.0f : 1.0f)) << value;
        }
        KRO_EXPECT_NO_ALLOCATION({
            for (int block = 0; block < 16; ++block) {
                if (synth && block % 4 == 0) {
                    block % 8 ? synth->notesEnded(notes) : synth->notesBegan(notes);
                }
                chain.render(block % 2 ? 1024 : 333);
            }
        });
    }
}
