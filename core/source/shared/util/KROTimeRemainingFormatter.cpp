#include "KROTimeRemainingFormatter.h"

#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

#include "KROLocalizedString.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"

namespace {

constexpr double kLongestSeconds = 9007199254740992.0;

struct Unit {
    const char* singularKey;
    const char* pluralKey;
    double seconds;
    std::vector<std::string_view> shortNames;
};

const std::vector<Unit>& units() {
    static const std::vector<Unit> list{
        {"KROTimeRemainingFormatter_hour",
         "KROTimeRemainingFormatter_hours",
         3600,
         {"h", "hr", "hrs"}},
        {"KROTimeRemainingFormatter_minute",
         "KROTimeRemainingFormatter_minutes",
         60,
         {"m", "min", "mins"}},
        {"KROTimeRemainingFormatter_second",
         "KROTimeRemainingFormatter_seconds",
         1,
         {"s", "sec", "secs"}},
    };
    return list;
}

// "%ld minutes" and the like; the text of an amount of one unit.
std::string amountText(std::int64_t amount, const Unit& unit) {
    return KROStringWithFormatArguments(
        KROLocalizedString(amount == 1 ? unit.singularKey : unit.pluralKey), amount);
}

// The word of a localized amount text: "minutes" of "%ld minutes".
std::string wordOf(const char* key) {
    std::string text = KROLocalizedString(key);
    if (const std::size_t at = text.find("%ld"); at != std::string::npos) {
        text.erase(at, 3);
    }
    return kro::lowercaseASCII(kro::stringByTrimmingWhitespaceAndNewlines(text));
}

std::optional<double> secondsPerUnit(std::string_view word) {
    const std::string lowered = kro::lowercaseASCII(word);
    for (const Unit& unit : units()) {
        if (lowered == wordOf(unit.singularKey) || lowered == wordOf(unit.pluralKey)) {
            return unit.seconds;
        }
        for (const std::string_view shortName : unit.shortNames) {
            if (lowered == shortName) {
                return unit.seconds;
            }
        }
    }
    return std::nullopt;
}

std::string_view skipBlanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t,");
    return start == std::string_view::npos ? std::string_view{} : text.substr(start);
}

// A sum of "<number> <unit>" pairs; a number alone counts seconds.
std::optional<double> durationOf(std::string_view text) {
    text = skipBlanks(text);
    if (text.empty()) {
        return std::nullopt;
    }
    double total = 0;
    while (!text.empty()) {
        const std::size_t length = kro::decimalLength(text);
        if (length == 0 || text[0] == '-' || text[0] == '+') {
            return std::nullopt;
        }
        const double amount = kro::doubleValue(text.substr(0, length));
        text = skipBlanks(text.substr(length));
        const std::size_t wordEnd = text.find_first_of(" \t,0123456789.");
        const std::string_view word = text.substr(0, wordEnd);
        text =
            word.size() < text.size() ? skipBlanks(text.substr(word.size())) : std::string_view{};
        const auto perUnit = word.empty() ? std::optional<double>(1.0) : secondsPerUnit(word);
        if (!perUnit || (word.empty() && !text.empty())) {
            return std::nullopt;
        }
        total += amount * *perUnit;
    }
    if (!(total <= kLongestSeconds)) {
        return std::nullopt;
    }
    return total;
}

} // namespace

std::string KROTimeRemainingFormatter::stringForObjectValue(double seconds) const {
    if (!(seconds >= 0 && seconds <= kLongestSeconds)) {
        return {};
    }
    const Unit& hour = units()[0];
    const Unit& minute = units()[1];
    const Unit& second = units()[2];
    // Each level rounds first, so 59.6 s shows as "1 minute", not "60 seconds".
    if (const double whole = std::round(seconds); whole < 60) {
        return amountText(static_cast<std::int64_t>(whole), second);
    }
    if (const double tens = std::round(seconds / 10) * 10; tens < 3600) {
        const auto total = static_cast<std::int64_t>(tens);
        const std::string minutes = amountText(total / 60, minute);
        return total % 60 == 0 ? minutes : minutes + " " + amountText(total % 60, second);
    }
    const auto total = static_cast<std::int64_t>(std::round(seconds / 60));
    const std::string hours = amountText(total / 60, hour);
    return total % 60 == 0 ? hours : hours + " " + amountText(total % 60, minute);
}

bool KROTimeRemainingFormatter::getObjectValue(double& seconds, std::string_view text,
                                               std::string* errorDescription) const {
    const auto duration = durationOf(text);
    if (!duration) {
        if (errorDescription) {
            *errorDescription = KROStringWithFormatArguments(
                KROLocalizedString("KROTimeRemainingFormatter_notADuration"), text);
        }
        return false;
    }
    seconds = *duration;
    return true;
}

bool KROTimeRemainingFormatter::isPartialStringValid(std::string_view partialString, std::string*,
                                                     std::string*) const {
    for (const char c : partialString) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool digit = c >= '0' && c <= '9';
        if (!letter && !digit && c != ' ' && c != '.' && c != ',') {
            return false;
        }
    }
    return true;
}
