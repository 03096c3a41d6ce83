#include "KROAudioFilenameScheme.h"

#include <cstddef>
#include <functional>

#include "KROLocalizedString.h"
#include "KROStringHelpers.h"

namespace {

constexpr std::string_view kAbbreviationToken = "/abbr/";
constexpr std::string_view kExtensionToken = "/ext/";

void replaceAll(std::string& text, std::string_view token, std::string_view replacement) {
    for (std::size_t at = text.find(token); at != std::string::npos;
         at = text.find(token, at + replacement.size())) {
        text.replace(at, token.size(), replacement);
    }
}

// Whether the token ends the expression at its index end.
bool tokenEndsAt(std::string_view expression, std::ptrdiff_t end, std::string_view token) {
    const auto length = static_cast<std::ptrdiff_t>(token.size());
    return end + 1 >= length &&
           expression.substr(static_cast<std::size_t>(end + 1 - length), token.size()) == token;
}

// The first word of the list that ends the file name at its index end,
// compared without regard to case.
const std::string* wordEndingAt(std::string_view filename, std::ptrdiff_t end,
                                const std::vector<std::string>& words) {
    for (const std::string& word : words) {
        const auto length = static_cast<std::ptrdiff_t>(word.size());
        if (end + 1 < length) {
            continue;
        }
        const std::string_view tail =
            filename.substr(static_cast<std::size_t>(end + 1 - length), word.size());
        if (kro::lowercaseASCII(tail) == kro::lowercaseASCII(word)) {
            return &word;
        }
    }
    return nullptr;
}

bool booleanEntry(const KROPropertyList& properties, std::string_view key, bool fallback) {
    const KROPropertyList* value = properties.objectForKey(key);
    return value ? value->boolValue(fallback) : fallback;
}

} // namespace

const std::vector<std::string>& KROAudioFilenameScheme::abbreviations() {
    static const std::vector<std::string> words{"LFE", "LSB", "RSB", "RL", "RR", "LC",
                                                "RC",  "LW",  "RW",  "LH", "RH", "LS",
                                                "RS",  "CS",  "LF",  "L",  "R",  "C"};
    return words;
}

const std::vector<std::string>& KROAudioFilenameScheme::extensions() {
    static const std::vector<std::string> words{"aif", "aiff", "wav", "w64"};
    return words;
}

std::shared_ptr<KROAudioFilenameScheme>
KROAudioFilenameScheme::schemeWithProperties(const KROPropertyList& properties) {
    auto scheme = std::make_shared<KROAudioFilenameScheme>();
    scheme->setProperties(properties);
    return scheme;
}

std::shared_ptr<KROAudioFilenameScheme>
KROAudioFilenameScheme::schemeWithExpression(std::string expression) {
    auto scheme = std::make_shared<KROAudioFilenameScheme>();
    scheme->enabled_ = true;
    scheme->expression_ = std::move(expression);
    return scheme;
}

bool KROAudioFilenameScheme::isEqual(const KROObject& other) const {
    const auto* scheme = dynamic_cast<const KROAudioFilenameScheme*>(&other);
    return scheme && scheme->expression_ == expression_;
}

std::size_t KROAudioFilenameScheme::hash() const {
    return std::hash<std::string>{}(expression_);
}

std::string KROAudioFilenameScheme::descriptionWithExtension(std::string_view extension) const {
    return filenameForName(KROLocalizedString("KROAudioFilenameScheme_descriptionFilename"), "*",
                           extension);
}

std::string KROAudioFilenameScheme::filenameForName(std::string_view name,
                                                    std::string_view channelAbbreviation,
                                                    std::string_view extension) const {
    std::string filename = std::string(name) + expression_;
    replaceAll(filename, kAbbreviationToken, channelAbbreviation);
    replaceAll(filename, kExtensionToken, extension);
    return filename;
}

std::optional<KROAudioFilenameParts>
KROAudioFilenameScheme::parseFilename(std::string_view filename) const {
    const std::string_view expression = expression_;
    auto e = static_cast<std::ptrdiff_t>(expression.size()) - 1;
    auto f = static_cast<std::ptrdiff_t>(filename.size()) - 1;
    KROAudioFilenameParts parts;
    while (e >= 0 && f >= 0) {
        if (expression[static_cast<std::size_t>(e)] == '/') {
            const bool isExtension = tokenEndsAt(expression, e, kExtensionToken);
            if (!isExtension && !tokenEndsAt(expression, e, kAbbreviationToken)) {
                return std::nullopt;
            }
            const std::string* word =
                wordEndingAt(filename, f, isExtension ? extensions() : abbreviations());
            if (!word) {
                return std::nullopt;
            }
            (isExtension ? parts.extension : parts.abbreviation) = *word;
            e -= static_cast<std::ptrdiff_t>(isExtension ? kExtensionToken.size()
                                                         : kAbbreviationToken.size());
            f -= static_cast<std::ptrdiff_t>(word->size());
        } else {
            if (expression[static_cast<std::size_t>(e)] != filename[static_cast<std::size_t>(f)]) {
                return std::nullopt;
            }
            --e;
            --f;
        }
    }
    parts.name = std::string(filename.substr(0, static_cast<std::size_t>(f + 1)));
    return parts;
}

KROPropertyList KROAudioFilenameScheme::properties() const {
    KROPropertyList properties;
    properties.setObjectForKey("expression", expression_);
    properties.setObjectForKey("enabled", enabled_);
    properties.setObjectForKey("locked", locked_);
    return properties;
}

void KROAudioFilenameScheme::setProperties(const KROPropertyList& properties) {
    if (const KROPropertyList* expression = properties.objectForKey("expression")) {
        if (const std::string* text = expression->stringValue()) {
            expression_ = *text;
        }
    }
    enabled_ = booleanEntry(properties, "enabled", enabled_);
    locked_ = booleanEntry(properties, "locked", locked_);
}

void KROAudioFilenameScheme::setEnabled(bool enabled) {
    enabled_ = enabled;
    changed();
}

void KROAudioFilenameScheme::setExpression(std::string expression) {
    expression_ = std::move(expression);
    changed();
}

void KROAudioFilenameScheme::changed() const {
    if (changeHandler_) {
        changeHandler_(*this);
    }
}
