// The linear-phase equaliser against numpy, its delay, band shapes, bad input and threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <limits>
#include <thread>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROSpectralEQAudioProcessor.h"

using namespace kro_dsp_test;

namespace {

using EQ = KROSpectralEQAudioProcessor;
using BandPointer = std::shared_ptr<KROSpectralEQAudioProcessorBand>;

constexpr double kRate = 48000.0;

KROPropertyList bandProperties(const char* kind,
                               std::initializer_list<std::pair<const char*, double>> fields) {
    KROPropertyList properties = KROPropertyList::dictionary();
    properties.setObjectForKey("class", std::string("KROSpectralEQAudioProcessorBand") + kind);
    for (const auto& [key, value] : fields) {
        properties.setObjectForKey(key, value);
    }
    return properties;
}

BandPointer band(const char* kind, std::initializer_list<std::pair<const char*, double>> fields) {
    return KROSpectralEQAudioProcessorBand::bandWithProperties(bandProperties(kind, fields));
}

// A chain through an equaliser of 2^resolution bins, built again with the bands.
struct EQChain {
    Chain chain;
    std::shared_ptr<EQ> eq;

    EQChain(std::uint64_t resolution, std::vector<BandPointer> bands, float quality = 1.0f,
            float maximumQuality = 1.0f, std::uint32_t channels = 1)
        : chain(makeChain("KROTestGenerator", "KROSpectralEQAudioProcessor", channels, 512, kRate)),
          eq(chain.meterAs<EQ>()) {
        eq->setResolution(resolution);
        eq->setQuality(quality);
        eq->setMaximumQuality(maximumQuality);
        for (auto& each : bands) {
            eq->addBand(each);
        }
        EXPECT_TRUE(eq->reset());
    }

    std::vector<float> run(const std::vector<float>& in) {
        const Channels channels = {in};
        std::vector<float> out;
        for (std::size_t start = 0; start < in.size(); start += 512) {
            const auto& block = chain.renderSamples(channels, start, 512);
            out.insert(out.end(), block.channel(0), block.channel(0) + 512);
        }
        out.resize(in.size());
        return out;
    }
};

std::vector<float> impulse(std::size_t length, float height = 1.0f) {
    std::vector<float> samples(length, 0.0f);
    samples[0] = height;
    return samples;
}

// |DFT| of the first n samples at bins 0 .. n/2, by numpy.
std::vector<float> numpyMagnitudes(const std::vector<float>& response, std::size_t n) {
    const auto in = rawFloatFile("eq-response.f32", response);
    const auto out = in.parent_path() / (in.filename().string() + ".out");
    const auto run = KRORunCommand("/usr/bin/python3 '" + std::string(KRO_SOURCE_DIR) +
                                   "/core/tests/dsp/eq_response.py' '" + in.string() + "' '" +
                                   out.string() + "' " + std::to_string(n) + " 2>&1");
    std::ifstream file(out, std::ios::binary);
    std::vector<float> magnitudes(n / 2 + 1);
    file.read(reinterpret_cast<char*>(magnitudes.data()),
              std::streamsize(magnitudes.size() * sizeof(float)));
    EXPECT_TRUE(file) << run.output;
    std::filesystem::remove(in);
    std::filesystem::remove(out);
    return magnitudes;
}

double decibels(double gain) {
    return 20.0 * std::log10(gain);
}

bool allFinite(const std::vector<float>& samples) {
    return std::all_of(samples.begin(), samples.end(), [](float x) { return std::isfinite(x); });
}

} // namespace

// The impulse response is symmetric about its delay (linear phase), its
// magnitude by numpy is what actualScalars reports, and it follows the
// requested curve within 0.5 dB wherever the curve is above -40 dB.
TEST(KROSpectralEQAudioProcessor, NumpyMeasuresTheRequestedCurveWithLinearPhase) {
    const struct {
        const char* what;
        std::vector<BandPointer> bands;
    } cases[] = {
        {"low shelf +12 dB below 200 Hz",
         {band("LowShelf", {{"frequency", 200}, {"scalar", 4}, {"slope", 1}})}},
        {"high shelf -6 dB above 4 kHz",
         {band("HighShelf", {{"frequency", 4000}, {"scalar", 0.5}, {"slope", 1}})}},
        {"bandpass +9 dB, flat top",
         {band("Bandpass",
               {{"frequency", 1000}, {"scalar", 2.8}, {"width", 1.5}, {"spread", 0.5}})}},
        {"lowpass 8 kHz and highpass 100 Hz",
         {band("Lowpass", {{"frequency", 8000}, {"slope", 0.5}}),
          band("Highpass", {{"frequency", 100}, {"slope", 0.25}})}},
    };
    constexpr std::size_t n = 4096;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EQChain eq(12, c.bands);
        ASSERT_TRUE(eq.eq->shouldProcess());
        const std::vector<float> response = eq.run(impulse(n + 512));
        const std::size_t centre = n / 2 - 1;
        for (std::size_t k = 1; k <= centre; ++k) {
            ASSERT_NEAR(response[centre - k], response[centre + k], 2e-7) << k;
        }
        EXPECT_EQ(response[n - 1], 0.0f);
        const auto measured = numpyMagnitudes(response, n);
        const auto& requested = eq.eq->requestedScalars();
        const auto& actual = eq.eq->actualScalars();
        for (std::size_t k = 0; k <= n / 2; ++k) {
            ASSERT_NEAR(measured[k], std::fabs(actual[k]), 1e-4) << "bin " << k;
            if (decibels(requested[k]) > -40.0) {
                ASSERT_NEAR(decibels(measured[k]), decibels(requested[k]), 0.5) << "bin " << k;
            }
        }
    }
}

// A curve that stays at 1 leaves the filters out: no latency, no delay, the
// samples untouched.
TEST(KROSpectralEQAudioProcessor, AFlatCurvePassesTheAudioUntouched) {
    auto disabled = band("Bandpass", {{"scalar", 3}});
    disabled->setEnabled(false);
    const struct {
        const char* what;
        std::vector<BandPointer> bands;
    } cases[] = {
        {"no bands", {}},
        {"a disabled band", {disabled}},
        {"a bandpass of scalar 1", {band("Bandpass", {{"scalar", 1}, {"width", 3}})}},
        {"the plain band", {KROSpectralEQAudioProcessorBand::band()}},
    };
    const auto tone = sine(-3.0, 997.0, 0.1, kRate);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EQChain eq(10, c.bands);
        EXPECT_FALSE(eq.eq->shouldProcess());
        EXPECT_EQ(eq.eq->latency(), 0u);
        EXPECT_EQ(eq.eq->actualScalars(), std::vector<float>(513, 1.0f));
        EXPECT_EQ(eq.run(tone), tone);
    }
}

// The delay is hmax of the maximum quality whatever the quality in use; the
// reported latency is half of n times the maximum quality, one frame more.
TEST(KROSpectralEQAudioProcessor, TheDelayIsFixedByTheMaximumQuality) {
    const struct {
        float quality, maximumQuality;
        std::size_t delay;
        std::uint64_t latency;
        std::uint32_t taps;
    } cases[] = {
        {1.0f, 1.0f, 511, 512, 1023}, {0.0f, 1.0f, 511, 512, 1},   {0.25f, 1.0f, 511, 512, 255},
        {0.5f, 0.5f, 255, 256, 511},  {1.0f, 0.5f, 255, 256, 511},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.quality << " of " << c.maximumQuality);
        // Above every bin: a gain of one half everywhere, one tap of 0.5.
        EQChain eq(10, {band("LowShelf", {{"frequency", 1e9}, {"scalar", 0.5}})}, c.quality,
                   c.maximumQuality);
        EXPECT_EQ(eq.eq->latency(), c.latency);
        EXPECT_EQ(eq.eq->eqs().front()->taps(), c.taps);
        const auto out = eq.run(impulse(2048, 0.75f));
        for (std::size_t i = 0; i < out.size(); ++i) {
            ASSERT_NEAR(out[i], i == c.delay ? 0.375f : 0.0f, 1e-6) << i;
        }
    }
}

// The curve at chosen bins (11.71875 Hz apart at 48 kHz and n = 4096) against
// each band's closed form in dB per octave.
TEST(KROSpectralEQAudioProcessor, TheBandsShapeTheRequestedCurve) {
    const double halfway = std::pow(4.0, 1.0 - std::log2(2121.09375 / 1500.0));
    const auto lowpass = band("Lowpass", {{"frequency", 1500}});
    const auto highpass = band("Highpass", {{"frequency", 3000}, {"slope", 0.5}});
    const auto lowShelf = band("LowShelf", {{"frequency", 1500}, {"scalar", 4}});
    const auto highShelf = band("HighShelf", {{"frequency", 1500}, {"scalar", 4}});
    const auto triangle = band("Bandpass", {{"frequency", 1500}, {"scalar", 4}});
    const auto rectangle = band("Bandpass", {{"frequency", 1500}, {"scalar", 4}, {"spread", 1}});
    const auto negative =
        band("Bandpass", {{"frequency", 1500}, {"scalar", -4}, {"width", -1}, {"spread", -3}});
    const auto twice = band("Bandpass", {{"frequency", 1500}, {"scalar", 2}});
    const auto thrice = band("Bandpass", {{"frequency", 1500}, {"scalar", 3}});
    const struct {
        const char* what;
        std::vector<BandPointer> bands;
        std::size_t bin;
        double gain;
    } cases[] = {
        {"lowpass, 6 dB an octave above", {lowpass}, 256, 0.5},
        {"lowpass, flat below", {lowpass}, 127, 1.0},
        {"highpass, 12 dB an octave below", {highpass}, 128, 0.25},
        {"highpass at bin 0, from 0.01 Hz", {highpass}, 0, std::pow(0.01 / 3000.0, 2.0)},
        {"low shelf at bin 0", {lowShelf}, 0, 4.0},
        {"low shelf, halfway in dB", {lowShelf}, 181, halfway},
        {"low shelf, above the slope", {lowShelf}, 257, 1.0},
        {"high shelf at bin 0", {highShelf}, 0, 1.0},
        {"high shelf at its frequency", {highShelf}, 128, 4.0},
        {"bandpass triangle, half a flank", {triangle}, 181, halfway},
        {"bandpass rectangle", {rectangle}, 255, 4.0},
        {"bandpass, outside", {rectangle}, 257, 1.0},
        {"negative scalar, width and spread", {negative}, 181, halfway},
        {"two bands at one frequency multiply", {twice, thrice}, 128, 6.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EQChain eq(12, c.bands);
        EXPECT_NEAR(eq.eq->requestedScalars()[c.bin], c.gain, c.gain * 1e-5);
    }
}

// Bands come from settings, unknown classes are skipped, and the settings give
// them back; a resolution without a filter fails initialize with code 1.
TEST(KROSpectralEQAudioProcessor, SettingsAndRefusedResolutions) {
    KROPropertyList settings = KROPropertyList::dictionary();
    KROPropertyList bands = KROPropertyList::array();
    bands.addObject(bandProperties("HighShelf", {{"frequency", 2000}, {"scalar", 2}}));
    bands.addObject(bandProperties("Nonsense", {}));
    KROPropertyList processor = KROPropertyList::dictionary();
    processor.setObjectForKey("class", "KROFaderAudioProcessor");
    bands.addObject(processor);
    bands.addObject(bandProperties("Lowpass", {{"frequency", -5}}));
    settings.setObjectForKey("bands", bands);
    settings.setObjectForKey("resolution", 9);
    settings.setObjectForKey("quality", 0.5);
    EQChain eq(10, {});
    ASSERT_TRUE(eq.eq->setSettings(settings));
    ASSERT_EQ(eq.eq->bands().size(), 2u);
    EXPECT_EQ(eq.eq->bands()[0]->processor(), eq.eq.get());
    const KROPropertyList saved = eq.eq->settings();
    KROPropertyList shelf = bandProperties("HighShelf", {});
    shelf.setObjectForKey("enabled", true);
    for (const auto& [key, value] :
         {std::pair{"frequency", 2000.0}, {"scalar", 2.0}, {"slope", 0.5}}) {
        shelf.setObjectForKey(key, value);
    }
    EXPECT_EQ(*saved.objectForKey("bands")->objectAtIndex(0), shelf);
    EXPECT_EQ(
        saved.objectForKey("bands")->objectAtIndex(1)->objectForKey("frequency")->doubleValue(),
        0.0);
    ASSERT_TRUE(eq.eq->reset());
    EXPECT_EQ(eq.eq->requestedScalars().size(), 257u);
    EXPECT_EQ(eq.eq->eqs().front()->taps(), 255u);

    for (std::uint64_t resolution : {0u, 21u, 64u}) {
        SCOPED_TRACE(resolution);
        eq.eq->setResolution(resolution);
        KROErrorPtr error;
        EXPECT_FALSE(eq.eq->reset(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->className(), "KROSpectralEQAudioProcessorError");
        EXPECT_EQ(error->code(), 1);
        EXPECT_TRUE(eq.eq->eqs().empty());
        // Nothing to render with: the audio passes.
        const auto tone = sine(-6.0, 440.0, 0.02, kRate);
        EXPECT_EQ(eq.run(tone), tone);
    }
}

// Bad samples leave the filter after its length; absurd bands never design a
// filter that is not finite.
TEST(KROSpectralEQAudioProcessor, BadSamplesAndAbsurdBandsDoNotSpread) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float infinity = std::numeric_limits<float>::infinity();
    auto gentle = [] { return band("HighShelf", {{"frequency", 3000}, {"scalar", 0.5}}); };
    const struct {
        const char* what;
        std::vector<BandPointer> bands;
        float bad;
    } cases[] = {
        {"NaN samples", {gentle()}, nan},
        {"infinite samples", {gentle()}, infinity},
        {"NaN frequency and slope",
         {band("LowShelf", {{"frequency", nan}, {"scalar", 2}, {"slope", nan}}), gentle()},
         0.0f},
        {"infinite scalar", {band("Bandpass", {{"scalar", infinity}}), gentle()}, 0.0f},
        {"huge width", {band("Bandpass", {{"scalar", 2}, {"width", 1e300}}), gentle()}, 0.0f},
        {"a lowpass at 0 Hz", {band("Lowpass", {{"frequency", 0}, {"slope", 100}})}, 0.0f},
        {"a zero gain everywhere",
         {band("Bandpass", {{"scalar", 0}, {"width", 1e3}, {"spread", 1}}),
          band("LowShelf", {{"frequency", 1}, {"scalar", 0}})},
         0.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EQChain eq(10, c.bands);
        EXPECT_TRUE(std::all_of(eq.eq->actualScalars().begin(), eq.eq->actualScalars().end(),
                                [](float x) { return std::isfinite(x); }));
        // A square at full scale with 64 bad samples at 1000; the filter is 1023 taps.
        std::vector<float> square(8192);
        for (std::size_t i = 0; i < square.size(); ++i) {
            square[i] = (i / 50) % 2 ? 1.0f : -1.0f;
        }
        std::fill_n(square.begin() + 1000, 64, c.bad);
        const auto out = eq.run(square);
        EXPECT_TRUE(allFinite({out.begin() + 1000 + 64 + 1023, out.end()}));
        if (c.bad == 0.0f) {
            EXPECT_TRUE(allFinite(out));
        }
    }
}

// Rendering allocates nothing; host-thread updates between two gains land
// whole, so every block of a channel carries one gain throughout.
TEST(KROSpectralEQAudioProcessor, UpdatesFromAHostThreadLandWholeAndRenderingAllocatesNothing) {
    auto shelf = std::dynamic_pointer_cast<KROSpectralEQAudioProcessorBandLowShelf>(
        band("LowShelf", {{"frequency", 1e9}, {"scalar", 0.5}}));
    EQChain eq(8, {shelf}, 1.0f, 1.0f, 2);
    eq.chain.sourceAs<KROTestGenerator>()->setConstant(1.0f);
    eq.chain.render(512);
    KRO_EXPECT_NO_ALLOCATION(for (int i = 0; i < 4; ++i) eq.chain.render(512));

    std::atomic<bool> done{false};
    std::thread host([&] {
        for (int i = 0; !done.load(); ++i) {
            shelf->setScalar(i % 2 ? 0.5 : 0.25);
            eq.eq->update();
        }
    });
    std::size_t torn = 0;
    for (int block = 0; block < 200; ++block) {
        const auto& out = eq.chain.render(64);
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            const float* samples = out.channel(channel);
            torn += samples[0] != 0.5f && samples[0] != 0.25f;
            torn += std::count_if(samples, samples + 64, [&](float x) { return x != samples[0]; });
        }
    }
    EXPECT_EQ(torn, 0u);
    done.store(true);
    host.join();
}
