// The decibel, MIDI note, bit depth and time remaining formatters as a user
// of an editor meets them: the texts they show, what typed text reads back
// to, a clear message for text that means nothing, and a round trip from
// text to value to the same text.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include "KROBitDepthFormatter.h"
#include "KRODecibelFormatter.h"
#include "KROMIDINoteFormatter.h"
#include "KROTimeRemainingFormatter.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Reads each text; a case without a value must be refused with a message
// that quotes the text and leaves the value alone.
template <typename Formatter, typename Value>
void expectReadings(const Formatter& formatter,
                    std::initializer_list<std::pair<const char*, std::optional<Value>>> cases) {
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        Value value{};
        std::string description;
        const bool read = formatter.getObjectValue(value, text, &description);
        ASSERT_EQ(read, expected.has_value()) << description;
        if (expected) {
            EXPECT_EQ(value, *expected);
        } else {
            EXPECT_EQ(value, Value{});
            EXPECT_NE(description.find(std::string("\"") + text + "\""), std::string::npos)
                << description;
        }
    }
}

template <typename Formatter, typename Value>
void expectRoundTrip(const Formatter& formatter, const Value& value) {
    const std::string text = formatter.stringForObjectValue(value);
    SCOPED_TRACE(text);
    ASSERT_NE(text, "");
    Value read{};
    ASSERT_TRUE(formatter.getObjectValue(read, text));
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
        {-6, 1, false, true, "-6.0 dB"},         {3.25, 2, true, true, "+3.25 dB"},
        {-kInfinity, 1, false, true, "-inf dB"}, {-kInfinity, 1, false, false, "-inf"},
        {-0.04, 1, false, true, "-0.0 dB"},      {0.4, 0, false, false, "0"},
        {1, 20, false, true, "1.000000000 dB"},  {kNaN, 1, false, true, ""},
        {kInfinity, 1, true, true, ""},
    };
    for (const Case& c : cases) {
        KRODecibelFormatter formatter;
        formatter.setPrecision(c.precision);
        formatter.setShowsPlusSign(c.plus);
        formatter.setShowsUnit(c.unit);
        EXPECT_EQ(formatter.stringForObjectValue(c.decibels), c.text) << c.decibels;
    }
    expectReadings<KRODecibelFormatter, double>(KRODecibelFormatter(), {{"-6 dB", -6.0},
                                                                        {"  +3.25dB ", 3.25},
                                                                        {"0.5 db", 0.5},
                                                                        {"-INF", -kInfinity},
                                                                        {"-inf dB", -kInfinity},
                                                                        {"", std::nullopt},
                                                                        {"dB", std::nullopt},
                                                                        {"3 dBx", std::nullopt},
                                                                        {"inf", std::nullopt},
                                                                        {"nan", std::nullopt},
                                                                        {"1e999", std::nullopt},
                                                                        {"- 3", std::nullopt}});
    std::string description;
    double ignored = 0;
    KRODecibelFormatter().getObjectValue(ignored, "abc", &description);
    EXPECT_EQ(description, "\"abc\" is not a level in decibels such as -6.0 dB or -inf.");
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
    expectReadings<KROMIDINoteFormatter, double>(sharps, {{"C#4", 61},
                                                          {"Db4", 61},
                                                          {"c4", 60},
                                                          {" e4 ", 64},
                                                          {"B#3", 60},
                                                          {"Cb4", 59},
                                                          {"C-1", 0},
                                                          {"G9", 127},
                                                          {"60", 60},
                                                          {"C\u266F4", 61},
                                                          {"D\u266D4", 61},
                                                          {"H4", std::nullopt},
                                                          {"C", std::nullopt},
                                                          {"C#", std::nullopt},
                                                          {"4C", std::nullopt},
                                                          {"C4x", std::nullopt},
                                                          {"C#b4", std::nullopt},
                                                          {"C99999", std::nullopt},
                                                          {"", std::nullopt},
                                                          {"G#9", std::nullopt},
                                                          {"Cb-1", std::nullopt},
                                                          {"128", std::nullopt}});
    expectReadings<KROMIDINoteFormatter, double>(middleC3, {{"C3", 60}, {"G8", 127}});
    std::string description;
    double ignored = 0;
    sharps.getObjectValue(ignored, "G#9", &description);
    EXPECT_EQ(description, "\"G#9\" lies outside the MIDI notes C-1 to G9.");
}

TEST(KROBitDepthFormatter, ShowsIntegerAndFloatSampleSizes) {
    const KROBitDepthFormatter formatter;
    const std::pair<KROBitDepth, const char*> cases[] = {
        {{16, false}, "16-bit"},
        {{24, false}, "24-bit"},
        {{32, true}, "32-bit float"},
        {{64, true}, "64-bit float"},
        {{24, true}, ""},
        {{0, false}, ""},
        {{33, false}, ""},
    };
    for (const auto& [depth, text] : cases) {
        EXPECT_EQ(formatter.stringForObjectValue(depth), text) << depth.bitsPerSample;
    }
    using Depth = std::optional<KROBitDepth>;
    expectReadings<KROBitDepthFormatter, KROBitDepth>(formatter,
                                                      {{"16", Depth({16, false})},
                                                       {"24-bit", Depth({24, false})},
                                                       {" 24 bit ", Depth({24, false})},
                                                       {"8bit", Depth({8, false})},
                                                       {"32-bit float", Depth({32, true})},
                                                       {"32 Bit Float", Depth({32, true})},
                                                       {"32 float", Depth({32, true})},
                                                       {"32-bit integer", Depth({32, false})},
                                                       {"", std::nullopt},
                                                       {"bit", std::nullopt},
                                                       {"16-bit floaty", std::nullopt},
                                                       {"1234", std::nullopt},
                                                       {"-16", std::nullopt},
                                                       {"24-bit float", std::nullopt},
                                                       {"0", std::nullopt},
                                                       {"48-bit", std::nullopt}});
}

TEST(KROTimeRemainingFormatter, RoundsCalmlyAndReadsHumanDurations) {
    const KROTimeRemainingFormatter formatter;
    const std::pair<double, const char*> cases[] = {
        {0, "0 seconds"},
        {1, "1 second"},
        {44.6, "45 seconds"},
        {59.6, "1 minute"},
        {154, "2 minutes 30 seconds"},
        {156, "2 minutes 40 seconds"},
        {3594, "59 minutes 50 seconds"},
        {3596, "1 hour"},
        {3900, "1 hour 5 minutes"},
        {7260, "2 hours 1 minute"},
        {-1, ""},
        {kNaN, ""},
        {kInfinity, ""},
        {1e300, ""},
    };
    for (const auto& [seconds, text] : cases) {
        EXPECT_EQ(formatter.stringForObjectValue(seconds), text) << seconds;
    }
    expectReadings<KROTimeRemainingFormatter, double>(formatter, {{"2 minutes 30 seconds", 150},
                                                                  {"1 hour 5 minutes", 3900},
                                                                  {"2 min 30 s", 150},
                                                                  {"1h 5m", 3900},
                                                                  {"2min30s", 150},
                                                                  {"1.5 Hours", 5400},
                                                                  {"90", 90},
                                                                  {"", std::nullopt},
                                                                  {"5 parsecs", std::nullopt},
                                                                  {"-5 seconds", std::nullopt},
                                                                  {"90 5", std::nullopt},
                                                                  {"1e999 hours", std::nullopt}});
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
    for (const bool usesFlats : {false, true}) {
        KROMIDINoteFormatter notes;
        notes.setUsesFlats(usesFlats);
        for (int note = 0; note <= 127; ++note) {
            expectRoundTrip(notes, static_cast<double>(note));
        }
    }
    for (unsigned bits = 1; bits <= 64; ++bits) {
        for (const bool isFloat : {false, true}) {
            if (KROBitDepthFormatter::isSupported({bits, isFloat})) {
                expectRoundTrip(KROBitDepthFormatter(), KROBitDepth{bits, isFloat});
            }
        }
    }
    for (const double seconds : {0.0, 1.0, 59.4, 59.6, 61.0, 754.0, 3599.0, 3601.0, 90061.0}) {
        expectRoundTrip(KROTimeRemainingFormatter(), seconds);
    }
}
