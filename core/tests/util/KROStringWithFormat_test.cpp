// Format strings from data: as the C library prints, %@, positions, bad arguments, hostility.
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>

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

std::string format(const char* text, auto... arguments) {
    return KROStringWithFormatArguments(text, arguments...);
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
    expectAsPrinted({"%ld", "%lu", "%lx", "%lld", "%llu", "%llX", "%20ld", "%-20lu|", "%llo"},
                    {0LL, -1LL, 1LL << 40, LLONG_MAX, LLONG_MIN});
    expectAsPrinted({"%f",  "%.3f",  "%10.2f", "%-10.2f|", "%+f",   "% f", "%010.3f",
                     "%F",  "%e",    "%E",     "%.0e",     "%#.0e", "%g",  "%G",
                     "%#g", "%.17g", "%a",     "%A",       "%.2a",  "%.0f"},
                    {0.0, -0.0, 0.1, 1e-310, 1e308, -123.456, 2.5, std::nan(""),
                     std::numeric_limits<double>::infinity()});
    expectAsPrinted({"%s", "%10s", "%-10s|", "%.2s", "%10.2s", "%.0s"}, {"", "a", "longer text"});
    expectAsPrinted({"%c", "%3c", "%-3c|"}, {65, 32, 321, 255});
    // "q" is the platform's "ll"; %D %U %O are %ld %lu %lo; %f %Lf %lf print the double.
    const long long value = -1234567890123LL;
    EXPECT_EQ(format("%qi|%qu", value, value), printed("%lli|", value) + printed("%llu", value));
    EXPECT_EQ(format("%D %U %O", value, value, value),
              printed("%ld ", long(value)) + printed("%lu ", value) + printed("%lo", value));
    EXPECT_EQ(format("%f %Lf %lf", 0.5f, 0.25, 0.25), "0.500000 0.250000 0.250000");
    EXPECT_EQ(format("%d%% of %d%%", 5, 10), "5% of 10%");
    EXPECT_EQ(format("[%c]", 0), std::string("[\0]", 3));
    EXPECT_EQ(format("%lc%C%C%C", 0x263A, 0x1F3B5, 0x110000, 0xD800),
              "\u263A\U0001F3B5\uFFFD\uFFFD");
    EXPECT_EQ(format("%p %8p|", 255, 0), "0xff      0x0|");
}

// %@ prints strings, numbers, descriptions and "(null)"; widths count characters.
TEST(KROStringWithFormat, TheObjectConversionPrintsDescriptions) {
    const std::shared_ptr<KROObject> none;
    EXPECT_EQ(
        format("%@Domain [%@] %@", std::string_view("KROFileError"), "with %d inside", Speaker()),
        "KROFileErrorDomain [with %d inside] <speaker left>");
    EXPECT_EQ(format("%@ %@ %@ %@ %@ %@", 42, -7LL, ULLONG_MAX, 0.1, 1.0, -2.5e-20),
              "42 -7 18446744073709551615 0.1 1 -2.5e-20");
    EXPECT_EQ(format("%@ %@ %@ %@", std::make_shared<Speaker>(), std::make_shared<KROObject>(),
                     none, static_cast<const char*>(nullptr)),
              "<speaker left> KROObject (null) (null)");
    EXPECT_EQ(format("%5@|%-5@|%.2@", "\u00e9t\u00e9", "\u00e9t\u00e9", "\u65e5\u672c\u8a9e"),
              "  \u00e9t\u00e9|\u00e9t\u00e9  |\u65e5\u672c");
}

// Positions and "*" pick arguments; a missing one writes nothing; mismatched
// kinds convert, saturating, or print as they are.
TEST(KROStringWithFormat, ArgumentsArePickedAndConverted) {
    const std::pair<std::string, std::string> cases[] = {
        {format("%2$@ %1$@|%1$d-%1$d|%2$d %d", "7", 9), "9 7|7-7|9 7"},
        {format("%1$05.1f", 2.25), printed("%05.1f", 2.25)},
        {format("%*d|%-*d|%*d|", 6, 42, 6, 42, -6, 42), "    42|42    |42    |"},
        {format("%.*f %.*f", 2, 3.14159, -1, 1.5), "3.14 1.500000"},
        {format("%*.*s|%2$*1$d|", 5, 2, "abcdef"), "   ab|    2|"},
        {format("%*d", "wide", 42), "42"},
        {KROStringWithFormat("a%db%dc", {1}), "a1bc"},
        {format("[%3$@]", "a", "b"), "[]"},
        {KROStringWithFormat("[%@]%*d", {5}), "[5]"},
        {format("%f %.1e", 3, 1000LL), "3.000000 1.0e+03"},
        {format("%d %d %d", 3.9, -3.9, std::nan("")), "3 -3 0"},
        {format("%ld %ld", 1e30, -1e30), "9223372036854775807 -9223372036854775808"},
        {format("%lu %lu", -1.0, -1), "18446744073709551615 18446744073709551615"},
        {format("%d|%5d|%-5f|%c|%x|", "abc", "ab", "ab", "xyz", ""), "abc|   ab|ab   |xyz||"},
        {format("%s %4s| %s", 42, -1, 0.5), "42   -1| 0.5"},
        {format("%u %x %d", -1, -1, 4294967295u), printed("%u ", -1) + printed("%x ", -1) + "-1"},
    };
    for (const auto& [actual, expected] : cases) {
        EXPECT_EQ(actual, expected);
    }
}

// Unknown conversions are written out; %n is never honoured; widths are capped.
TEST(KROStringWithFormat, HostileFormatsAreWrittenOutOrCapped) {
    for (const char* text :
         {"%", "50%", "%5", "%ll", "%q", "%k", "%5%", "%0$d", "%.-3f", "%'d", "%n", "%hhn%lln"}) {
        EXPECT_EQ(KROStringWithFormat(text, {1}), text);
    }
    EXPECT_EQ(KROStringWithFormat("%n%d", {7}), "%n7");
    EXPECT_EQ(format("caf\u00e9 %d \u263A", 1), "caf\u00e9 1 \u263A");
    const std::string wide = KROStringWithFormat("%2147483647d", {1});
    EXPECT_EQ(wide.size(), 4096u);
    EXPECT_EQ(wide.back(), '1');
    for (const auto& [text, argument] :
         {std::pair{"%99999999999999999999999d", 1LL}, std::pair{"%*d", INT_MAX + 0LL},
          std::pair{"%*d", INT_MIN + 0LL}}) {
        EXPECT_EQ(KROStringWithFormat(text, {argument, 1}).size(), 4096u) << text;
    }
    EXPECT_EQ(KROStringWithFormat("%.999999999f", {1.0}), "1." + std::string(4096, '0'));
    EXPECT_EQ(KROStringWithFormat("%.*s", {LLONG_MAX, "abc"}), "abc");
    EXPECT_EQ(KROStringWithFormat("%99999999999$d", {1}), "");
    std::string many;
    for (int index = 0; index < 200; ++index) {
        many += "%4096.4096f";
    }
    EXPECT_LE(KROStringWithFormat(many, {1e308}).size(), 8192u + 400u + many.size());
}
