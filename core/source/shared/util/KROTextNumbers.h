// Numbers in text that a person typed. The lenient readers behave as the
// platform's string conversions do: leading white space is skipped, the
// longest decimal prefix is read, and text without digits reads as 0. None of
// them reads "inf", "nan" or hexadecimal, so no spelling turns typed text
// into an infinite or undefined value.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kro {

// A decimal prefix such as "-12.5e3"; an exponent too large gives an
// infinity of the number's sign, one too small gives 0.
double doubleValue(std::string_view text);
// A prefix of an optional sign and digits, held at the 64-bit limits.
std::int64_t integerValue(std::string_view text);

// The length of the decimal number at the start of text (sign, digits, point,
// exponent), 0 when there is none.
std::size_t decimalLength(std::string_view text);
// The whole text, white space around it aside, as one finite decimal number;
// none for anything else.
std::optional<double> decimalValue(std::string_view text);

} // namespace kro
