#include "KROTextNumbers.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "KROStringHelpers.h"

namespace kro {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::size_t digitsFrom(std::string_view text, std::size_t at) {
    std::size_t end = at;
    while (end < text.size() && isDigit(text[end])) {
        ++end;
    }
    return end;
}

std::string_view withoutLeadingSpace(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t\n\r\f\v");
    return start == std::string_view::npos ? std::string_view{} : text.substr(start);
}

// Reads exactly the decimal number text[0, length); the sign is handled here
// because from_chars takes no "+".
double convert(std::string_view number) {
    bool negative = false;
    if (!number.empty() && (number[0] == '+' || number[0] == '-')) {
        negative = number[0] == '-';
        number.remove_prefix(1);
    }
    double value = 0.0;
    const auto [end, failure] = std::from_chars(number.data(), number.data() + number.size(), value,
                                                std::chars_format::general);
    if (failure == std::errc::result_out_of_range) {
        // from_chars leaves the value alone; tell overflow from underflow by
        // the sign of the exponent.
        const bool tiny = number.find("e-") != std::string_view::npos ||
                          number.find("E-") != std::string_view::npos;
        value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
    }
    (void)end;
    return negative ? -value : value;
}

} // namespace

std::size_t decimalLength(std::string_view text) {
    std::size_t at = 0;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        ++at;
    }
    const std::size_t wholeEnd = digitsFrom(text, at);
    std::size_t end = wholeEnd;
    std::size_t fractionDigits = 0;
    if (end < text.size() && text[end] == '.') {
        const std::size_t fractionEnd = digitsFrom(text, end + 1);
        fractionDigits = fractionEnd - (end + 1);
        end = fractionEnd;
    }
    if (wholeEnd == at && fractionDigits == 0) {
        return 0;
    }
    if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
        std::size_t exponent = end + 1;
        if (exponent < text.size() && (text[exponent] == '+' || text[exponent] == '-')) {
            ++exponent;
        }
        const std::size_t exponentEnd = digitsFrom(text, exponent);
        if (exponentEnd > exponent) {
            end = exponentEnd;
        }
    }
    return end;
}

double doubleValue(std::string_view text) {
    const std::string_view start = withoutLeadingSpace(text);
    const std::size_t length = decimalLength(start);
    return length == 0 ? 0.0 : convert(start.substr(0, length));
}

std::int64_t integerValue(std::string_view text) {
    const std::string_view start = withoutLeadingSpace(text);
    std::size_t at = 0;
    bool negative = false;
    if (at < start.size() && (start[at] == '+' || start[at] == '-')) {
        negative = start[at] == '-';
        ++at;
    }
    constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
    std::int64_t magnitude = 0;
    for (; at < start.size() && isDigit(start[at]); ++at) {
        const int digit = start[at] - '0';
        if (magnitude > (largest - digit) / 10) {
            return negative ? std::numeric_limits<std::int64_t>::min() : largest;
        }
        magnitude = magnitude * 10 + digit;
    }
    return negative ? -magnitude : magnitude;
}

std::optional<double> decimalValue(std::string_view text) {
    const std::string_view trimmed = stringByTrimmingWhitespaceAndNewlines(text);
    const std::size_t length = decimalLength(trimmed);
    if (length == 0 || length != trimmed.size()) {
        return std::nullopt;
    }
    const double value = convert(trimmed);
    if (!std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

} // namespace kro
