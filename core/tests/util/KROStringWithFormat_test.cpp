// Format strings taken from data: every conversion as the C library prints
// it, %@ for objects, positions, mismatched and missing arguments, and
// hostile formats that must neither crash nor run away.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <climits>
#include <cmath>
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
    return std::string(text.data(), std::size_t(std::max(length, 0)));
}

template <typename Value>
void expectAsPrinted(std::initializer_list<const char*> specifiers,
                     std::initializer_list<Value> values) {
    for (const Value value : values) {
        for (const char* specifier : specifiers) {
            EXPECT_EQ(KROStringWithFormatArguments(specifier, value), printed(specifier, value))
                << specifier << " " << value;
        }
    }
}

class Speaker : public KROObject {
    KRO_DECLARE_CLASS(Speaker)
public:
    std::string description() const override { return "<speaker left>"; }
};

} // namespace

TEST(KROStringWithFormat, ConversionsPrintAsTheCLibraryPrintsThem) {
    expectAsPrinted({"%d", "%i",  "%5d", "%-5d|", "%05d",   "%+d", "% d", "%.3d", "%u",   "%x",
                     "%X", "%#x", "%o",  "%#o",   "%08.3x", "%hd", "%hu", "%hhd", "%hhu", "%-+8i|"},
                    {0, 1, -1, 42, 70000, INT_MAX, INT_MIN});
    expectAsPrinted({"%ld", "%li", "%lu", "%lx", "%lld", "%llu", "%llX", "%20ld", "%-20lu|"},
                    {0LL, -1LL, 1LL << 40, LLONG_MAX, LLONG_MIN});
    expectAsPrinted({"%llu", "%llx", "%llo", "%lld"}, {0ULL, ULLONG_MAX, 1ULL << 63});
    expectAsPrinted({"%f",  "%.3f",  "%10.2f", "%-10.2f|", "%+f",   "% f", "%010.3f",
                     "%F",  "%e",    "%E",     "%.0e",     "%#.0e", "%g",  "%G",
                     "%#g", "%.17g", "%a",     "%A",       "%.2a",  "%.0f"},
                    {0.0, -0.0, 0.1, 1e-310, 1e308, -123.456, 2.5, std::nan(""),
                     std::numeric_limits<double>::infinity()});
    expectAsPrinted({"%s", "%10s", "%-10s|", "%.2s", "%10.2s", "%.0s"}, {"", "a", "longer text"});
    expectAsPrinted({"%c", "%3c", "%-3c|"}, {65, 32, 321, 255});
    // "q" is the platform's "ll"; %D %U %O are %ld %lu %lo; float and long
    // double lengths print the double.
    const long long value = -1234567890123LL;
    EXPECT_EQ(KROStringWithFormatArguments("%qi|%qu", value, value),
              printed("%lli|", value) + printed("%llu", value));
    EXPECT_EQ(KROStringWithFormatArguments("%D %U %O", value, value, value),
              printed("%ld ", long(value)) + printed("%lu ", value) + printed("%lo", value));
    EXPECT_EQ(KROStringWithFormatArguments("%f %Lf %lf", 0.5f, 0.25, 0.25),
              "0.500000 0.250000 0.250000");
    EXPECT_EQ(KROStringWithFormatArguments("%d%% of %d%%", 5, 10), "5% of 10%");
    EXPECT_EQ(KROStringWithFormatArguments("[%c]", 0), std::string("[\0]", 3));
    EXPECT_EQ(KROStringWithFormatArguments("%lc%C%C%C", 0x263A, 0x1F3B5, 0x110000, 0xD800),
              "\u263A\U0001F3B5\uFFFD\uFFFD");
    EXPECT_EQ(KROStringWithFormatArguments("%p %8p|", 255, 0), "0xff      0x0|");
}

// %@ prints a string as it is, a number as its decimal text, an object's
// description, and "(null)" for none; width and precision count characters.
TEST(KROStringWithFormat, TheObjectConversionPrintsDescriptions) {
    const std::shared_ptr<KROObject> none;
    EXPECT_EQ(KROStringWithFormatArguments("%@Domain [%@] %@", std::string_view("KROFileError"),
                                           std::string("with %d inside"), Speaker()),
              "KROFileErrorDomain [with %d inside] <speaker left>");
    EXPECT_EQ(
        KROStringWithFormatArguments("%@ %@ %@ %@ %@ %@", 42, -7LL, ULLONG_MAX, 0.1, 1.0, -2.5e-20),
        "42 -7 18446744073709551615 0.1 1 -2.5e-20");
    EXPECT_EQ(KROStringWithFormatArguments("%@ %@ %@ %@", std::make_shared<Speaker>(),
                                           std::make_shared<KROObject>(), none,
                                           static_cast<const char*>(nullptr)),
              "<speaker left> KROObject (null) (null)");
    EXPECT_EQ(KROStringWithFormatArguments("%5@|%-5@|%.2@", "\u00e9t\u00e9", "\u00e9t\u00e9",
                                           "\u65e5\u672c\u8a9e"),
              "  \u00e9t\u00e9|\u00e9t\u00e9  |\u65e5\u672c");
}

// Positions pick their argument; "*" takes width and precision from the
// arguments; a conversion with no argument left writes nothing.
TEST(KROStringWithFormat, ArgumentsArePickedByPositionAndStar) {
    EXPECT_EQ(KROStringWithFormatArguments("%2$@ %1$@", "first", "second"), "second first");
    EXPECT_EQ(KROStringWithFormatArguments("%1$d-%1$d", 7), "7-7");
    EXPECT_EQ(KROStringWithFormatArguments("%2$d %d %d", 1, 2), "2 1 2");
    EXPECT_EQ(KROStringWithFormatArguments("%1$05.1f", 2.25), printed("%05.1f", 2.25));
    EXPECT_EQ(KROStringWithFormatArguments("%*d|%-*d|%*d|", 6, 42, 6, 42, -6, 42),
              printed("%6d|", 42) + printed("%-6d|", 42) + printed("%-6d|", 42));
    EXPECT_EQ(KROStringWithFormatArguments("%.*f %.*f", 2, 3.14159, -1, 1.5), "3.14 1.500000");
    EXPECT_EQ(KROStringWithFormatArguments("%*.*s|%2$*1$d|", 5, 2, "abcdef"), "   ab|    2|");
    EXPECT_EQ(KROStringWithFormatArguments("%*d", "wide", 42), "42");
    EXPECT_EQ(KROStringWithFormat("a%db%dc", {1}), "a1bc");
    EXPECT_EQ(KROStringWithFormat("[%@]", {}), "[]");
    EXPECT_EQ(KROStringWithFormatArguments("[%3$@]", "a", "b"), "[]");
    EXPECT_EQ(KROStringWithFormat("%*d", {5}), "");
}

// A number given to another numeric conversion converts, saturating; a
// string given to a number prints as it is, padded; a negative value keeps
// its bits for the unsigned conversions.
TEST(KROStringWithFormat, MismatchedArgumentsPrintSensibly) {
    const std::pair<std::string, std::string> cases[] = {
        {KROStringWithFormatArguments("%f", 3), "3.000000"},
        {KROStringWithFormatArguments("%.1e", 1000LL), "1.0e+03"},
        {KROStringWithFormatArguments("%d %d %d", 3.9, -3.9, std::nan("")), "3 -3 0"},
        {KROStringWithFormatArguments("%ld %ld", 1e30, -1e30),
         "9223372036854775807 -9223372036854775808"},
        {KROStringWithFormatArguments("%lu %lu %lu", 1e30, -1.0, -1),
         "18446744073709551615 18446744073709551615 18446744073709551615"},
        {KROStringWithFormatArguments("%d|%5d|%-5f|%c|%x|", "abc", "ab", "ab", "xyz", ""),
         "abc|   ab|ab   |xyz||"},
        {KROStringWithFormatArguments("%s %4s| %s", 42, -1, 0.5), "42   -1| 0.5"},
        {KROStringWithFormatArguments("%u %x %lx", -1, -1, -1L),
         printed("%u ", -1) + printed("%x ", -1) + printed("%lx", -1L)},
        {KROStringWithFormatArguments("%d", 4294967295u), printed("%d", -1)},
    };
    for (const auto& [actual, expected] : cases) {
        EXPECT_EQ(actual, expected);
    }
}

// What is not understood is written as it stands and takes no argument; %n
// is never honoured; widths and precisions are capped; UTF-8 passes through.
TEST(KROStringWithFormat, HostileFormatsAreWrittenOutOrCapped) {
    for (const char* format :
         {"%", "50%", "%5", "%ll", "%q", "%k", "%5%", "%0$d", "%.-3f", "%'d", "%n", "%hhn%lln"}) {
        EXPECT_EQ(KROStringWithFormat(format, {1}), format);
    }
    EXPECT_EQ(KROStringWithFormat("%n%d", {7}), "%n7");
    EXPECT_EQ(KROStringWithFormatArguments("caf\u00e9 %d \u263A", 1), "caf\u00e9 1 \u263A");
    const std::string wide = KROStringWithFormat("%2147483647d", {1});
    EXPECT_EQ(wide.size(), 4096u);
    EXPECT_EQ(wide.back(), '1');
    EXPECT_EQ(KROStringWithFormat("%99999999999999999999999d", {1}).size(), 4096u);
    EXPECT_EQ(KROStringWithFormat("%.999999999f", {1.0}), "1." + std::string(4096, '0'));
    EXPECT_EQ(KROStringWithFormat("%*d", {INT_MAX, 1}).size(), 4096u);
    EXPECT_EQ(KROStringWithFormat("%*d", {INT_MIN, 1}).size(), 4096u);
    EXPECT_EQ(KROStringWithFormat("%.*s", {LLONG_MAX, "abc"}), "abc");
    EXPECT_EQ(KROStringWithFormat("%99999999999$d", {1}), "");
    std::string many;
    for (int index = 0; index < 200; ++index) {
        many += "%4096.4096f";
    }
    EXPECT_LE(KROStringWithFormat(many, {1e308}).size(), 8192u + 400u + many.size());
}

// Random formats and arguments: nothing crashes, the output stays bounded,
// and the same input gives the same output.
TEST(KROStringWithFormat, RandomFormatsAndArgumentsNeverCrash) {
    static const std::string alphabet =
        "%%%%%%$*.-+ #0123456789hlqLjztdiouxXDUOcCsSpfFeEgGaA@n\xC3\xA9";
    std::mt19937_64 random(20240611);
    const std::array<KROFormatArgument, 9> specials = {0.0,
                                                       1e308,
                                                       -1e-310,
                                                       std::nan(""),
                                                       std::numeric_limits<double>::infinity(),
                                                       std::string("\xF0\x9F\x8E\xB5\xC3"),
                                                       std::string(19, 'x'),
                                                       -50,
                                                       ULLONG_MAX};
    for (int trial = 0; trial < 20000; ++trial) {
        std::string format;
        for (std::size_t index = random() % 40; index > 0; --index) {
            format += random() % 8 ? alphabet[random() % alphabet.size()] : char(random());
        }
        std::vector<KROFormatArgument> arguments;
        for (std::size_t index = random() % 5; index > 0; --index) {
            const auto kind = random() % 4;
            arguments.push_back(kind == 0   ? KROFormatArgument(static_cast<long long>(random()))
                                : kind == 1 ? KROFormatArgument(std::bit_cast<double>(random()))
                                            : specials[random() % specials.size()]);
        }
        const std::string text = KROStringWithFormat(format, arguments);
        EXPECT_LE(text.size(), (format.size() + 1) * (4096 + 4096 + 400)) << format;
        EXPECT_EQ(KROStringWithFormat(format, arguments), text);
    }
}
