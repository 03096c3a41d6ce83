#include "KROMIDINoteFormatter.h"

#include <array>
#include <cmath>
#include <optional>

#include "KROLocalizedString.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"

namespace {

constexpr std::array<const char*, 12> kSharpNames{"C",  "C#", "D",  "D#", "E",  "F",
                                                  "F#", "G",  "G#", "A",  "A#", "B"};
constexpr std::array<const char*, 12> kFlatNames{"C",  "Db", "D",  "Eb", "E",  "F",
                                                 "Gb", "G",  "Ab", "A",  "Bb", "B"};
// Semitones above C of the natural notes A to G.
constexpr std::array<int, 7> kLetterSemitones{9, 11, 0, 2, 4, 5, 7};

constexpr std::string_view kSharpSign = "\u266F";
constexpr std::string_view kFlatSign = "\u266D";
// Octave numbers run to a few digits at most; more is not a note.
constexpr std::size_t kMostOctaveDigits = 3;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Semitones added by the accidental at the front of text, and its length.
std::pair<int, std::size_t> accidentalAt(std::string_view text) {
    if (text.starts_with("#")) {
        return {1, 1};
    }
    if (text.starts_with("b")) {
        return {-1, 1};
    }
    if (text.starts_with(kSharpSign)) {
        return {1, kSharpSign.size()};
    }
    if (text.starts_with(kFlatSign)) {
        return {-1, kFlatSign.size()};
    }
    return {0, 0};
}

// An octave number: an optional minus and one to three digits, nothing more.
std::optional<int> octaveOf(std::string_view text) {
    const std::string_view digits = text.starts_with("-") ? text.substr(1) : text;
    if (digits.empty() || digits.size() > kMostOctaveDigits) {
        return std::nullopt;
    }
    for (const char c : digits) {
        if (!isDigit(c)) {
            return std::nullopt;
        }
    }
    return static_cast<int>(kro::integerValue(text));
}

bool isAllDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

} // namespace

std::string KROMIDINoteFormatter::stringForObjectValue(double note) const {
    const double nearest = std::round(note);
    if (!(nearest >= kLowestNote && nearest <= kHighestNote)) {
        return {};
    }
    const int number = static_cast<int>(nearest);
    const auto& names = usesFlats_ ? kFlatNames : kSharpNames;
    return KROStringWithFormatArguments("%@%d", names[static_cast<std::size_t>(number % 12)],
                                        number / 12 - 5 + middleCOctave_);
}

bool KROMIDINoteFormatter::getObjectValue(double& note, std::string_view text,
                                          std::string* errorDescription) const {
    const std::string_view typed = kro::stringByTrimmingWhitespaceAndNewlines(text);
    std::optional<long> number;
    if (isAllDigits(typed) && typed.size() <= kMostOctaveDigits) {
        number = static_cast<long>(kro::integerValue(typed));
    } else if (!typed.empty()) {
        const char letter = kro::lowercaseASCII(typed.substr(0, 1))[0];
        const auto [accidental, length] = accidentalAt(typed.substr(1));
        const auto octave = octaveOf(typed.substr(1 + length));
        if (letter >= 'a' && letter <= 'g' && octave) {
            number = 12L * (*octave - middleCOctave_ + 5) +
                     kLetterSemitones[static_cast<std::size_t>(letter - 'a')] + accidental;
        }
    }
    if (!number) {
        if (errorDescription) {
            *errorDescription = KROStringWithFormatArguments(
                KROLocalizedString("KROMIDINoteFormatter_notANote"), text);
        }
        return false;
    }
    if (*number < kLowestNote || *number > kHighestNote) {
        if (errorDescription) {
            *errorDescription = KROStringWithFormatArguments(
                KROLocalizedString("KROMIDINoteFormatter_outOfRange"), text,
                stringForObjectValue(kLowestNote), stringForObjectValue(kHighestNote));
        }
        return false;
    }
    note = static_cast<double>(*number);
    return true;
}

bool KROMIDINoteFormatter::isPartialStringValid(std::string_view partialString, std::string*,
                                                std::string*) const {
    std::string rest(partialString);
    for (const std::string_view sign : {kSharpSign, kFlatSign}) {
        for (std::size_t at = rest.find(sign); at != std::string::npos; at = rest.find(sign)) {
            rest.erase(at, sign.size());
        }
    }
    return rest.find_first_not_of("0123456789-#ABCDEFGabcdefg") == std::string::npos;
}
