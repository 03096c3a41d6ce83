// KROStringWithFormat (DESIGN.md section 3): spec-style format strings taken
// from data, formatted without ever handing the format text to printf.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>

#include "KROObject.h"
#include "KROStringWithFormat.h"

namespace {

// What the C library prints for the same specifier and value.
template <typename Value> std::string printed(const char* specifier, Value value) {
    std::array<char, 512> text{};
    const int length = std::snprintf(text.data(), text.size(), specifier, value);
    return std::string(text.data(), static_cast<std::size_t>(std::max(length, 0)));
}

template <typename Value> std::string formatted(const char* specifier, Value value) {
    return KROStringWithFormatArguments(specifier, value);
}

class KROTestSpeaker : public KROObject {
    KRO_DECLARE_CLASS(KROTestSpeaker)
public:
    std::string description() const override { return "<speaker left>"; }
};

} // namespace

// --- Each conversion against the C library ----------------------------------

TEST(KROStringWithFormat, IntConversionsMatchTheCLibrary) {
    const char* specifiers[] = {"%d",     "%i",  "%5d", "%-5d|", "%05d", "%+d",   "% d",
                                "%.3d",   "%u",  "%x",  "%X",    "%#x",  "%o",    "%#o",
                                "%08.3x", "%hd", "%hu", "%hhd",  "%hhu", "%-+8i|"};
    for (int value : {0, 1, -1, 42, 70000, INT_MAX, INT_MIN}) {
        for (const char* specifier : specifiers) {
            EXPECT_EQ(formatted(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
}

TEST(KROStringWithFormat, LongConversionsMatchTheCLibrary) {
    const char* specifiers[] = {"%ld",  "%li",  "%lu",   "%lx",    "%lld",
                                "%llu", "%llX", "%20ld", "%-20lu|"};
    for (long long value : {0LL, -1LL, 1LL << 40, LLONG_MAX, LLONG_MIN}) {
        for (const char* specifier : specifiers) {
            EXPECT_EQ(formatted(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
}

TEST(KROStringWithFormat, UnsignedArgumentsMatchTheCLibrary) {
    for (unsigned long long value : {0ULL, 1ULL, ULLONG_MAX, 1ULL << 63}) {
        for (const char* specifier : {"%llu", "%llx", "%llo", "%lld"}) {
            EXPECT_EQ(formatted(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
    EXPECT_EQ(formatted("%u", 4000000000u), printed("%u", 4000000000u));
}

// "q" is the platform's spelling of "ll"; %D %U %O are %ld %lu %lo.
TEST(KROStringWithFormat, PlatformLengthSpellingsMatchTheirCEquivalents) {
    const long long value = -1234567890123LL;
    EXPECT_EQ(formatted("%qi", value), printed("%lli", value));
    EXPECT_EQ(formatted("%qd", value), printed("%lld", value));
    EXPECT_EQ(formatted("%qu", value), printed("%llu", value));
    EXPECT_EQ(formatted("%D", value), printed("%ld", static_cast<long>(value)));
    EXPECT_EQ(formatted("%U", value), printed("%lu", static_cast<unsigned long>(value)));
    EXPECT_EQ(formatted("%O", value), printed("%lo", static_cast<unsigned long>(value)));
}

TEST(KROStringWithFormat, RealConversionsMatchTheCLibrary) {
    const char* specifiers[] = {"%f",  "%.3f",  "%10.2f", "%-10.2f|", "%+f",   "% f",    "%010.3f",
                                "%F",  "%e",    "%E",     "%.0e",     "%#.0e", "%g",     "%G",
                                "%#g", "%.17g", "%a",     "%A",       "%.2a",  "%12.4e", "%.0f"};
    const double values[] = {0.0,
                             -0.0,
                             0.1,
                             1e-310,
                             1e308,
                             -123.456,
                             2.5,
                             std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN()};
    for (double value : values) {
        for (const char* specifier : specifiers) {
            EXPECT_EQ(formatted(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
}

TEST(KROStringWithFormat, FloatAndLongDoubleLengthsPrintTheDouble) {
    EXPECT_EQ(formatted("%f", 0.5f), printed("%f", 0.5));
    EXPECT_EQ(formatted("%Lf", 0.25), printed("%f", 0.25));
    EXPECT_EQ(formatted("%lf", 0.25), printed("%f", 0.25));
}

TEST(KROStringWithFormat, StringConversionsMatchTheCLibrary) {
    for (const char* value : {"", "a", "text", "longer text here"}) {
        for (const char* specifier :
             {"%s", "%10s", "%-10s|", "%.2s", "%10.2s", "%.0s", "%-3.1s|"}) {
            EXPECT_EQ(formatted(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
}

TEST(KROStringWithFormat, CharacterConversionsMatchTheCLibrary) {
    for (int value : {65, 122, 32, 321, 255}) {
        for (const char* specifier : {"%c", "%3c", "%-3c|"}) {
            EXPECT_EQ(formatted(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
}

TEST(KROStringWithFormat, PercentPercentIsOnePercentSign) {
    EXPECT_EQ(KROStringWithFormat("100%%", {}), "100%");
    EXPECT_EQ(KROStringWithFormatArguments("%d%% of %d%%", 5, 10), "5% of 10%");
}

// --- %@ and objects --------------------------------------------------------

TEST(KROStringWithFormat, ObjectConversionPrintsStringsAsTheyAre) {
    EXPECT_EQ(KROStringWithFormatArguments("[%@]", std::string("plain")), "[plain]");
    EXPECT_EQ(KROStringWithFormatArguments("%@Domain", std::string_view("KROFileError")),
              "KROFileErrorDomain");
    EXPECT_EQ(KROStringWithFormatArguments("%@", "with %d inside"), "with %d inside");
}

TEST(KROStringWithFormat, ObjectConversionOfANumberPrintsItsDecimalText) {
    EXPECT_EQ(KROStringWithFormatArguments("%@", 42), "42");
    EXPECT_EQ(KROStringWithFormatArguments("%@", -7LL), "-7");
    EXPECT_EQ(KROStringWithFormatArguments("%@", ULLONG_MAX), "18446744073709551615");
    EXPECT_EQ(KROStringWithFormatArguments("%@", 0.1), "0.1");
    EXPECT_EQ(KROStringWithFormatArguments("%@", 1.0), "1");
    EXPECT_EQ(KROStringWithFormatArguments("%@", -2.5e-20), "-2.5e-20");
}

TEST(KROStringWithFormat, ObjectConversionPrintsAnObjectsDescription) {
    const KROTestSpeaker speaker;
    EXPECT_EQ(KROStringWithFormatArguments("Speaker: %@.", speaker), "Speaker: <speaker left>.");
    const auto shared = std::make_shared<KROTestSpeaker>();
    EXPECT_EQ(KROStringWithFormatArguments("%@", shared), "<speaker left>");
    const std::shared_ptr<KROObject> plain = std::make_shared<KROObject>();
    EXPECT_EQ(KROStringWithFormatArguments("%@", plain), "KROObject");
}

TEST(KROStringWithFormat, ANullObjectPrintsAsNull) {
    EXPECT_EQ(KROStringWithFormatArguments("%@", std::shared_ptr<KROObject>()), "(null)");
    EXPECT_EQ(KROStringWithFormatArguments("%@", std::shared_ptr<KROTestSpeaker>()), "(null)");
    EXPECT_EQ(KROStringWithFormatArguments("%@", static_cast<const char*>(nullptr)), "(null)");
}

// %@ counts characters, not bytes, for its width and precision.
TEST(KROStringWithFormat, ObjectWidthAndPrecisionCountCharacters) {
    EXPECT_EQ(KROStringWithFormatArguments("%5@|", std::string("\u00e9t\u00e9")),
              "  \u00e9t\u00e9|");
    EXPECT_EQ(KROStringWithFormatArguments("%-5@|", std::string("\u00e9t\u00e9")),
              "\u00e9t\u00e9  |");
    EXPECT_EQ(KROStringWithFormatArguments("%.2@", std::string("\u65e5\u672c\u8a9e")),
              "\u65e5\u672c");
}

// --- Positions and missing arguments ---------------------------------------

TEST(KROStringWithFormat, PositionalArgumentsPickTheirArgument) {
    EXPECT_EQ(KROStringWithFormatArguments("%2$@ %1$@", "first", "second"), "second first");
    EXPECT_EQ(KROStringWithFormatArguments("%1$d-%1$d", 7), "7-7");
    EXPECT_EQ(KROStringWithFormatArguments("%2$d %d %d", 1, 2), "2 1 2");
    EXPECT_EQ(KROStringWithFormatArguments("%1$05.1f", 2.25), printed("%05.1f", 2.25));
}

TEST(KROStringWithFormat, AConversionWithNoArgumentLeftWritesNothing) {
    EXPECT_EQ(KROStringWithFormat("a%db%dc", {1}), "a1bc");
    EXPECT_EQ(KROStringWithFormat("[%@]", {}), "[]");
    EXPECT_EQ(KROStringWithFormatArguments("[%3$@]", "a", "b"), "[]");
    EXPECT_EQ(KROStringWithFormat("%*d", {5}), "");
}

// --- Width and precision from arguments --------------------------------------

TEST(KROStringWithFormat, StarTakesTheWidthAndPrecisionFromArguments) {
    EXPECT_EQ(KROStringWithFormatArguments("%*d|", 6, 42), printed("%6d|", 42));
    EXPECT_EQ(KROStringWithFormatArguments("%-*d|", 6, 42), printed("%-6d|", 42));
    EXPECT_EQ(KROStringWithFormatArguments("%*d|", -6, 42), printed("%-6d|", 42));
    EXPECT_EQ(KROStringWithFormatArguments("%.*f", 2, 3.14159), "3.14");
    EXPECT_EQ(KROStringWithFormatArguments("%.*f", -1, 1.5), "1.500000");
    EXPECT_EQ(KROStringWithFormatArguments("%*.*s|", 5, 2, "abcdef"), "   ab|");
    EXPECT_EQ(KROStringWithFormatArguments("%2$*1$d|", 4, 9), "   9|");
}

TEST(KROStringWithFormat, AStringGivenAsAWidthIsIgnored) {
    EXPECT_EQ(KROStringWithFormatArguments("%*d", "wide", 42), "42");
}

// --- Mismatched arguments -----------------------------------------------------

TEST(KROStringWithFormat, NumbersConvertBetweenIntegerAndRealConversions) {
    EXPECT_EQ(KROStringWithFormatArguments("%f", 3), "3.000000");
    EXPECT_EQ(KROStringWithFormatArguments("%.1e", 1000LL), "1.0e+03");
    EXPECT_EQ(KROStringWithFormatArguments("%d", 3.9), "3");
    EXPECT_EQ(KROStringWithFormatArguments("%d", -3.9), "-3");
    EXPECT_EQ(KROStringWithFormatArguments("%d", std::nan("")), "0");
    EXPECT_EQ(KROStringWithFormatArguments("%ld", 1e30), "9223372036854775807");
    EXPECT_EQ(KROStringWithFormatArguments("%ld", -1e30), "-9223372036854775808");
    EXPECT_EQ(KROStringWithFormatArguments("%lu", 1e30), "18446744073709551615");
    EXPECT_EQ(KROStringWithFormatArguments("%lu", -1.0), "18446744073709551615");
}

TEST(KROStringWithFormat, AStringGivenToANumericConversionPrintsAsItIs) {
    EXPECT_EQ(KROStringWithFormatArguments("%d", "abc"), "abc");
    EXPECT_EQ(KROStringWithFormatArguments("%5d|", "ab"), "   ab|");
    EXPECT_EQ(KROStringWithFormatArguments("%-5f|", "ab"), "ab   |");
    EXPECT_EQ(KROStringWithFormatArguments("%c", "xyz"), "xyz");
    EXPECT_EQ(KROStringWithFormatArguments("%x", ""), "");
}

TEST(KROStringWithFormat, NumbersGivenToStringConversionsPrintTheirText) {
    EXPECT_EQ(KROStringWithFormatArguments("%s", 42), "42");
    EXPECT_EQ(KROStringWithFormatArguments("%4s|", -1), "  -1|");
    EXPECT_EQ(KROStringWithFormatArguments("%s", 0.5), "0.5");
}

// A negative value keeps its bits: %lu and %x print it as the C library would.
TEST(KROStringWithFormat, NegativeValuesPrintAsUnsignedLikeTheCLibrary) {
    EXPECT_EQ(KROStringWithFormatArguments("%lu", -1), "18446744073709551615");
    EXPECT_EQ(KROStringWithFormatArguments("%u", -1), printed("%u", -1));
    EXPECT_EQ(KROStringWithFormatArguments("%x", -1), printed("%x", -1));
    EXPECT_EQ(KROStringWithFormatArguments("%lx", -1L), printed("%lx", -1L));
    EXPECT_EQ(KROStringWithFormatArguments("%d", 4294967295u), printed("%d", -1));
}

// --- Characters --------------------------------------------------------------

TEST(KROStringWithFormat, CharacterZeroWritesAZeroByte) {
    const std::string text = KROStringWithFormatArguments("[%c]", 0);
    EXPECT_EQ(text, std::string("[\0]", 3));
}

TEST(KROStringWithFormat, FourCharacterCodesPrintByteByByte) {
    const std::uint32_t code = 0x666D7420; // 'fmt '
    EXPECT_EQ(KROStringWithFormatArguments("%c%c%c%c", static_cast<char>(code >> 24),
                                           static_cast<char>(code >> 16),
                                           static_cast<char>(code >> 8), static_cast<char>(code)),
              "fmt ");
}

TEST(KROStringWithFormat, WideCharacterConversionsWriteUTF8) {
    EXPECT_EQ(KROStringWithFormatArguments("%lc", 0x263A), "\u263A");
    EXPECT_EQ(KROStringWithFormatArguments("%C", 0x1F3B5), "\U0001F3B5");
    EXPECT_EQ(KROStringWithFormatArguments("%C", 0x110000), "\uFFFD");
    EXPECT_EQ(KROStringWithFormatArguments("%C", 0xD800), "\uFFFD");
}

TEST(KROStringWithFormat, PointerConversionOfAnIntegerPrintsHexadecimal) {
    EXPECT_EQ(KROStringWithFormatArguments("%p", 255), "0xff");
    EXPECT_EQ(KROStringWithFormatArguments("%8p|", 0), "     0x0|");
}

// --- Malformed and hostile formats ---------------------------------------------

TEST(KROStringWithFormat, SpecifiersThatAreNotUnderstoodAreWrittenAsTheyStand) {
    EXPECT_EQ(KROStringWithFormat("%", {1}), "%");
    EXPECT_EQ(KROStringWithFormat("50%", {1}), "50%");
    EXPECT_EQ(KROStringWithFormat("%5", {1}), "%5");
    EXPECT_EQ(KROStringWithFormat("%ll", {1}), "%ll");
    EXPECT_EQ(KROStringWithFormat("%q", {1}), "%q");
    EXPECT_EQ(KROStringWithFormat("%k", {1}), "%k");
    EXPECT_EQ(KROStringWithFormat("%5%", {1}), "%5%");
    EXPECT_EQ(KROStringWithFormat("%0$d", {1}), "%0$d");
    EXPECT_EQ(KROStringWithFormat("%.-3f", {1.0}), "%.-3f");
    EXPECT_EQ(KROStringWithFormat("%'d", {1}), "%'d");
}

// %n is never honoured; a specifier that is not understood takes no argument.
TEST(KROStringWithFormat, PercentNIsWrittenOutAndTakesNoArgument) {
    EXPECT_EQ(KROStringWithFormat("%n%d", {7}), "%n7");
    EXPECT_EQ(KROStringWithFormat("%hhn%lln", {7}), "%hhn%lln");
}

TEST(KROStringWithFormat, UTF8InTheFormatPassesThrough) {
    EXPECT_EQ(KROStringWithFormatArguments("caf\u00e9 %d \u263A", 1), "caf\u00e9 1 \u263A");
}

TEST(KROStringWithFormat, HugeWidthsAndPrecisionsAreCapped) {
    const std::string wide = KROStringWithFormat("%2147483647d", {1});
    EXPECT_EQ(wide.size(), 4096u);
    EXPECT_EQ(wide.back(), '1');
    EXPECT_EQ(KROStringWithFormat("%99999999999999999999999d", {1}).size(), 4096u);
    const std::string precise = KROStringWithFormat("%.999999999f", {1.0});
    EXPECT_EQ(precise, "1." + std::string(4096, '0'));
    EXPECT_EQ(KROStringWithFormat("%*d", {INT_MAX, 1}).size(), 4096u);
    EXPECT_EQ(KROStringWithFormat("%*d", {INT_MIN, 1}).size(), 4096u);
    EXPECT_EQ(KROStringWithFormat("%.*s", {LLONG_MAX, "abc"}), "abc");
    EXPECT_EQ(KROStringWithFormat("%99999999999$d", {1}), "");
}

TEST(KROStringWithFormat, ALongFormatOfManySpecifiersStaysBounded) {
    std::string format;
    for (int index = 0; index < 200; ++index) {
        format += "%4096.4096f";
    }
    const std::string text = KROStringWithFormat(format, {1e308});
    EXPECT_LE(text.size(), 4096u + 4096u + 400u + format.size());
}

// Random formats and arguments: nothing crashes, the output stays bounded and
// the same input gives the same output.
TEST(KROStringWithFormat, RandomFormatsAndArgumentsNeverCrash) {
    static const std::string alphabet =
        "%%%%%%$*.-+ #0123456789hlqLjztdiouxXDUOcCsSpfFeEgGaA@n\xC3\xA9";
    std::mt19937_64 generator(20240611);
    auto randomArgument = [&]() -> KROFormatArgument {
        switch (generator() % 7) {
        case 0:
            return static_cast<long long>(generator());
        case 1:
            return static_cast<unsigned long long>(generator());
        case 2:
            return static_cast<int>(generator() % 100) - 50;
        case 3: {
            const double specials[] = {
                0.0, -0.0, 1e308, -1e-310, std::nan(""), std::numeric_limits<double>::infinity()};
            return specials[generator() % 6];
        }
        case 4:
            return std::bit_cast<double>(generator());
        case 5:
            return std::string(generator() % 20, 'x');
        default:
            return std::string("\xF0\x9F\x8E\xB5\xC3");
        }
    };
    for (int trial = 0; trial < 20000; ++trial) {
        std::string format;
        const std::size_t length = generator() % 40;
        for (std::size_t index = 0; index < length; ++index) {
            format += generator() % 8 == 0 ? static_cast<char>(generator())
                                           : alphabet[generator() % alphabet.size()];
        }
        std::vector<KROFormatArgument> arguments;
        const std::size_t count = generator() % 5;
        for (std::size_t index = 0; index < count; ++index) {
            arguments.push_back(randomArgument());
        }
        const std::string text = KROStringWithFormat(format, arguments);
        // Each specifier writes at most a capped field or an argument's text.
        EXPECT_LE(text.size(), (format.size() + 1) * (4096 + 4096 + 400)) << format;
        EXPECT_EQ(KROStringWithFormat(format, arguments), text);
    }
}
