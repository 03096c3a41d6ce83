#include "KRODecibelFormatter.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "KROLocalizedString.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"

namespace {

constexpr unsigned kMostDecimals = 9;

// The text without a trailing "dB" of any case and the blanks before it.
std::string_view withoutUnit(std::string_view text) {
    if (text.size() >= 2 && kro::lowercaseASCII(text.substr(text.size() - 2)) == "db") {
        text.remove_suffix(2);
    }
    return kro::stringByTrimmingWhitespaceAndNewlines(text);
}

} // namespace

void KRODecibelFormatter::setPrecision(unsigned precision) {
    precision_ = std::min(precision, kMostDecimals);
}

std::string KRODecibelFormatter::stringForObjectValue(double decibels) const {
    if (std::isnan(decibels) || decibels == std::numeric_limits<double>::infinity()) {
        return {};
    }
    const std::string unit = showsUnit_ ? " dB" : "";
    if (decibels == -std::numeric_limits<double>::infinity()) {
        return "-inf" + unit;
    }
    const std::string format = (showsPlusSign_ ? "%+." : "%.") + std::to_string(precision_) + "f%@";
    return KROStringWithFormatArguments(format, decibels, unit);
}

bool KRODecibelFormatter::getObjectValue(double& decibels, std::string_view text,
                                         std::string* errorDescription) const {
    const std::string_view number = withoutUnit(kro::stringByTrimmingWhitespaceAndNewlines(text));
    if (kro::lowercaseASCII(number) == "-inf") {
        decibels = -std::numeric_limits<double>::infinity();
        return true;
    }
    if (const auto value = kro::decimalValue(number); value && !number.empty()) {
        decibels = *value;
        return true;
    }
    if (errorDescription) {
        *errorDescription =
            KROStringWithFormatArguments(KROLocalizedString("KRODecibelFormatter_notALevel"), text);
    }
    return false;
}

bool KRODecibelFormatter::isPartialStringValid(std::string_view partialString, std::string*,
                                               std::string*) const {
    return partialString.find_first_not_of("0123456789.+- dBbDinfINF") == std::string_view::npos;
}
