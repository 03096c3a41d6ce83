// The loudness meter beside libebur128, with the differences it keeps on purpose.
#include <gtest/gtest.h>

#include <ebur128.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <thread>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROLUMeterAudioProcessor.h"

using namespace kro_dsp_test;

namespace {

using Meter = KROLUMeterAudioProcessor;

// A meter of the type over channels, in blocks of up to 4800 frames, initialised.
Chain meterOf(const char* type, std::uint32_t channels, double rate = 48000.0) {
    Chain chain = makeChain("KROTestGenerator", "KROLUMeterAudioProcessor", channels, 4800, rate);
    chain.meterAs<Meter>()->setMeasurementType(type);
    return chain;
}

// Pieces of a 1 kHz sine at levels in dBFS, one after the other.
std::vector<float> sequence(std::initializer_list<std::pair<double, double>> levelsAndSeconds,
                            double rate, double hertz = 1000.0) {
    std::vector<float> samples;
    for (const auto& [decibels, seconds] : levelsAndSeconds) {
        const auto piece = sine(decibels, hertz, seconds, rate);
        samples.insert(samples.end(), piece.begin(), piece.end());
    }
    return samples;
}

// Renders the samples from the start in blocks of 4800 frames; the reading.
float measure(Chain& meter, const Channels& channels) {
    for (std::size_t at = 0; at < channels[0].size(); at += 4800) {
        meter.renderSamples(channels, at, 4800);
    }
    return meter.meterAs<Meter>()->level();
}
float measure(Chain&& meter, const Channels& channels) {
    return measure(meter, channels);
}

struct Agreement {
    double worstMomentary = 0.0, worstShortTerm = 0.0;
    double integrated = 0.0, theirIntegrated = 0.0;
};

// Three meters and libebur128 over the same samples in 100 ms blocks: the worst
// momentary and short-term difference once windows are full, and both integrated.
Agreement compare(const Channels& channels, double rate, const std::vector<int>& map = {}) {
    std::vector<Chain> meters;
    for (const char* type : {KROLUMeterMeasurementTypeMomentary, KROLUMeterMeasurementTypeShortTerm,
                             KROLUMeterMeasurementTypeIntegrated}) {
        meters.push_back(meterOf(type, std::uint32_t(channels.size()), rate));
    }
    ebur128_state* state =
        ebur128_init(unsigned(channels.size()), unsigned(rate), EBUR128_MODE_S | EBUR128_MODE_I);
    for (std::size_t channel = 0; channel < map.size(); ++channel) {
        ebur128_set_channel(state, unsigned(channel), map[channel]);
    }
    auto read = [&](int (*reading)(ebur128_state*, double*)) {
        double value = 0.0;
        reading(state, &value);
        return value;
    };
    const std::size_t step = meters[0].meterAs<Meter>()->analysisFrames();
    std::vector<float> interleaved(step * channels.size());
    Agreement agreement;
    for (std::size_t start = 0, block = 1; start < channels[0].size(); start += step, ++block) {
        // The meter passes its input on unchanged: libebur128 reads what it gave.
        const KROAudioBufferList& passed = meters[0].renderSamples(channels, start, step);
        for (std::size_t meter = 1; meter < meters.size(); ++meter) {
            meters[meter].renderSamples(channels, start, step);
        }
        for (std::size_t i = 0; i < interleaved.size(); ++i) {
            interleaved[i] = passed.valueAtFrame(i / channels.size(), i % channels.size());
        }
        ebur128_add_frames_float(state, interleaved.data(), step);
        const double theirs[] = {read(ebur128_loudness_momentary),
                                 read(ebur128_loudness_shortterm)};
        double* worst[] = {&agreement.worstMomentary, &agreement.worstShortTerm};
        for (int kind = 0; kind < 2; ++kind) {
            if (block >= (kind == 0 ? 4u : 30u) && theirs[kind] > -70.0) {
                const double ours = meters[std::size_t(kind)].meterAs<Meter>()->level() - 23.0;
                *worst[kind] = std::max(*worst[kind], std::abs(ours - theirs[kind]));
            }
        }
    }
    agreement.integrated = meters[2].meterAs<Meter>()->level() - 23.0;
    agreement.theirIntegrated = read(ebur128_loudness_global);
    ebur128_destroy(&state);
    return agreement;
}

} // namespace

// Where the meter's model is libebur128's they agree within 0.1 LU at every
// reading; DC is removed by the weighting and reads as silence.
TEST(KROLUMeterAudioProcessor, AgreesWithLibebur128OnTheTestSignals) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<float> square(480000), dc(192000, 0.5f);
    for (std::size_t i = 0; i < square.size(); ++i) {
        square[i] = (i * 997 / 24000) % 2 ? 1.0f : -1.0f;
    }
    const auto mono = [](std::initializer_list<std::pair<double, double>> pieces, double rate) {
        return Channels{sequence(pieces, rate)};
    };
    const struct {
        const char* what;
        double rate;
        Channels channels;
        std::vector<int> map;
        double integrated;
    } cases[] = {
        // clang-format off
        {"-23 dBFS", 48000, mono({{-23, 12}}, 48000), {}, -23.0},
        {"-33 dBFS", 48000, mono({{-33, 12}}, 48000), {}, -33.0},
        {"-72, -36, -23, -36, -72", 48000,
         mono({{-72, 5}, {-36, 5}, {-23, 30}, {-36, 5}, {-72, 5}}, 48000), {}, -23.0},
        {"-26, -20, -26", 48000, mono({{-26, 10}, {-20, 10.1}, {-26, 10}}, 48000), {}, -23.0},
        {"five channels", 48000,
         {sequence({{-28, 12}}, 48000), sequence({{-28, 12}}, 48000), sequence({{-24, 12}}, 48000),
          sequence({{-30, 12}}, 48000), sequence({{-30, 12}}, 48000)},
         {EBUR128_LEFT, EBUR128_RIGHT, EBUR128_CENTER, EBUR128_LEFT_SURROUND,
          EBUR128_RIGHT_SURROUND},
         -23.0},
        {"-23 dBFS at 44.1 kHz", 44100, mono({{-23, 12}}, 44100), {}, -23.0},
        {"full-scale square", 48000, {square}, {}, nan},
        {"DC", 48000, {dc}, {}, nan},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Channels channels = c.channels;
        if (channels.size() == 1) {
            channels.push_back(channels[0]);
        }
        const Agreement agreement = compare(channels, c.rate, c.map);
        std::printf("[ libebur128 ] %-24s momentary %.4f, short-term %.4f, integrated %.4f LU\n",
                    c.what, agreement.worstMomentary, agreement.worstShortTerm,
                    std::abs(agreement.integrated - agreement.theirIntegrated));
        EXPECT_LT(agreement.worstMomentary, 0.1);
        EXPECT_LT(agreement.worstShortTerm, 0.1);
        if (std::isinf(agreement.theirIntegrated)) {
            EXPECT_EQ(agreement.integrated, -96.0 - 23.0);
            continue;
        }
        EXPECT_NEAR(agreement.integrated, agreement.theirIntegrated, 0.1);
        if (!std::isnan(c.integrated)) {
            EXPECT_NEAR(agreement.integrated, c.integrated, 0.1);
        }
    }
}

// Kept on purpose: the meter takes channels 4 and 5 as the surrounds (in 5.1 the
// LFE counts, the right surround not), and integrates only the last 3000 blocks.
TEST(KROLUMeterAudioProcessor, KeepsItsOwnChannelMapAndRingOfGatingBlocks) {
    const Channels surround = {sequence({{-28, 8}}, 48000), sequence({{-28, 8}}, 48000),
                               sequence({{-24, 8}}, 48000), sequence({{-10, 8}}, 48000, 50.0),
                               sequence({{-30, 8}}, 48000), sequence({{-30, 8}}, 48000)};
    const Agreement standard = compare(surround, 48000);
    const Agreement told = compare(surround, 48000,
                                   {EBUR128_LEFT, EBUR128_RIGHT, EBUR128_CENTER,
                                    EBUR128_LEFT_SURROUND, EBUR128_RIGHT_SURROUND, EBUR128_UNUSED});
    EXPECT_NEAR(standard.theirIntegrated, -23.0, 0.1);
    EXPECT_GT(standard.integrated, standard.theirIntegrated + 5.0);
    EXPECT_NEAR(told.integrated, told.theirIntegrated, 0.1);
    EXPECT_LT(told.worstMomentary, 0.1);

    const auto stereo = sequence({{-30, 100}, {-23, 300}}, 8000);
    const Agreement whole = compare({stereo, stereo}, 8000);
    const std::vector<float> tail(stereo.end() - 300 * 8000, stereo.end());
    const Agreement last = compare({tail, tail}, 8000);
    EXPECT_NEAR(whole.integrated, last.integrated, 0.02);
    EXPECT_LT(whole.theirIntegrated, last.theirIntegrated - 0.8);
}

// The 48 kHz filters are what their formulas give, not the published table;
// routing decides the reading, and silence reads -73 LU, or -96 integrated.
TEST(KROLUMeterAudioProcessor, SlotsFiltersAndSilence) {
    Chain stereo = meterOf(KROLUMeterMeasurementTypeMomentary, 2);
    // clang-format off
    EXPECT_EQ(stereo.meterAs<Meter>()->preFilterCoefficients(), (Meter::Coefficients{
        1.5351828863637502, -2.691804030199196, 1.198426263333146, -1.6906995865986896,
        0.7325047060963897}));
    const Meter::Coefficients rlb = {
        1.0000000000000073, -2.0000000000000147, 1.0000000000000073, -1.9900474548339653,
        0.9900722503661955};
    // clang-format on
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_NEAR(stereo.meterAs<Meter>()->rlbCoefficients()[i], rlb[i], 1e-15) << i;
    }
    EXPECT_EQ(stereo.meterAs<Meter>()->level(), -96.0f);
    const Channels tone = {sequence({{-23, 2}}, 48000)};
    const Channels silence = {std::vector<float>(48000)};
    const float both = measure(stereo, tone);
    EXPECT_NEAR(both, 0.0f, 0.1f);
    const struct {
        const char* what;
        std::uint32_t channels;
        std::function<void(Meter&)> route;
        float level;
    } cases[] = {
        // clang-format off
        {"mono", 1, [](Meter&) {}, both - 3.0103f},
        {"mono to both slots", 1, [](Meter& m) { m.setRightChannelIndex(0); }, both},
        {"left to the centre too", 2, [](Meter& m) { m.setCenterChannelIndex(0); }, both + 1.7609f},
        {"no channel", 2, [](Meter& m) { m.setLeftChannelIndex(-1); m.setRightChannelIndex(7); },
         -73.0f},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Chain meter = meterOf(KROLUMeterMeasurementTypeMomentary, c.channels);
        c.route(*meter.meterAs<Meter>());
        EXPECT_NEAR(measure(meter, tone), c.level, 0.01f);
    }
    EXPECT_EQ(measure(meterOf(KROLUMeterMeasurementTypeShortTerm, 2), silence), -73.0f);
    EXPECT_EQ(measure(meterOf(KROLUMeterMeasurementTypeIntegrated, 2), silence), -96.0f);
}

// A new type clears the window but not the ring of gated blocks; an unknown
// type measures nothing; reset clears the ring.
TEST(KROLUMeterAudioProcessor, ChangingTypeKeepsTheRingAndResetClearsIt) {
    Chain meter = meterOf(KROLUMeterMeasurementTypeIntegrated, 2);
    Meter& lu = *meter.meterAs<Meter>();
    const Channels loud = {sequence({{-23, 10}}, 48000)};
    const Channels quieter = {sequence({{-30, 1}}, 48000)};
    measure(meter, loud);
    lu.setMeasurementType(KROLUMeterMeasurementTypeMomentary);
    EXPECT_NEAR(measure(meter, quieter), -7.0f, 0.1f);
    lu.setMeasurementType("loud");
    EXPECT_NEAR(measure(meter, loud), -7.0f, 0.1f);
    lu.setMeasurementType(KROLUMeterMeasurementTypeIntegrated);
    // 100 blocks at -23 LUFS and 10 at -30 within 10 LU of their mean.
    const float expected = float(10.0 * std::log10((100.0 + 10.0 * std::pow(10.0, -0.7)) / 110.0));
    EXPECT_NEAR(measure(meter, quieter), expected, 0.05f);
    EXPECT_TRUE(lu.reset());
    EXPECT_EQ(lu.level(), -96.0f);
    // Ten blocks, the first three of a window a quarter, half and three
    // quarters full.
    EXPECT_NEAR(measure(meter, quieter), -7.0 + 10.0 * std::log10(8.5 / 10.0), 0.05);
}

// Bad samples, every block length and inert meters: readings stay finite and
// nothing allocates; a huge finite sample stays among the loudest blocks.
TEST(KROLUMeterAudioProcessor, BadInputLeavesEveryReadingFinite) {
    Channels bad = {sequence({{-23, 8}}, 48000)};
    bad[0][50000] = std::numeric_limits<float>::quiet_NaN();
    bad[0][60000] = std::numeric_limits<float>::infinity();
    bad[0][70000] = -3e38f;
    const Channels clean = {sequence({{-23, 8}}, 48000)};
    for (const char* type : {KROLUMeterMeasurementTypeMomentary, KROLUMeterMeasurementTypeShortTerm,
                             KROLUMeterMeasurementTypeIntegrated}) {
        SCOPED_TRACE(type);
        Chain meter = meterOf(type, 2);
        Meter& lu = *meter.meterAs<Meter>();
        meter.renderSamples(bad, 0, 4800);
        bool finite = true;
        const std::uint64_t sizes[] = {4800, 0, 1, 77, 4799, 4800};
        KRO_EXPECT_NO_ALLOCATION(
            for (std::size_t at = 4800, block = 0; at < bad[0].size(); at += sizes[block++ % 6]) {
                meter.renderSamples(bad, at, sizes[block % 6]);
                finite = finite && std::isfinite(lu.level());
            });
        EXPECT_TRUE(finite);
        const float reading = lu.level();
        const float cleanReading = measure(meterOf(type, 2), clean);
        if (type == std::string(KROLUMeterMeasurementTypeIntegrated)) {
            EXPECT_GT(reading, cleanReading + 100.0f);
        } else {
            EXPECT_NEAR(reading, cleanReading, 0.01f);
        }
    }
    for (const auto& [rate, frames] : {std::pair(0.0, 4800), std::pair(48000.0, 0)}) {
        Chain chain = meterOf(KROLUMeterMeasurementTypeMomentary, 2);
        auto inert = chain.meterAs<Meter>();
        inert->outputConnection()->setSampleRate(rate);
        inert->outputConnection()->setMaxFrames(std::uint64_t(frames));
        EXPECT_TRUE(inert->initializeForRender());
        EXPECT_EQ(inert->analysisFrames(), 0u);
    }
}

// A display polls and a host switches type and slots while rendering.
TEST(KROLUMeterAudioProcessor, HostChangesWhileRendering) {
    Chain meter = meterOf(KROLUMeterMeasurementTypeShortTerm, 2);
    Meter& lu = *meter.meterAs<Meter>();
    const Channels tone = {sequence({{-23, 1}}, 48000)};
    std::atomic<bool> done{false};
    std::atomic<int> notFinite{0}, changes{0};
    std::thread host([&] {
        const char* types[] = {KROLUMeterMeasurementTypeMomentary,
                               KROLUMeterMeasurementTypeIntegrated,
                               KROLUMeterMeasurementTypeShortTerm};
        for (int change = 0; !done.load(); ++change, ++changes) {
            lu.setMeasurementType(types[change % 3]);
            lu.setRightChannelIndex(change % 2);
            notFinite += !std::isfinite(lu.level());
            std::this_thread::yield();
        }
    });
    for (int pass = 0; pass < 2000 && (pass < 10 || changes.load() < 100); ++pass) {
        measure(meter, tone);
    }
    done.store(true);
    host.join();
    EXPECT_GE(changes.load(), 100);
    EXPECT_EQ(notFinite.load(), 0);
    lu.setMeasurementType(KROLUMeterMeasurementTypeMomentary);
    lu.setRightChannelIndex(1);
    EXPECT_NEAR(measure(meter, tone), 0.0f, 0.1f);
}
