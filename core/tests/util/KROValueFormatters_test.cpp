// The decibel, note, bit depth and time remaining formatters: texts, typed text, refusals.
#include <gtest/gtest.h>

#include <limits>
#include <span>
#include <string>
#include <utility>

#include "KROBitDepthFormatter.h"
#include "KRODecibelFormatter.h"
#include "KROMIDINoteFormatter.h"
#include "KROTimeRemainingFormatter.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Accepted texts read to their value; refused ones quote the text and keep the value.
template <typename Formatter, typename Value>
void expectReadings(const Formatter& formatter,
                    std::span<const std::pair<const char*, Value>> accepted,
                    std::span<const char* const> refused) {
    for (const auto& [text, expected] : accepted) {
        Value value{};
        EXPECT_TRUE(formatter.getObjectValue(value, text)) << text;
        EXPECT_EQ(value, expected) << text;
    }
    for (const char* text : refused) {
        Value value{};
        std::string description;
        EXPECT_FALSE(formatter.getObjectValue(value, text, &description)) << text;
        EXPECT_EQ(value, Value{}) << text;
        EXPECT_NE(description.find(std::string("\"") + text + "\""), std::string::npos)
            << description;
    }
}

template <typename Formatter, typename Value>
void expectRoundTrip(const Formatter& formatter, const Value& value) {
    const std::string text = formatter.stringForObjectValue(value);
    Value read{};
    ASSERT_TRUE(formatter.getObjectValue(read, text)) << "\"" << text << "\"";
    EXPECT_EQ(formatter.stringForObjectValue(read), text);
}

} // namespace

TEST(KRODecibelFormatter, ShowsLevelsWithTheChosenPrecisionAndSilenceAsMinusInf) {
    struct Case {
        double decibels;
        unsigned precision;
        bool plus;
        bool unit;
        const char* text;
    };
    const Case cases[] = {
        {-6, 1, false, true, "-6.0 dB"},
        {3.25, 2, true, true, "+3.25 dB"},
        {-kInfinity, 1, false, true, "-inf dB"},
        {-kInfinity, 1, false, false, "-inf"},
        {0.4, 0, false, false, "0"},
        {1, 20, false, true, "1.000000000 dB"},
        {kNaN, 1, false, true, ""},
        {kInfinity, 1, true, true, ""},
    };
    for (const Case& c : cases) {
        KRODecibelFormatter formatter;
        formatter.setPrecision(c.precision);
        formatter.setShowsPlusSign(c.plus);
        formatter.setShowsUnit(c.unit);
        EXPECT_EQ(formatter.stringForObjectValue(c.decibels), c.text) << c.decibels;
    }
    const std::pair<const char*, double> accepted[] = {
        {"-6 dB", -6.0},
        {"  +3.25dB ", 3.25},
        {"-INF", -kInfinity},
        {"-inf dB", -kInfinity},
    };
    const char* const refused[] = {"", "dB", "3 dBx", "1e", "inf", "nan", "1e999", "- 3"};
    expectReadings<KRODecibelFormatter, double>(KRODecibelFormatter(), accepted, refused);
}

TEST(KROMIDINoteFormatter, NamesNotesWithOctavesAroundMiddleC) {
    KROMIDINoteFormatter sharps;
    KROMIDINoteFormatter flats;
    flats.setUsesFlats(true);
    KROMIDINoteFormatter middleC3;
    middleC3.setMiddleCOctave(3);
    const std::tuple<const KROMIDINoteFormatter&, double, const char*> cases[] = {
        {sharps, 60, "C4"}, {sharps, 61, "C#4"}, {flats, 61, "Db4"},   {flats, 70, "Bb4"},
        {sharps, 0, "C-1"}, {sharps, 127, "G9"}, {sharps, 69.4, "A4"}, {sharps, 69.6, "A#4"},
        {sharps, -1, ""},   {sharps, 127.6, ""}, {sharps, kNaN, ""},   {middleC3, 60, "C3"},
    };
    for (const auto& [formatter, note, text] : cases) {
        EXPECT_EQ(formatter.stringForObjectValue(note), text) << note;
    }
    const std::pair<const char*, double> accepted[] = {
        {"C#4", 61}, {"Db4", 61}, {" e4 ", 64}, {"B#3", 60},      {"Cb4", 59},
        {"C-1", 0},  {"G9", 127}, {"60", 60},   {"C\u266F4", 61}, {"D\u266D4", 61},
    };
    const char* const refused[] = {"H4",     "C", "C#",  "4C",   "C4x", "C#b4",
                                   "C99999", "",  "G#9", "Cb-1", "128"};
    expectReadings<KROMIDINoteFormatter, double>(sharps, accepted, refused);
    const std::pair<const char*, double> middleC3Accepted[] = {{"C3", 60}, {"G8", 127}};
    const char* const middleC3Refused[] = {"G9"};
    expectReadings<KROMIDINoteFormatter, double>(middleC3, middleC3Accepted, middleC3Refused);
    std::string description;
    double ignored = 0;
    sharps.getObjectValue(ignored, "G#9", &description);
    EXPECT_EQ(description, "\"G#9\" lies outside the MIDI notes C-1 to G9.");
}

TEST(KROBitDepthFormatter, ShowsIntegerAndFloatSampleSizes) {
    const KROBitDepthFormatter formatter;
    const std::pair<KROBitDepth, const char*> cases[] = {
        {{16, false}, "16-bit"},
        {{32, true}, "32-bit float"},
        {{64, true}, "64-bit float"},
        {{24, true}, ""},
        {{0, false}, ""},
        {{33, false}, ""},
    };
    for (const auto& [depth, text] : cases) {
        EXPECT_EQ(formatter.stringForObjectValue(depth), text) << depth.bitsPerSample;
    }
    const std::pair<const char*, KROBitDepth> accepted[] = {
        {"16", {16, false}},          {" 24 bit ", {24, false}}, {"8bit", {8, false}},
        {"32 Bit Float", {32, true}}, {"32 float", {32, true}},  {"32-bit integer", {32, false}},
    };
    const char* const refused[] = {"",  "bit",   "32-bit floaty", "1234", "-16", "24-bit float",
                                   "0", "48-bit"};
    expectReadings<KROBitDepthFormatter, KROBitDepth>(formatter, accepted, refused);
}

TEST(KROTimeRemainingFormatter, RoundsCalmlyAndReadsHumanDurations) {
    const KROTimeRemainingFormatter formatter;
    const std::pair<double, const char*> cases[] = {
        {0, "0 seconds"},
        {1, "1 second"},
        {44.6, "45 seconds"},
        {59.6, "1 minute"},
        {154, "2 minutes 30 seconds"},
        {3596, "1 hour"},
        {7260, "2 hours 1 minute"},
        {-1, ""},
        {1e300, ""},
    };
    for (const auto& [seconds, text] : cases) {
        EXPECT_EQ(formatter.stringForObjectValue(seconds), text) << seconds;
    }
    const std::pair<const char*, double> accepted[] = {
        {"1 hour 5 minutes", 3900}, {"2 min 30 s", 150}, {"1h 5m", 3900},
        {"2min30s", 150},           {"1.5 Hours", 5400}, {"90", 90},
    };
    const char* const refused[] = {"", "5 parsecs", "-5 seconds", "90 5", "1e999 hours"};
    expectReadings<KROTimeRemainingFormatter, double>(formatter, accepted, refused);
}

TEST(KROValueFormatters, WhatEachShowsReadsBackToTheSameText) {
    for (unsigned precision = 0; precision <= 3; ++precision) {
        KRODecibelFormatter decibels;
        decibels.setPrecision(precision);
        decibels.setShowsPlusSign(precision % 2 == 1);
        for (const double level : {-kInfinity, -144.0, -6.02, -0.049, 0.0, 0.05, 12.345}) {
            expectRoundTrip(decibels, level);
        }
    }
    KROMIDINoteFormatter notes;
    for (int note = 0; note <= 255; ++note) {
        notes.setUsesFlats(note > 127);
        expectRoundTrip(notes, static_cast<double>(note % 128));
    }
    for (unsigned bits = 1; bits <= 64; ++bits) {
        for (const KROBitDepth depth : {KROBitDepth{bits, false}, KROBitDepth{bits, true}}) {
            if (KROBitDepthFormatter::isSupported(depth)) {
                expectRoundTrip(KROBitDepthFormatter(), depth);
            }
        }
    }
    for (const double seconds : {1.0, 59.6, 754.0, 3601.0, 90061.0}) {
        expectRoundTrip(KROTimeRemainingFormatter(), seconds);
    }
}
