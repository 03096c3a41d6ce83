// Dates as text in fixed patterns, beside coreutils' date in the same zone.
#include <gtest/gtest.h>

#include "KRODateText.h"
#include "KROTestCommand.h"

TEST(KRODateText, FormatsAndParsesAsCoreutilsDate) {
    for (const std::time_t seconds : {std::time_t{1715951655}, std::time_t{946684799}}) {
        SCOPED_TRACE(seconds);
        const KROCommandResult date =
            KRORunCommand("date -d @" + std::to_string(seconds) + " '+%Y-%m-%d %H:%M:%S %z'");
        ASSERT_EQ(date.status, 0);
        const std::string text = date.output.substr(0, date.output.find('\n'));
        const KRODate instant = std::chrono::system_clock::from_time_t(seconds);
        EXPECT_EQ(
            kro::stringFromDate(instant + std::chrono::milliseconds(999), "yyyy-MM-dd HH:mm:ss Z"),
            text);
        EXPECT_EQ(kro::dateFromString(text, "yyyy-MM-dd HH:mm:ss Z"), instant);
        EXPECT_EQ(kro::dateFromString(text.substr(0, 19), "yyyy-MM-dd HH:mm:ss"), instant);
    }
    EXPECT_EQ(kro::dateFromString("2024-05-17 13:14:15 +0200", "yyyy-MM-dd HH:mm:ss Z"),
              std::chrono::system_clock::from_time_t(1715944455));
}

TEST(KRODateText, RefusesTextThatDoesNotFit) {
    for (const char* text : {"2024-02-30", "2024-13-01", "24-05-17", "2024-05-17x", "2024/05/17",
                             "", "2024-05-", "1000-01-01"}) {
        EXPECT_FALSE(kro::dateFromString(text, "yyyy-MM-dd")) << text;
    }
}
