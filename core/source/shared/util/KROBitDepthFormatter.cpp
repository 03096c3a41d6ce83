#include "KROBitDepthFormatter.h"

#include <optional>

#include "KROLocalizedString.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"

namespace {

constexpr unsigned kMostIntegerBits = 32;
// Enough digits for any depth; more would only be a way to overflow.
constexpr std::size_t kMostDigits = 3;

std::string_view trimmed(std::string_view text) {
    return kro::stringByTrimmingWhitespaceAndNewlines(text);
}

// The text after a leading word, when it starts with it.
std::optional<std::string_view> after(std::string_view text, std::string_view word) {
    if (!text.starts_with(word)) {
        return std::nullopt;
    }
    return text.substr(word.size());
}

// Reads "<digits>[ |-][bit|bits][ ][float|integer|int]" from lower-cased text.
std::optional<KROBitDepth> depthOf(std::string_view text) {
    const std::size_t digits = text.find_first_not_of("0123456789");
    const std::size_t count = digits == std::string_view::npos ? text.size() : digits;
    if (count == 0 || count > kMostDigits) {
        return std::nullopt;
    }
    KROBitDepth depth;
    depth.bitsPerSample = static_cast<unsigned>(kro::integerValue(text.substr(0, count)));
    std::string_view rest = text.substr(count);
    if (rest.starts_with("-") || rest.starts_with(" ")) {
        rest = trimmed(rest.substr(1));
    }
    if (const auto afterBits = after(rest, "bits")) {
        rest = trimmed(*afterBits);
    } else if (const auto afterBit = after(rest, "bit")) {
        rest = trimmed(*afterBit);
    }
    if (rest == "float") {
        depth.isFloat = true;
    } else if (!rest.empty() && rest != "integer" && rest != "int") {
        return std::nullopt;
    }
    return depth;
}

bool fail(std::string* errorDescription, std::string_view key, std::string_view text) {
    if (errorDescription) {
        *errorDescription = KROStringWithFormatArguments(KROLocalizedString(key), text);
    }
    return false;
}

} // namespace

bool KROBitDepthFormatter::isSupported(const KROBitDepth& depth) {
    if (depth.isFloat) {
        return depth.bitsPerSample == 32 || depth.bitsPerSample == 64;
    }
    return depth.bitsPerSample >= 1 && depth.bitsPerSample <= kMostIntegerBits;
}

std::string KROBitDepthFormatter::stringForObjectValue(const KROBitDepth& depth) const {
    if (!isSupported(depth)) {
        return {};
    }
    return KROStringWithFormatArguments(KROLocalizedString(depth.isFloat
                                                               ? "KROBitDepthFormatter_float"
                                                               : "KROBitDepthFormatter_integer"),
                                        depth.bitsPerSample);
}

bool KROBitDepthFormatter::getObjectValue(KROBitDepth& depth, std::string_view text,
                                          std::string* errorDescription) const {
    const auto read = depthOf(kro::lowercaseASCII(trimmed(text)));
    if (!read) {
        return fail(errorDescription, "KROBitDepthFormatter_notABitDepth", text);
    }
    if (!isSupported(*read)) {
        return fail(errorDescription, "KROBitDepthFormatter_unsupported", text);
    }
    depth = *read;
    return true;
}

bool KROBitDepthFormatter::isPartialStringValid(std::string_view partialString, std::string*,
                                                std::string*) const {
    return kro::lowercaseASCII(partialString).find_first_not_of("0123456789 -bitsfloatneger") ==
           std::string::npos;
}
