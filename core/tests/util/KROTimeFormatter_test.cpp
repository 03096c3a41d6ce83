// The time formatter: texts, typed text read back, refusals, odd behaviour hosts rely on.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "KROLocalizedString.h"
#include "KROTimeFormatter.h"

namespace {

struct Settings {
    unsigned format = 0;
    double sampleRate = 44100;
    double tempo = 120;
    unsigned meter = 4;
    bool position = false;
};

KROTimeFormatter formatterWith(const Settings& settings) {
    KROTimeFormatter formatter;
    formatter.setFormat(settings.format);
    formatter.setSampleRate(settings.sampleRate);
    formatter.setTempo(settings.tempo);
    formatter.setMeterNumerator(settings.meter);
    formatter.setIsPosition(settings.position);
    return formatter;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

TEST(KROTimeFormatter, EachFormatShowsTheFlooredCountInItsFields) {
    struct Case {
        Settings settings;
        double seconds;
        const char* text;
    };
    const Case cases[] = {
        {{.format = 0, .sampleRate = 48000}, 1.5, "72000"},
        {{.format = 0, .sampleRate = 0}, 1.5, ""},
        {{.format = 1}, -1.5, "-1500"},
        {{.format = 2}, 1.239, "1.23"},
        {{.format = 3}, 61.5, "1:01.50"},
        {{.format = 3}, -1.5, "-0:01.50"},
        {{.format = 4}, 3600, "1:00:00:00"},
        {{.format = 4}, 90000, "25:00:00:00"},
        {{.format = 5}, 60, "0:00:59;28"},
        {{.format = 5}, 60.1, "0:01:00;03"},
        // Every tenth minute keeps its first two frame numbers.
        {{.format = 5}, 600, "0:10:00;00"},
        {{.format = 5}, 660, "0:10:59;28"},
        {{.format = 7}, 1.75, "0:00:01:18"},
        {{.format = 8}, 3723.5, "1:02:03.50"},
        {{.format = 9, .position = true}, 0, "1|1|000"},
        {{.format = 9, .tempo = 0}, 10, "--"},
        {{.format = 10}, 0.0625, "62.5"},
        {{.format = 11}, 1.0625, "1.062"},
        {{.format = 12}, 61.5, "1:01"},
        {{.format = 13}, 61.0625, "1:01.062"},
        {{.format = 14}, 3725, "1:02:05"},
        {{.format = 15}, -3725.5, "-1:02:05.500"},
        {{.format = 16}, 2.5, "1|1|000"},
        {{.format = 16, .position = true}, 2.75, "2|2|480"},
        {{.format = 17}, 62.5, "01:02.37"},
        {{.format = 18}, 0.001, "1;16"},
        {{.format = 19}, 3725.5, "01:02:05.37"},
        {{.format = 20}, 61.25, "1:01.2"},
        {{.format = 21}, 3725.25, "1:02:05.2"},
        {{.format = 22}, 30, "0 minutes"},
        {{.format = 22}, 90, "1 minute"},
        {{.format = 22}, -150, "-2 minutes"},
        {{.format = 22}, 3600, "1 hour"},
        {{.format = 22}, 3660, "1 hour and 1 minute"},
        {{.format = 22}, 7350, "2 hours and 2 minutes"},
        // 23.976 frames a second counted in a base of 30, as hosts expect.
        {{.format = 23}, 3600, "0:47:57;03"},
        {{.format = 24}, 1, ""},
        {{.format = 3}, kNaN, ""},
        {{.format = 3}, 1e300, ""},
        {{.format = 18, .sampleRate = -44100}, 1, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.settings.format << " at " << c.seconds);
        EXPECT_EQ(formatterWith(c.settings).stringForObjectValue(c.seconds), c.text);
    }
    EXPECT_EQ(formatterWith({.format = 3}).stringForObjectValue(std::nullopt), std::nullopt);
}

TEST(KROTimeFormatter, TypedTextReadsBackToSeconds) {
    struct Case {
        Settings settings;
        const char* text;
        double seconds;
    };
    const Case cases[] = {
        {{.format = 0, .sampleRate = 48000}, "48000", 1.0},
        {{.format = 1}, "1500", 1.5},
        {{.format = 2}, "abc", 0.0},
        {{.format = 2}, " -1.5e1x", -15},
        {{.format = 2}, "1e-999", 0},
        // Whole numbers too long for 64 bits hold at the largest.
        {{.format = 12}, "99999999999999999999:00", 60 * 9223372036854775807.0},
        // Every dot before the last one separates fields.
        {{.format = 3}, "1.30.5", 90.5},
        {{.format = 12}, "-1:30", -90},
        {{.format = 14}, "1;02;03", 3723},
        {{.format = 14}, "2:03", 123},
        {{.format = 4}, "1:00:00:15", 3600.5},
        {{.format = 5}, "01:00:00;00", 3600.0},
        {{.format = 5}, "0:01:00;02", 1800 / 29.97},
        {{.format = 9, .position = true}, "2|3|240", 3.25},
        {{.format = 16}, "1|0|480", 2.25},
        {{.format = 17}, "01:02.37", 62 + 0.37 / 0.75},
        {{.format = 19}, "01:02:05.37", 3725 + 0.37 / 0.75},
        // The samples after ";" never count: blocks are committed whole.
        {{.format = 18}, "1575;16", 1.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.settings.format << " " << c.text);
        double seconds = -1;
        std::string description;
        ASSERT_TRUE(formatterWith(c.settings).getObjectValue(seconds, c.text, &description));
        EXPECT_DOUBLE_EQ(seconds, c.seconds);
        EXPECT_EQ(description, "");
    }
}

TEST(KROTimeFormatter, RefusedTextAnswersNoWithItsDescriptionAndKeepsTheValue) {
    struct Case {
        Settings settings;
        const char* text;
        const char* descriptionKey;
    };
    const Case cases[] = {
        {{.format = 9, .tempo = 0}, "1|1|000", "KROTimeFormatter_noTempoOrTimeSignature"},
        {{.format = 16, .meter = 0}, "1|1|000", "KROTimeFormatter_noTempoOrTimeSignature"},
        {{.format = 9}, "1|1", "KROTimeFormatter_barsBeatsBadFormat"},
        {{.format = 16}, "1|1|0|0", "KROTimeFormatter_barsBeatsBadFormat"},
        {{.format = 0, .sampleRate = 0}, "100", "KROTimeFormatter_timeOutOfRange"},
        {{.format = 2}, "1e999", "KROTimeFormatter_timeOutOfRange"},
        {{.format = 22}, "1 minute", nullptr},
        {{.format = 99}, "1", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.settings.format << " " << c.text);
        double seconds = 7;
        std::string description;
        EXPECT_FALSE(formatterWith(c.settings).getObjectValue(seconds, c.text, &description));
        EXPECT_EQ(seconds, 7);
        EXPECT_EQ(description, c.descriptionKey ? KROLocalizedString(c.descriptionKey) : "");
    }
}

TEST(KROTimeFormatter, WhatAClockFormatShowsReadsBackToTheSameText) {
    const unsigned formats[] = {1, 2, 3, 4, 6, 7, 8, 10, 11, 12, 13, 14, 15, 17, 19, 20, 21};
    const double times[] = {0, 0.5, 59.75, 61.25, 3599.5, 3723.5, 86399.75};
    for (const unsigned format : formats) {
        const KROTimeFormatter formatter = formatterWith({.format = format});
        for (const double time : times) {
            const std::string text = formatter.stringForObjectValue(time);
            SCOPED_TRACE(testing::Message() << format << " " << text);
            double seconds = -1;
            ASSERT_TRUE(formatter.getObjectValue(seconds, text));
            EXPECT_EQ(formatter.stringForObjectValue(seconds), text);
        }
    }
}

TEST(KROTimeFormatter, UnitLengthsAndKeystrokes) {
    EXPECT_EQ(formatterWith({.format = 17}).unitLength(), 0.013333333333333334);
    // Kept: the hours form of the 75-frame clock steps a whole second.
    EXPECT_EQ(formatterWith({.format = 19}).unitLength(), 1.0);
    EXPECT_EQ(formatterWith({.format = 18, .sampleRate = 28000}).unitLength(), 0.001);
    EXPECT_DOUBLE_EQ(formatterWith({.format = 9, .tempo = 125}).unitLength(), 0.001);
    const KROTimeFormatter formatter;
    EXPECT_TRUE(formatter.isPartialStringValid("") &&
                formatter.isPartialStringValid("-1:02;03.5|"));
    EXPECT_FALSE(formatter.isPartialStringValid("1a") || formatter.isPartialStringValid("1 "));
}
