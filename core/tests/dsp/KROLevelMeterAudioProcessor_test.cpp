// The level meter: ballistics, measurements, clip hold, bad input, threads, sox.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <sstream>
#include <thread>

#include "KROAllocationGuard.h"
#include "KRODspTestSupport.h"
#include "KROLevelMeterAudioProcessor.h"
#include "KROSineWaveAudioGenerator.h"

using namespace kro_dsp_test;
using Meter = KROLevelMeterAudioProcessor;

namespace {

struct MeterChain : Chain {
    MeterChain(std::uint32_t channels = 2, std::uint64_t maxFrames = 512, double rate = 48000.0)
        : Chain(makeChain("KROTestGenerator", "KROLevelMeterAudioProcessor", channels, maxFrames,
                          rate)),
          meter(get<Meter>("meter")), source(get<KROTestGenerator>("source")) {}

    void set(const char* ballistic, const char* measurement = "peak") {
        meter->setValue(KROPropertyList(ballistic), "ballistics");
        meter->setValue(KROPropertyList(measurement), "measurement");
    }
    void hold(float value, double seconds, std::uint64_t frames) {
        source->signal = [value](std::uint64_t, std::uint32_t) { return value; };
        for (double t = 0.0; t < seconds - 1e-9; t += double(frames) / head->sampleRate) {
            render(frames);
        }
    }

    std::shared_ptr<Meter> meter;
    std::shared_ptr<KROTestGenerator> source;
};

float sine(double amplitude, double hertz, std::uint64_t frame) {
    return static_cast<float>(amplitude * std::sin(2.0 * M_PI * hertz * double(frame) / 48000.0));
}

} // namespace

// Each ballistic sets its row; "" is "vu", an unknown name or a wrong kind keeps the numbers.
TEST(KROLevelMeterAudioProcessor, EveryBallisticSetsItsRow) {
    const float inf = std::numeric_limits<float>::infinity();
    const float minus24 = std::bit_cast<float>(0x3d813855u);
    const struct {
        const char* name;
        float riseAmount, riseTime, fallAmount, fallTime, holdTime;
    } rows[] = {
        {"vu", 0.01f, 0.3f, 0.01f, 0.3f, 0.0f},
        {"digital", 0.333f, 0.0017f, 0.1f, 0.85f, 0.0f},
        {"ppmType1", 0.333f, 0.0017f, 0.1f, 1.7f, 0.0f},
        {"ppmType2", 0.333f, 0.0017f, minus24, 2.8f, 0.1f},
        {"nordic", 0.2f, 0.005f, 0.1f, 1.5f, 0.1f},
        {"bbcebu", 0.2f, 0.005f, minus24, 2.85f, 0.1f},
        {"peakHoldShort", 0.001f, 0.0f, 0.001f, 0.3f, 0.7f},
        {"peakHoldLong", 0.001f, 0.0f, 0.001f, 0.3f, 2.0f},
        {"peakHoldInfinite", 0.001f, 0.0f, 0.001f, 0.3f, inf},
        {"none", 0.01f, 0.0f, 0.01f, 0.0f, inf},
        {"unknown", 0.01f, 0.0f, 0.01f, 0.0f, inf},
        {"", 0.01f, 0.3f, 0.01f, 0.3f, inf},
    };
    auto meter = std::make_shared<Meter>();
    ASSERT_TRUE(meter->init());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        meter->setValue(KROPropertyList(row.name), "ballistics");
        for (const char* key : {"ballistics", "measurement", "clipHoldLength"}) {
            meter->setValue(KROPropertyList::array(), key);
        }
        EXPECT_EQ(meter->valueForParameterKey("ballistics"), KROPropertyList(row.name));
        EXPECT_EQ(
            std::tuple(meter->riseAmount(), meter->riseTime(), meter->fallAmount(),
                       meter->fallTime(), meter->holdTime()),
            std::tuple(row.riseAmount, row.riseTime, row.fallAmount, row.fallTime, row.holdTime));
    }
    EXPECT_EQ(meter->valueForParameterKey("measurement"), KROPropertyList("peak"));
    EXPECT_EQ(meter->valueForParameterKey("clipHoldLength"), KROPropertyList(3.0));
    EXPECT_EQ(meter->valueForParameterKey("gain"), std::nullopt);
}

// riseAmount is left after riseTime, fallAmount after fallTime; 0 jumps; holdTime is unused.
TEST(KROLevelMeterAudioProcessor, TheLevelMovesByItsBallistic) {
    for (const auto& row : Meter::ballistics()) {
        SCOPED_TRACE(row.name);
        MeterChain chain(1, 10, 100000.0);
        chain.set(row.name);
        chain.hold(0.8f, std::max(row.riseTime, 1e-4f), 10);
        const float risen = chain.meter->level();
        EXPECT_NEAR(1.0f - risen / 0.8f, row.riseTime ? row.riseAmount : 0.0f,
                    0.01f * row.riseAmount);
        chain.hold(0.0f, std::max(row.fallTime, 1e-4f), 10);
        EXPECT_NEAR(chain.meter->level() / risen, row.fallTime ? row.fallAmount : 0.0f,
                    0.01f * row.fallAmount);
    }
    MeterChain vu(1, 512, 44100.0);
    vu.hold(0.5f, 512 / 44100.0, 512);
    EXPECT_NEAR(vu.meter->level(), 0.5 * (1.0 - 0.836759), 1e-6);
}

// Peak, RMS and AES17 (RMS + 3 dB) of the block, 0 for another name; switching keeps levels.
TEST(KROLevelMeterAudioProcessor, EachMeasurementReadsItsBlock) {
    MeterChain chain(1, 480);
    chain.source->signal = [](std::uint64_t frame, std::uint32_t) {
        return sine(1.0, 1000.0, frame);
    };
    const std::pair<const char*, float> cases[] = {
        {"peak", 1.0f}, {"", 1.0f}, {"rms", float(M_SQRT1_2)}, {"aes17", 0.99881f}, {"loud", 0.0f}};
    for (const auto& [name, expected] : cases) {
        chain.set("none", name);
        chain.render(480);
        EXPECT_NEAR(chain.meter->level(), expected, 2e-5) << name;
    }
    chain.set("vu", "peak");
    chain.render(480);
    const float before = chain.meter->level();
    chain.set("vu", "rms");
    EXPECT_EQ(chain.meter->level(), before);
    chain.render(480);
    EXPECT_NEAR(chain.meter->level(), before + (M_SQRT1_2 - before) * (1.0 - 0.857696), 1e-5);
}

// A clip is above full scale, per channel; it shows for the hold, never at 0, until reset below 0.
TEST(KROLevelMeterAudioProcessor, TheClipHoldFollowsTheClock) {
    MeterChain chain(2, 256);
    double now = 1000.0;
    chain.meter->setClock([&now] { return now; });
    chain.set("vu", "loud");
    for (const float peak : {1.0f, -std::nextafter(1.0f, 2.0f)}) {
        chain.source->signal = [peak](std::uint64_t frame, std::uint32_t channel) {
            return frame == 17 && channel == 1 ? peak : 0.5f;
        };
        chain.render(256);
        EXPECT_EQ(chain.meter->isClipped(), peak != 1.0f);
    }
    EXPECT_FALSE(chain.meter->isClippedForChannel(0));
    EXPECT_EQ(chain.meter->clipTimeOfChannel(1), 1000.0);
    const std::tuple<double, double, bool> holds[] = {
        {3.0, 1002.9, true}, {3.0, 1003.0, false}, {0.0, 1000.0, false}, {-1.0, 1.0e9, true}};
    for (const auto& [hold, at, shown] : holds) {
        chain.meter->setValue(KROPropertyList(hold), "clipHoldLength");
        now = at;
        EXPECT_EQ(chain.meter->isClippedForChannel(1), shown) << hold << " at " << at;
    }
    EXPECT_TRUE(chain.stream->reset());
    EXPECT_EQ(std::pair(chain.meter->isClipped(), chain.meter->level()), std::pair(false, 0.0f));
    chain.meter->setClock(nullptr);
    EXPECT_NEAR(chain.meter->now(), double(std::time(nullptr)) - 978307200.0, 5.0);
}

// Without arrays: the smallest normal float. On the push path it measures and passes on.
TEST(KROLevelMeterAudioProcessor, LevelsWithoutArraysAndOnThePushPath) {
    auto meter = std::make_shared<Meter>();
    ASSERT_TRUE(meter->init());
    EXPECT_EQ(std::bit_cast<std::uint32_t>(meter->level()), 0x00800000u);
    EXPECT_FALSE(meter->isClipped() || meter->isClippedForChannel(0));
    EXPECT_TRUE(meter->initializeForRender() && meter->level() == 0.0f);
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(kro_graph_test::description(
        {kro_graph_test::headEntry("head", false, true), entry("KROLevelMeterAudioProcessor", "a"),
         entry("KROLevelMeterAudioProcessor", "b")},
        {kro_graph_test::connection(nullptr, "head", "a"),
         kro_graph_test::connection(nullptr, "a", "b")})));
    ASSERT_TRUE(stream.initialize());
    const auto head = kro_graph_test::processorOf<KROTestHead>(stream, "head");
    head->buffer->clear();
    head->buffer->setValue(0.75f, 0, 0);
    head->buffer->setValue(-0.25f, 3, 1);
    head->outputBus()->input(*head->buffer, *head->info());
    for (const char* name : {"a", "b"}) {
        const auto meter = kro_graph_test::processorOf<Meter>(stream, name);
        EXPECT_NEAR(meter->levelOfChannel(0) / meter->levelOfChannel(1), 3.0f, 1e-6) << name;
        EXPECT_EQ(meter->levelOfChannel(2), Meter::noLevel);
    }
    EXPECT_TRUE(stream.uninitialize());
    EXPECT_EQ(kro_graph_test::processorOf<Meter>(stream, "a")->level(), Meter::noLevel);
}

// NaN, infinities, empty and huge blocks and a rate of 0 leave no NaN; nothing allocates.
TEST(KROLevelMeterAudioProcessor, BadAudioLeavesNoNaNAndNothingAllocates) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (const char* ballistic : {"vu", "none", "peakHoldShort"}) {
        for (const char* measurement : {"peak", "rms", "aes17"}) {
            SCOPED_TRACE(std::string(ballistic) + " " + measurement);
            MeterChain chain(2, std::uint64_t{1} << 18);
            chain.set(ballistic, measurement);
            for (const float special : {0.5f, nan, inf, -inf, nan, 0.25f}) {
                chain.source->signal = [special](std::uint64_t frame, std::uint32_t channel) {
                    return frame == 10 + channel ? special : 0.25f;
                };
                chain.render(256);
                ASSERT_FALSE(std::isnan(chain.meter->levelOfChannel(0)) ||
                             std::isnan(chain.meter->levelOfChannel(1)));
            }
            chain.hold(0.25f, 0.0, 1);
            const std::uint64_t sizes[] = {1 << 18, 77, 512, 256, 256, 256};
            KRO_EXPECT_NO_ALLOCATION(for (const std::uint64_t frames
                                          : sizes) {
                chain.render(frames);
                (void)chain.meter->level();
                (void)chain.meter->isClipped();
            });
            EXPECT_TRUE(std::isfinite(chain.meter->level()));
            EXPECT_TRUE(chain.meter->isClipped());
            const float level = chain.meter->level();
            chain.render(0);
            EXPECT_EQ(chain.meter->level(), std::string(ballistic) == "none" ? 0.0f : level);
        }
    }
    MeterChain still(1, 128, 0.0);
    still.hold(0.5f, 0.0, 1);
    still.render(128);
    EXPECT_EQ(still.meter->level(), 0.5f);
    still.render(0);
    EXPECT_FALSE(std::isnan(still.meter->level()));
}

// Unsmoothed levels are sox stats' peak and RMS of each block (printed to 0.01 dB).
TEST(KROLevelMeterAudioProcessor, PeakAndRmsPerBlockMatchSoxStats) {
    if (KRORunCommand("command -v sox").status != 0) {
        GTEST_SKIP() << "sox is missing (scripts/install-deps installs it)";
    }
    MeterChain chain(1, 2048);
    const std::uint64_t sizes[] = {2048, 1000, 512, 1777, 64, 2048};
    for (std::size_t block = 0; block < std::size(sizes); ++block) {
        const double amplitude = std::pow(10.0, -0.15 * double(block));
        const double hertz = 100.0 + 333.0 * double(block);
        chain.source->signal = [=](std::uint64_t frame, std::uint32_t) {
            return sine(amplitude, hertz, frame);
        };
        std::map<std::string, double> ours, sox;
        for (const char* measurement : {"peak", "rms", "aes17"}) {
            chain.set("none", measurement);
            chain.render(sizes[block]);
            ours[measurement] = 20.0 * std::log10(chain.meter->level());
        }
        const float* samples = chain.head->buffer->channel(0);
        const auto path = rawFloatFile("block.f32", {samples, samples + sizes[block]});
        std::istringstream lines(
            KRORunCommand("sox -t f32 -r 48000 -c 1 '" + path.string() + "' -n stats 2>&1").output);
        std::filesystem::remove(path);
        for (std::string line; std::getline(lines, line);) {
            for (const char* name : {"Pk lev dB", "RMS lev dB"}) {
                if (line.rfind(name, 0) == 0) {
                    sox[name] = std::strtod(line.c_str() + std::strlen(name), nullptr);
                }
            }
        }
        ASSERT_EQ(sox.size(), 2u) << block;
        EXPECT_NEAR(ours["peak"], sox["Pk lev dB"], 0.006) << block;
        EXPECT_NEAR(ours["rms"], sox["RMS lev dB"], 0.006) << block;
        EXPECT_NEAR(ours["aes17"], sox["RMS lev dB"] + 3.0, 0.006) << block;
    }
}

// The example renders while a display thread polls and a host thread changes
// settings (see `make tsan`); the full-scale tone then reads 1 and never clips.
TEST(KROLevelMeterAudioProcessor, TheExampleRendersWhileOtherThreadsPollAndChange) {
    auto description = KROPropertyList::fromFile(std::filesystem::path(KRO_SOURCE_DIR) /
                                                 "examples/sine-to-level-meter.plist");
    ASSERT_NE(description, nullptr);
    for (KROPropertyList& entry : *description->objectForKey("processors")->arrayValue()) {
        if (*entry.objectForKey("class") == KROPropertyList("KROHardwareAudioProcessor")) {
            entry.setObjectForKey("class", "KROTestHead");
            entry.setObjectForKey("maxFrames", 512);
        }
    }
    Chain chain;
    ASSERT_TRUE(chain.stream->initWithDescription(*description) && chain.stream->initialize());
    const auto head = chain.get<KROTestHead>("output");
    const auto meter = chain.get<Meter>("meter");
    const auto sine = chain.get<KROSineWaveAudioGenerator>("sine");
    ASSERT_TRUE(head && meter && sine);
    std::atomic<bool> done{false};
    std::atomic<int> badLevels{0}, polls{0};
    std::thread display([&] {
        while (!done.load()) {
            for (const float level : {meter->level(), meter->levelOfChannel(1)}) {
                badLevels += !std::isfinite(level) || level < 0.0f;
            }
            (void)meter->isClipped(), (void)meter->clipTimeOfChannel(0), ++polls;
        }
    });
    std::thread host([&] {
        for (int change = 0; !done.load(); ++change) {
            sine->setFrequency(change % 2 ? 440.0f : 1000.0f);
            meter->setClipHoldLength(change % 3 ? 3.0 : -1.0);
            meter->setValue(KROPropertyList(change % 2 ? "vu" : "digital"), "ballistics");
            std::this_thread::yield();
        }
    });
    for (int block = 0; block < 2000; ++block) {
        head->renderBlock(512);
    }
    done.store(true);
    display.join();
    host.join();
    EXPECT_GT(polls.load(), 0);
    EXPECT_EQ(badLevels.load(), 0);
    meter->setValue(KROPropertyList("vu"), "ballistics");
    for (int block = 0; block < 150; ++block) {
        head->renderBlock(512);
    }
    EXPECT_NEAR(meter->level(), 1.0f, 0.01f);
    EXPECT_FALSE(meter->isClipped());
}
