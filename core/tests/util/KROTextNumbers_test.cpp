// Numbers read from typed text: the lenient readers take the longest decimal
// prefix as the platform's conversions do, and no spelling gives an infinity
// or NaN except an exponent too large.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>

#include "KROTextNumbers.h"

TEST(KROTextNumbers, TheLongestDecimalPrefixIsRead) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const std::pair<const char*, double> doubles[] = {
        {"  -12.5e3x", -12500},
        {".5", 0.5},
        {"5.", 5},
        {"+3", 3},
        {"1e", 1},
        {"abc", 0},
        {"nan", 0},
        {"inf", 0},
        {"0x10", 0},
        {"1e999", infinity},
        {"-1e999", -infinity},
        {"1e-999", 0},
        {"-", 0},
        {"", 0},
    };
    for (const auto& [text, value] : doubles) {
        EXPECT_EQ(kro::doubleValue(text), value) << text;
    }
    constexpr auto largest = std::numeric_limits<std::int64_t>::max();
    const std::pair<const char*, std::int64_t> integers[] = {
        {" 42:07", 42},
        {"-7.9", -7},
        {"99999999999999999999", largest},
        {"-99999999999999999999", std::numeric_limits<std::int64_t>::min()},
        {"x1", 0},
    };
    for (const auto& [text, value] : integers) {
        EXPECT_EQ(kro::integerValue(text), value) << text;
    }
    const std::pair<const char*, std::optional<double>> wholeTexts[] = {
        {" 2.5 ", 2.5},     {"-1e3", -1000},         {"2.5x", std::nullopt}, {"inf", std::nullopt},
        {"", std::nullopt}, {"1e999", std::nullopt}, {".", std::nullopt},
    };
    for (const auto& [text, value] : wholeTexts) {
        EXPECT_EQ(kro::decimalValue(text), value) << text;
    }
}
