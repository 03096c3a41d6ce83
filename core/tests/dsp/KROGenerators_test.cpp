// Part 4.7: tone and noise generators. The sine tone, the note-driven sine
// voice with KROMusicalNote, and Voss-McCartney pink noise; checked against
// the closed form of a sine and, for the noise, against numpy's spectrum.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROLevelMeterAudioProcessor.h"
#include "KROMusicalNote.h"
#include "KROPinkNoiseAudioGenerator.h"
#include "KROSineWaveAudioGenerator.h"
#include "KROSineWaveSynthAudioGenerator.h"

using namespace kro_dsp_test;

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kRate = 48000.0;

Chain sineChain(std::uint32_t channels = 2, std::uint64_t maxFrames = 512) {
    return makeChain("KROSineWaveAudioGenerator", "", channels, maxFrames, kRate);
}

Chain synthChain(std::uint32_t channels = 2, std::uint64_t maxFrames = 512) {
    return makeChain("KROSineWaveSynthAudioGenerator", "", channels, maxFrames, kRate);
}

Chain pinkChain(std::uint32_t channels = 1, std::uint64_t maxFrames = 512) {
    return makeChain("KROPinkNoiseAudioGenerator", "", channels, maxFrames, kRate);
}

KROMusicalNoteSet noteSet(float semitone, float level) {
    return {KROMusicalNote::noteWithSemitone(semitone, level)};
}

bool channelsAreIdentical(const KROAudioBufferList& buffer) {
    for (std::uint32_t channel = 1; channel < buffer.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            if (std::bit_cast<std::uint32_t>(buffer.channel(channel)[frame]) !=
                std::bit_cast<std::uint32_t>(buffer.channel(0)[frame])) {
                return false;
            }
        }
    }
    return true;
}

// Digital silence: every sample is zero (a sine times a gain of 0 gives -0.0
// where the sine is negative).
bool allSamplesAreZero(const KROAudioBufferList& buffer) {
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            if (buffer.channel(channel)[frame] != 0.0f) {
                return false;
            }
        }
    }
    return true;
}

bool allSamplesAreFinite(const KROAudioBufferList& buffer, float limit) {
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            const float sample = buffer.channel(channel)[frame];
            if (!std::isfinite(sample) || std::fabs(sample) > limit) {
                return false;
            }
        }
    }
    return true;
}

// The synth's sample at frame i of a block, by Part 4.7's formula.
float synthSample(std::uint64_t i, std::uint64_t frames, double step, float phase, float g0,
                  float g1) {
    const float ramp = static_cast<float>(i) / static_cast<float>(frames) * (g1 - g0) + g0;
    return static_cast<float>(std::sin(static_cast<double>(i) * step + phase) *
                              static_cast<double>(ramp));
}

} // namespace

// ---- Edge cases worth testing ----------------------------------------------

TEST(Part_4_7, ASynthThatHasNeverReceivedANoteRendersDigitalSilenceOnAllChannelsAtEveryBlock) {
    Chain chain = synthChain(3);
    for (int block = 0; block < 8; ++block) {
        const KROAudioBufferList& buffer = chain.head->renderBlock(512);
        ASSERT_TRUE(allSamplesAreZero(buffer)) << "block " << block;
    }
}

TEST(Part_4_7, NotesBeganOnASilentSynthRisesFrom0ToTheNotesGainLinearlyOverExactlyOneBlock) {
    Chain chain = synthChain(2);
    auto synth = chain.sourceAs<KROSineWaveSynthAudioGenerator>();
    chain.head->renderBlock(512);
    synth->notesBegan(noteSet(69.0f, -6.0f));
    EXPECT_EQ(synth->frequency(), 440.0f);
    EXPECT_EQ(synth->level(), -6.0f);

    const float gain = ::powf(10.0f, -6.0f / 20.0f);
    const double step = 440.0 * kTwoPi / kRate;
    float phase = synth->lastPhase();
    const KROAudioBufferList& rising = chain.head->renderBlock(512);
    for (std::uint64_t i = 0; i < 512; ++i) {
        ASSERT_EQ(rising.channel(0)[i], synthSample(i, 512, step, phase, 0.0f, gain)) << i;
    }
    EXPECT_TRUE(channelsAreIdentical(rising));
    EXPECT_EQ(synth->lastLevel(), -6.0f);

    // The next block holds the note's gain throughout.
    phase = synth->lastPhase();
    const KROAudioBufferList& held = chain.head->renderBlock(512);
    for (std::uint64_t i = 0; i < 512; ++i) {
        ASSERT_EQ(held.channel(0)[i], synthSample(i, 512, step, phase, gain, gain)) << i;
    }
}

TEST(Part_4_7, NotesEndedFallsLinearlyTo0OverOneBlock) {
    Chain chain = synthChain(2);
    auto synth = chain.sourceAs<KROSineWaveSynthAudioGenerator>();
    synth->notesBegan(noteSet(60.0f, 0.0f));
    chain.head->renderBlock(256);
    chain.head->renderBlock(256);
    synth->notesEnded(noteSet(60.0f, 0.0f));
    EXPECT_EQ(synth->level(), KROSineWaveSynthAudioGenerator::silenceLevel);
    EXPECT_EQ(synth->frequency(), KROSineWaveSynthAudioGenerator::frequencyOfSemitone(60.0f));

    const double step = static_cast<double>(synth->frequency()) * kTwoPi / kRate;
    const float phase = synth->lastPhase();
    const KROAudioBufferList& falling = chain.head->renderBlock(256);
    for (std::uint64_t i = 0; i < 256; ++i) {
        ASSERT_EQ(falling.channel(0)[i], synthSample(i, 256, step, phase, 1.0f, 0.0f)) << i;
    }
    EXPECT_TRUE(channelsAreIdentical(falling));
    EXPECT_TRUE(allSamplesAreZero(chain.head->renderBlock(256)));
}

TEST(
    Part_4_7,
    WithABlockOfZeroFramesTheSynthStillCopiesLevelToLastLevelAndBothSineGeneratorsLeaveLastPhaseUnchanged) {
    Chain synth = synthChain();
    auto voice = synth.sourceAs<KROSineWaveSynthAudioGenerator>();
    voice->notesBegan(noteSet(72.0f, -3.0f));
    synth.head->renderBlock(100);
    voice->setLevel(-20.0f);
    const float synthPhase = voice->lastPhase();
    ASSERT_NE(synthPhase, 0.0f);
    synth.head->renderBlock(0);
    EXPECT_EQ(voice->lastLevel(), -20.0f);
    EXPECT_EQ(voice->lastPhase(), synthPhase);

    Chain sine = sineChain();
    auto tone = sine.sourceAs<KROSineWaveAudioGenerator>();
    sine.head->renderBlock(100);
    const float sinePhase = tone->lastPhase();
    ASSERT_NE(sinePhase, 0.0f);
    sine.head->renderBlock(0);
    EXPECT_EQ(tone->lastPhase(), sinePhase);
}

// Index 1 first; row n changes at the indexes with n trailing zero bits, so
// row 0 at every odd index, row 1 at 2 mod 4, ... row 18 once in 524,288
// frames; at index 0 only the white value is new. Every sample is checked
// against the generator step run on a copy of the shared seed.
TEST(Part_4_7, PinkNoiseFirstFrameHasIndex1AndRowNChangesAtIndexesWithNTrailingZeros) {
    Chain chain = pinkChain(1, 1);
    auto pink = chain.sourceAs<KROPinkNoiseAudioGenerator>();
    ASSERT_EQ(pink->numberOfNoiseRecords(), 1u);
    const KROPinkNoiseAudioGenerator::Noise& noise = *pink->noiseOfChannel(0);
    EXPECT_EQ(noise.index, 0);
    EXPECT_EQ(noise.indexMask, 0x7ffff);
    EXPECT_EQ(noise.runningSum, 0);

    constexpr std::uint64_t kFrames = 524288;
    std::array<std::uint64_t, 19> changes{};
    std::uint64_t mismatches = 0;
    std::uint64_t zeroIndexFrame = 0;
    for (std::uint64_t frame = 1; frame <= kFrames; ++frame) {
        const KROPinkNoiseAudioGenerator::Noise before = noise;
        std::int64_t seed = KROPinkNoiseAudioGenerator::randSeed();
        const std::int32_t index = static_cast<std::int32_t>(frame) & 0x7ffff;
        auto expectedRows = before.rows;
        std::int64_t expectedSum = before.runningSum;
        int row = -1;
        if (index != 0) {
            row = std::countr_zero(static_cast<std::uint32_t>(index));
            const std::int64_t value = KROPinkNoiseAudioGenerator::step(seed);
            expectedSum = expectedSum - expectedRows[static_cast<std::size_t>(row)] + value;
            expectedRows[static_cast<std::size_t>(row)] = value;
            ++changes[static_cast<std::size_t>(row)];
        } else {
            zeroIndexFrame = frame;
        }
        const std::int64_t white = KROPinkNoiseAudioGenerator::step(seed);
        const float expected =
            static_cast<float>(white + expectedSum) * KROPinkNoiseAudioGenerator::scale;
        const float sample = chain.head->renderBlock(1).channel(0)[0];
        if (frame == 1) {
            EXPECT_EQ(noise.index, 1);
        }
        if (noise.index != index || noise.rows != expectedRows || noise.runningSum != expectedSum ||
            sample != expected || KROPinkNoiseAudioGenerator::randSeed() != seed) {
            ++mismatches;
        }
    }
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(zeroIndexFrame, kFrames);
    for (std::size_t row = 0; row < 19; ++row) {
        // Indexes 1 ... 524287 with exactly `row` trailing zeros.
        EXPECT_EQ(changes[row], std::uint64_t{1} << (18 - row)) << "row " << row;
    }
    EXPECT_EQ(KROPinkNoiseAudioGenerator::scale, 1.1920929132713809e-08f);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(KROPinkNoiseAudioGenerator::scale), 0x324ccccdu);
}

TEST(Part_4_7, AMonoAndAStereoPinkNoiseStreamConsumeTheSharedSeedAtDifferentSpeeds) {
    // Index 1 ... 1000 are all non-zero: two draws per frame and channel.
    const auto drawsAfter = [](std::int64_t seed, int draws) {
        for (int draw = 0; draw < draws; ++draw) {
            KROPinkNoiseAudioGenerator::step(seed);
        }
        return seed;
    };
    Chain mono = pinkChain(1, 1000);
    std::int64_t start = KROPinkNoiseAudioGenerator::randSeed();
    mono.head->renderBlock(1000);
    EXPECT_EQ(KROPinkNoiseAudioGenerator::randSeed(), drawsAfter(start, 2000));

    Chain stereo = pinkChain(2, 1000);
    start = KROPinkNoiseAudioGenerator::randSeed();
    stereo.head->renderBlock(1000);
    EXPECT_EQ(KROPinkNoiseAudioGenerator::randSeed(), drawsAfter(start, 4000));
    // The two channels draw in turn from the one seed: they differ.
    const KROAudioBufferList& buffer = *stereo.head->buffer;
    EXPECT_NE(std::vector<float>(buffer.channel(0), buffer.channel(0) + 1000),
              std::vector<float>(buffer.channel(1), buffer.channel(1) + 1000));

    // Two fresh streams, one after the other, do not repeat each other.
    Chain first = pinkChain(1, 64);
    Chain second = pinkChain(1, 64);
    const KROAudioBufferList& a = first.head->renderBlock(64);
    const std::vector<float> firstSamples(a.channel(0), a.channel(0) + 64);
    const KROAudioBufferList& b = second.head->renderBlock(64);
    EXPECT_NE(firstSamples, std::vector<float>(b.channel(0), b.channel(0) + 64));
}

// ---- Classes, defaults, properties -----------------------------------------

TEST(Part_4_7, TheGeneratorsAreRegisteredAndMadeFromSettings) {
    for (const char* name : {"KROSineWaveAudioGenerator", "KROSineWaveSynthAudioGenerator",
                             "KROPinkNoiseAudioGenerator"}) {
        KROPropertyList settings;
        settings.setObjectForKey("class", name);
        const auto processor = KROAudioProcessor::processorWithSettings(settings);
        ASSERT_NE(processor, nullptr) << name;
        EXPECT_EQ(processor->className(), name);
        EXPECT_TRUE(KROClassRegistry::sharedRegistry().isKindOfClass(name, "KROAudioGenerator"));
        EXPECT_EQ(processor->numberOfInputBuses(), 0u);
        EXPECT_EQ(processor->maximumNumberOfInputBuses(), 0u);
        EXPECT_EQ(processor->numberOfOutputBuses(), 1u);
    }
    EXPECT_TRUE(KROClassRegistry::sharedRegistry().hasClass("KROMusicalNote"));
}

TEST(Part_4_7, InitGivesTheDefaults) {
    auto sine = std::make_shared<KROSineWaveAudioGenerator>();
    ASSERT_TRUE(sine->init());
    EXPECT_EQ(sine->frequency(), 1000.0f);
    EXPECT_EQ(sine->lastPhase(), 0.0f);

    auto synth = std::make_shared<KROSineWaveSynthAudioGenerator>();
    ASSERT_TRUE(synth->init());
    EXPECT_EQ(synth->frequency(), 1000.0f);
    EXPECT_EQ(synth->lastPhase(), 0.0f);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(synth->level()), 0xff7fffffu);
    EXPECT_EQ(synth->level(), -3.4028234663852886e+38f);
    EXPECT_EQ(synth->lastLevel(), synth->level());
    EXPECT_EQ(::powf(10.0f, synth->level() / 20.0f), 0.0f);

    auto pink = std::make_shared<KROPinkNoiseAudioGenerator>();
    ASSERT_TRUE(pink->init());
    EXPECT_EQ(pink->numberOfNoiseRecords(), 0u);
}

TEST(Part_4_7, TheProcessorsHaveNoSettingsKeysOfTheirOwn) {
    auto sine = std::make_shared<KROSineWaveAudioGenerator>();
    ASSERT_TRUE(sine->init());
    sine->setFrequency(440.0f);
    const KROPropertyList settings = sine->settings();
    EXPECT_EQ(settings.objectForKey("frequency"), nullptr);
    // So a copy starts from the defaults of init.
    const auto copy = std::dynamic_pointer_cast<KROSineWaveAudioGenerator>(sine->copy());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->frequency(), 1000.0f);
}

TEST(Part_4_7, MusicalNoteIsAPlainValue) {
    KROMusicalNote note(69.5f, -12.0f);
    EXPECT_EQ(note.semitone(), 69.5f);
    EXPECT_EQ(note.level(), -12.0f);
    KROMusicalNote copy(note);
    note.setSemitone(10.0f);
    note.setLevel(1.0f);
    EXPECT_EQ(copy.semitone(), 69.5f);
    EXPECT_EQ(copy.level(), -12.0f);
    copy = note;
    EXPECT_EQ(copy.semitone(), 10.0f);
    EXPECT_EQ(copy.level(), 1.0f);
}

TEST(Part_4_7, NotesChangedSetsTheFrequencyOfTheSemitoneAndTheLevel) {
    auto synth = std::make_shared<KROSineWaveSynthAudioGenerator>();
    ASSERT_TRUE(synth->init());
    const std::pair<float, double> cases[] = {
        {69.0f, 440.0}, {60.0f, 261.6255653005986}, {81.0f, 880.0}, {69.5f, 452.8929841231365}};
    for (const auto& [semitone, hertz] : cases) {
        synth->notesChanged(noteSet(semitone, -1.0f));
        EXPECT_EQ(synth->frequency(), static_cast<float>(hertz)) << semitone;
        // Subtraction and division in float, exponential and product in
        // double.
        EXPECT_EQ(
            synth->frequency(),
            static_cast<float>(440.0 * std::exp2(static_cast<double>((semitone - 69.0f) / 12.0f))));
        EXPECT_EQ(synth->level(), -1.0f);
    }
    // Of several notes, one is taken and the others ignored.
    KROMusicalNoteSet chord = {KROMusicalNote::noteWithSemitone(60.0f, -1.0f),
                               KROMusicalNote::noteWithSemitone(64.0f, -2.0f),
                               KROMusicalNote::noteWithSemitone(67.0f, -3.0f)};
    synth->notesChanged(chord);
    bool matched = false;
    for (const auto& note : chord) {
        matched =
            matched || (synth->frequency() ==
                            KROSineWaveSynthAudioGenerator::frequencyOfSemitone(note->semitone()) &&
                        synth->level() == note->level());
    }
    EXPECT_TRUE(matched);
    // An empty set changes nothing.
    const float frequency = synth->frequency();
    synth->notesChanged({});
    EXPECT_EQ(synth->frequency(), frequency);
}

TEST(Part_4_7, InitializeForRenderAndResetRestartThePhaseAndTheSynthFromSilence) {
    Chain chain = synthChain();
    auto synth = chain.sourceAs<KROSineWaveSynthAudioGenerator>();
    synth->notesBegan(noteSet(69.0f, 0.0f));
    chain.head->renderBlock(300);
    ASSERT_NE(synth->lastPhase(), 0.0f);
    ASSERT_EQ(synth->lastLevel(), 0.0f);
    EXPECT_TRUE(synth->reset());
    EXPECT_EQ(synth->lastPhase(), 0.0f);
    EXPECT_EQ(synth->lastLevel(), KROSineWaveSynthAudioGenerator::silenceLevel);
    // The target level stays: the next block fades in again.
    EXPECT_EQ(synth->level(), 0.0f);
    EXPECT_EQ(chain.head->renderBlock(300).channel(0)[0], 0.0f);
    EXPECT_TRUE(synth->initializeForRender());
    EXPECT_EQ(synth->lastLevel(), KROSineWaveSynthAudioGenerator::silenceLevel);

    Chain sine = sineChain();
    auto tone = sine.sourceAs<KROSineWaveAudioGenerator>();
    sine.head->renderBlock(300);
    ASSERT_NE(tone->lastPhase(), 0.0f);
    EXPECT_TRUE(tone->reset());
    EXPECT_EQ(tone->lastPhase(), 0.0f);
}

TEST(Part_4_7, PinkNoiseHasNoResetAndUninitializeFreesTheRecords) {
    Chain chain = pinkChain(2);
    auto pink = chain.sourceAs<KROPinkNoiseAudioGenerator>();
    chain.head->renderBlock(100);
    const KROPinkNoiseAudioGenerator::Noise before = *pink->noiseOfChannel(1);
    EXPECT_TRUE(chain.stream->reset());
    EXPECT_EQ(pink->noiseOfChannel(1)->index, before.index);
    EXPECT_EQ(pink->noiseOfChannel(1)->rows, before.rows);
    EXPECT_TRUE(chain.stream->uninitialize());
    EXPECT_EQ(pink->numberOfNoiseRecords(), 0u);
    EXPECT_EQ(pink->noiseOfChannel(0), nullptr);
}

// ---- The sine against its closed form --------------------------------------

TEST(Part_4_7, SineFirstBlockIsTheClosedFormOnEveryChannel) {
    Chain chain = sineChain(4);
    auto sine = chain.sourceAs<KROSineWaveAudioGenerator>();
    sine->setFrequency(997.0f);
    const KROAudioBufferList& buffer = chain.head->renderBlock(512);
    const double step = 997.0 * kTwoPi / kRate;
    for (std::uint64_t i = 0; i < 512; ++i) {
        ASSERT_EQ(buffer.channel(0)[i], static_cast<float>(std::sin(static_cast<double>(i) * step)))
            << i;
        ASSERT_NEAR(buffer.channel(0)[i], std::sin(2.0 * M_PI * 997.0 * i / kRate), 1e-6);
    }
    EXPECT_TRUE(channelsAreIdentical(buffer));
}

TEST(Part_4_7, SineMatchesTheClosedFormAcrossBlocks) {
    // Whole cycles per block: the phase update adds nothing, so the tone is
    // exactly sin(2 pi f n / sr) for ever.
    Chain exact = sineChain(1, 480);
    exact.sourceAs<KROSineWaveAudioGenerator>()->setFrequency(1000.0f);
    for (std::uint64_t block = 0; block < 50; ++block) {
        const KROAudioBufferList& buffer = exact.head->renderBlock(480);
        for (std::uint64_t i = 0; i < 480; ++i) {
            const double n = static_cast<double>(block * 480 + i);
            ASSERT_NEAR(buffer.channel(0)[i], std::sin(kTwoPi * 1000.0 * n / kRate), 2e-7);
        }
    }
    EXPECT_EQ(exact.sourceAs<KROSineWaveAudioGenerator>()->lastPhase(), 0.0f);

    // Fractional cycles per block: the single-precision phase carries a
    // small rounding error from block to block; one second stays within
    // 2e-3 of the closed form.
    Chain drifting = sineChain(1, 441);
    drifting.sourceAs<KROSineWaveAudioGenerator>()->setFrequency(440.0f);
    double worst = 0.0;
    for (std::uint64_t block = 0; block < 109; ++block) {
        const KROAudioBufferList& buffer = drifting.head->renderBlock(441);
        for (std::uint64_t i = 0; i < 441; ++i) {
            const double n = static_cast<double>(block * 441 + i);
            worst = std::max(
                worst, std::fabs(buffer.channel(0)[i] - std::sin(kTwoPi * 440.0 * n / kRate)));
        }
    }
    EXPECT_LT(worst, 2e-3);
}

TEST(Part_4_7, ThePhaseAddsOnlyFractionalCyclesAndIsNeverWrapped) {
    Chain chain = sineChain(1, 512);
    auto sine = chain.sourceAs<KROSineWaveAudioGenerator>();
    sine->setFrequency(1234.5f);
    float expected = 0.0f;
    for (int block = 0; block < 200; ++block) {
        chain.head->renderBlock(512);
        const double x = (512.0 / kRate) * 1234.5;
        expected = static_cast<float>(expected + (x - std::floor(x)) * kTwoPi);
        ASSERT_EQ(sine->lastPhase(), expected) << block;
    }
    // Part 4.7: it climbs without bound; no wrap.
    EXPECT_GT(sine->lastPhase(), 30.0 * kTwoPi);
}

// ---- Bad input ---------------------------------------------------------------

TEST(Part_4_7, SettingsWithWrongValueTypesAreHarmless) {
    for (const char* name : {"KROSineWaveAudioGenerator", "KROSineWaveSynthAudioGenerator",
                             "KROPinkNoiseAudioGenerator"}) {
        KROPropertyList settings;
        settings.setObjectForKey("class", name);
        settings.setObjectForKey("identifier", std::int64_t{5});
        settings.setObjectForKey("channelConfigurations", "stereo");
        settings.setObjectForKey("automations", 3.5);
        settings.setObjectForKey("frequency", "loud");
        settings.setObjectForKey("level", KROPropertyList::array());
        const auto processor = KROAudioProcessor::processorWithSettings(settings);
        ASSERT_NE(processor, nullptr) << name;
        if (auto sine = std::dynamic_pointer_cast<KROSineWaveAudioGenerator>(processor)) {
            EXPECT_EQ(sine->frequency(), 1000.0f);
        }
        if (auto synth = std::dynamic_pointer_cast<KROSineWaveSynthAudioGenerator>(processor)) {
            EXPECT_EQ(synth->level(), KROSineWaveSynthAudioGenerator::silenceLevel);
        }
    }
}

TEST(Part_4_7, NegativeAndAbsurdFrequenciesDoNotBreakTheTone) {
    const float inf = std::numeric_limits<float>::infinity();
    const float frequencies[] = {-440.0f,
                                 0.0f,
                                 1e-30f,
                                 24000.0f,
                                 1e30f,
                                 std::numeric_limits<float>::max(),
                                 -std::numeric_limits<float>::max(),
                                 inf,
                                 -inf,
                                 std::numeric_limits<float>::quiet_NaN()};
    for (const float frequency : frequencies) {
        Chain sine = sineChain(2, 512);
        Chain synth = synthChain(2, 512);
        auto tone = sine.sourceAs<KROSineWaveAudioGenerator>();
        auto voice = synth.sourceAs<KROSineWaveSynthAudioGenerator>();
        voice->notesBegan(noteSet(69.0f, 0.0f));
        tone->setFrequency(frequency);
        voice->setFrequency(frequency);
        for (int block = 0; block < 3; ++block) {
            const KROAudioBufferList& a = sine.head->renderBlock(512);
            const KROAudioBufferList& b = synth.head->renderBlock(512);
            if (std::isfinite(frequency)) {
                EXPECT_TRUE(allSamplesAreFinite(a, 1.0f)) << frequency;
                EXPECT_TRUE(allSamplesAreFinite(b, 1.0f)) << frequency;
            }
            EXPECT_TRUE(std::isfinite(tone->lastPhase())) << frequency;
            EXPECT_TRUE(std::isfinite(voice->lastPhase())) << frequency;
        }
        // A good frequency afterwards gives a good tone at once.
        tone->setFrequency(440.0f);
        voice->setFrequency(440.0f);
        EXPECT_TRUE(allSamplesAreFinite(sine.head->renderBlock(512), 1.0f)) << frequency;
        EXPECT_TRUE(allSamplesAreFinite(synth.head->renderBlock(512), 1.0f)) << frequency;
    }
}

TEST(Part_4_7, AbsurdLevelsPassAfterTwoBlocks) {
    const float inf = std::numeric_limits<float>::infinity();
    const float levels[] = {1000.0f, -1000.0f, std::numeric_limits<float>::max(),
                            inf,     -inf,     std::numeric_limits<float>::quiet_NaN()};
    for (const float level : levels) {
        Chain chain = synthChain(2, 256);
        auto synth = chain.sourceAs<KROSineWaveSynthAudioGenerator>();
        synth->notesBegan(noteSet(69.0f, level));
        chain.head->renderBlock(256);
        chain.head->renderBlock(256);
        // The ramp leaves the bad level behind within two blocks.
        synth->setLevel(0.0f);
        chain.head->renderBlock(256);
        chain.head->renderBlock(256);
        EXPECT_TRUE(allSamplesAreFinite(chain.head->renderBlock(256), 1.0f)) << level;
    }
}

TEST(Part_4_7, ZeroFrameAndMaximumSizeBlocks) {
    constexpr std::uint64_t kMaxFrames = std::uint64_t{1} << 18;
    for (const char* name : {"KROSineWaveAudioGenerator", "KROSineWaveSynthAudioGenerator",
                             "KROPinkNoiseAudioGenerator"}) {
        Chain chain = makeChain(name, "KROLevelMeterAudioProcessor", 2, kMaxFrames, kRate);
        if (auto synth = chain.sourceIf<KROSineWaveSynthAudioGenerator>()) {
            synth->notesBegan(noteSet(69.0f, -6.0f));
        }
        auto meter = chain.meterAs<KROLevelMeterAudioProcessor>();
        for (const std::uint64_t frames :
             {std::uint64_t{0}, kMaxFrames, std::uint64_t{0}, kMaxFrames, std::uint64_t{1}}) {
            const KROAudioBufferList& buffer = chain.head->renderBlock(frames);
            EXPECT_EQ(buffer.frames(), frames);
            EXPECT_TRUE(allSamplesAreFinite(buffer, 2.0f)) << name;
            EXPECT_TRUE(std::isfinite(meter->level())) << name;
        }
        EXPECT_GT(meter->level(), 0.0f) << name;
    }
}

TEST(Part_4_7, GeneratorsRenderWithoutAllocatingAfterTheFirstBlock) {
    for (const char* name : {"KROSineWaveAudioGenerator", "KROSineWaveSynthAudioGenerator",
                             "KROPinkNoiseAudioGenerator"}) {
        Chain chain = makeChain(name, "KROLevelMeterAudioProcessor", 2, 1024, kRate);
        auto synth = chain.sourceIf<KROSineWaveSynthAudioGenerator>();
        const KROMusicalNoteSet notes = noteSet(64.0f, -3.0f);
        chain.head->renderBlock(1024);
        KRO_EXPECT_NO_ALLOCATION({
            for (int block = 0; block < 16; ++block) {
                if (synth && block == 4) {
                    synth->notesBegan(notes);
                }
                if (synth && block == 10) {
                    synth->notesEnded(notes);
                }
                chain.head->renderBlock(block % 2 ? 1024 : 333);
            }
        });
    }
}

// ---- Pink noise against numpy ------------------------------------------------

// The spectrum falls by about 10 dB per decade (3 dB per octave), and the
// RMS, once all 19 rows hold values, is that of 20 independent uniform
// signed 24-bit values scaled by 2^-23 / 10: sqrt(20 / 12) * 0.2.
TEST(Part_4_7, PinkNoiseSpectrumSlopeAndRmsMatchNumpy) {
    if (!haveProgram("/usr/bin/python3")) {
        GTEST_SKIP() << "/usr/bin/python3 is missing (scripts/install-deps installs it)";
    }
    constexpr std::uint64_t kBlock = 4096;
    constexpr std::uint64_t kWarmUp = 524288 / kBlock;
    constexpr std::uint64_t kBlocks = (std::uint64_t{1} << 21) / kBlock;
    Chain chain = pinkChain(1, kBlock);
    for (std::uint64_t block = 0; block < kWarmUp; ++block) {
        chain.head->renderBlock(kBlock);
    }
    std::vector<float> samples;
    samples.reserve(kBlocks * kBlock);
    double sumOfSquares = 0.0;
    for (std::uint64_t block = 0; block < kBlocks; ++block) {
        const KROAudioBufferList& buffer = chain.head->renderBlock(kBlock);
        samples.insert(samples.end(), buffer.channel(0), buffer.channel(0) + kBlock);
    }
    for (const float sample : samples) {
        sumOfSquares += static_cast<double>(sample) * sample;
    }
    const double ourRms = std::sqrt(sumOfSquares / static_cast<double>(samples.size()));
    const auto path = scratchFile("pink.f32");
    writeRawFloats(path, samples.data(), samples.size());
    const std::string script = std::string(KRO_SOURCE_DIR) + "/core/tests/dsp/pink_spectrum.py";
    const std::string output =
        runCommand("/usr/bin/python3 '" + script + "' '" + path.string() + "' 48000 20 10000");
    std::filesystem::remove(path);
    double slope = 0.0;
    double rms = 0.0;
    ASSERT_EQ(std::sscanf(output.c_str(), "slope=%lf rms=%lf", &slope, &rms), 2) << output;
    std::printf("numpy: slope %.3f dB per decade, RMS %.6f (ours %.6f, expected %.6f)\n", slope,
                rms, ourRms, std::sqrt(20.0 / 12.0) * 0.2);
    EXPECT_NEAR(slope, -10.0, 1.0) << output;
    EXPECT_NEAR(rms, ourRms, 1e-5 * ourRms) << output;
    EXPECT_NEAR(rms, std::sqrt(20.0 / 12.0) * 0.2, 0.05 * std::sqrt(20.0 / 12.0) * 0.2) << output;
}
