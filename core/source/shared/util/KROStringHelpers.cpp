#include "KROStringHelpers.h"

#include <array>

#include <openssl/evp.h>

namespace kro {
namespace {

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPad = '=';
constexpr std::uint32_t kInvalidCodePoint = 0xFFFFFFFF;
constexpr std::uint32_t kReplacementCharacter = 0xFFFD;

// Unicode of the Mac OS Roman bytes 0x80…0xFF.
constexpr std::array<std::uint16_t, 128> kMacRomanHigh = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3,
    0x00E5, 0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3,
    0x00A7, 0x2022, 0x00B6, 0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA,
    0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D,
    0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1, 0x00CB, 0x00C8, 0x00CD, 0x00CE,
    0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};

// The base letters of U+00C0…U+017F, "?" where a character has none.
constexpr std::string_view kLatinBaseLetters =
    "AAAAAA?CEEEEIIII?NOOOOO??UUUUY??aaaaaa?ceeeeiiii?nooooo??uuuuy?y"
    "AaAaAaCcCcCcCcDd??EeEeEeEeEeGgGgGgGgHh??IiIiIiIiI???JjKk?LlLlLl?"
    "???NnNnNn???OoOoOo??RrRrRrSsSsSsSsTtTt??UuUuUuUuUuUuWwYyYZzZzZz?";

std::uint32_t decodeUTF8(std::string_view bytes, std::size_t position, std::size_t& length) {
    const auto lead = static_cast<std::uint8_t>(bytes[position]);
    length = 1;
    if (lead < 0x80) {
        return lead;
    }
    const std::size_t count = lead >= 0xF8   ? 0
                              : lead >= 0xF0 ? 4
                              : lead >= 0xE0 ? 3
                              : lead >= 0xC2 ? 2
                                             : 0;
    if (count == 0 || position + count > bytes.size()) {
        return kInvalidCodePoint;
    }
    std::uint32_t codePoint = lead & (0x7F >> count);
    for (std::size_t i = 1; i < count; ++i) {
        const auto next = static_cast<std::uint8_t>(bytes[position + i]);
        if ((next & 0xC0) != 0x80) {
            return kInvalidCodePoint;
        }
        codePoint = (codePoint << 6) | (next & 0x3F);
    }
    length = count;
    return codePoint;
}

void appendUTF8(std::string& out, std::uint32_t codePoint) {
    if (codePoint < 0x80) {
        out.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else if (codePoint < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    }
}

std::uint32_t macRomanToUnicode(std::uint8_t byte) {
    return byte < 0x80 ? byte : kMacRomanHigh[byte - 0x80];
}

std::uint8_t unicodeToMacRoman(std::uint32_t codePoint) {
    if (codePoint < 0x80) {
        return static_cast<std::uint8_t>(codePoint);
    }
    for (std::size_t i = 0; i < kMacRomanHigh.size(); ++i) {
        if (kMacRomanHigh[i] == codePoint) {
            return static_cast<std::uint8_t>(0x80 + i);
        }
    }
    return '?';
}

bool isWhitespaceOrNewline(std::uint32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F ||
           c == 0x205F || c == 0x3000;
}

std::string_view trimmedStart(std::string_view string) {
    std::size_t start = 0;
    std::size_t length = 0;
    while (start < string.size() && isWhitespaceOrNewline(decodeUTF8(string, start, length))) {
        start += length;
    }
    return string.substr(start);
}

std::string_view trimmedEnd(std::string_view string) {
    std::size_t end = string.size();
    std::size_t length = 0;
    while (end > 0) {
        std::size_t last = end - 1;
        while (last > 0 && end - last < 4 &&
               (static_cast<std::uint8_t>(string[last]) & 0xC0) == 0x80) {
            --last;
        }
        if (!isWhitespaceOrNewline(decodeUTF8(string, last, length)) || last + length != end) {
            break;
        }
        end = last;
    }
    return string.substr(0, end);
}

char lossyASCII(std::uint32_t codePoint) {
    if (codePoint < 0x80) {
        return static_cast<char>(codePoint);
    }
    if (codePoint >= 0xC0 && codePoint < 0xC0 + kLatinBaseLetters.size()) {
        return kLatinBaseLetters[codePoint - 0xC0];
    }
    return '?';
}

bool isCombiningAccent(std::uint32_t codePoint) {
    return codePoint >= 0x0300 && codePoint <= 0x036F;
}

bool isBase64Space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Skips white space from position; the input ends at its end or a zero byte.
std::size_t skipSpace(std::string_view text, std::size_t position) {
    while (position < text.size() && text[position] != '\0' && isBase64Space(text[position])) {
        ++position;
    }
    return position;
}

bool atInputEnd(std::string_view text, std::size_t position) {
    return position >= text.size() || text[position] == '\0';
}

// The padding from the first "=" at position: after two
// characters of a group a second "=" must come; only white space may follow.
bool acceptsPadding(std::string_view text, std::size_t position, int state) {
    if (state < 2) {
        return false;
    }
    position = position + 1;
    if (state == 2) {
        position = skipSpace(text, position);
        if (atInputEnd(text, position) || text[position] != kPad) {
            return false;
        }
        position = position + 1;
    }
    return atInputEnd(text, skipSpace(text, position));
}

KROData digest(const KROData& data, const EVP_MD* type) {
    KROData result(static_cast<std::size_t>(EVP_MD_get_size(type)));
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), result.data(), &length, type, nullptr) != 1) {
        return {};
    }
    result.resize(length);
    return result;
}

} // namespace

std::string encodeBase64(const KROData& data) {
    std::string text;
    text.reserve((data.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= data.size(); i += 3) {
        const std::uint32_t group = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6) {
            text.push_back(kBase64Alphabet[(group >> shift) & 0x3F]);
        }
    }
    const std::size_t rest = data.size() - i;
    if (rest > 0) {
        const std::uint32_t group = (data[i] << 16) | (rest == 2 ? data[i + 1] << 8 : 0);
        text.push_back(kBase64Alphabet[(group >> 18) & 0x3F]);
        text.push_back(kBase64Alphabet[(group >> 12) & 0x3F]);
        text.push_back(rest == 2 ? kBase64Alphabet[(group >> 6) & 0x3F] : kPad);
        text.push_back(kPad);
    }
    return text;
}

std::optional<KROData> decodeBase64(std::string_view text) {
    KROData result;
    int state = 0;
    std::uint8_t pending = 0;
    for (std::size_t position = 0; !atInputEnd(text, position); ++position) {
        const char c = text[position];
        if (isBase64Space(c)) {
            continue;
        }
        if (c == kPad) {
            if (!acceptsPadding(text, position, state) || pending != 0) {
                return std::nullopt;
            }
            return result;
        }
        const std::size_t value = kBase64Alphabet.find(c);
        if (value == std::string_view::npos) {
            return std::nullopt;
        }
        const auto bits = static_cast<std::uint8_t>(value);
        switch (state) {
        case 0:
            pending = static_cast<std::uint8_t>(bits << 2);
            break;
        case 1:
            result.push_back(pending | (bits >> 4));
            pending = static_cast<std::uint8_t>((bits & 0x0F) << 4);
            break;
        case 2:
            result.push_back(pending | (bits >> 2));
            pending = static_cast<std::uint8_t>((bits & 0x03) << 6);
            break;
        default:
            result.push_back(pending | bits);
            pending = 0;
            break;
        }
        state = (state + 1) % 4;
    }
    if (state != 0) {
        return std::nullopt;
    }
    return result;
}

KROData md5Digest(const KROData& data) {
    return digest(data, EVP_md5());
}

KROData sha1Digest(const KROData& data) {
    return digest(data, EVP_sha1());
}

std::string md5String(const KROData& data) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t byte : md5Digest(data)) {
        text.push_back(kHex[byte >> 4]);
        text.push_back(kHex[byte & 0x0F]);
    }
    return text;
}

std::uint8_t byteValueAtPosition(const KROData& data, std::size_t position) {
    return position < data.size() ? data[position] : 0;
}

std::uint16_t bigShortValueAtPosition(const KROData& data, std::size_t position) {
    if (position >= data.size() || data.size() - position < 2) {
        return 0;
    }
    return static_cast<std::uint16_t>((data[position] << 8) | data[position + 1]);
}

std::uint32_t bigIntValueAtPosition(const KROData& data, std::size_t position) {
    if (position >= data.size() || data.size() - position < 4) {
        return 0;
    }
    return (std::uint32_t{data[position]} << 24) | (std::uint32_t{data[position + 1]} << 16) |
           (std::uint32_t{data[position + 2]} << 8) | std::uint32_t{data[position + 3]};
}

std::string stringWithFourCharCode(std::uint32_t code) {
    std::array<std::uint8_t, 4> bytes = {
        static_cast<std::uint8_t>(code >> 24), static_cast<std::uint8_t>(code >> 16),
        static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code)};
    // Kept: every byte is replaced on the test of the lowest byte; stored files
    // and hosts depend on it.
    for (std::uint8_t& byte : bytes) {
        if (bytes[3] < 0x20 || bytes[3] > 0x7E) {
            byte = ' ';
        }
    }
    std::string text;
    for (std::uint8_t byte : bytes) {
        appendUTF8(text, macRomanToUnicode(byte));
    }
    return text;
}

std::uint32_t fourCharCode(std::string_view string) {
    std::uint32_t code = 0;
    std::size_t position = 0;
    for (int shift = 24; shift >= 0 && position < string.size(); shift -= 8) {
        std::size_t length = 0;
        const std::uint32_t codePoint = decodeUTF8(string, position, length);
        code |= std::uint32_t{unicodeToMacRoman(codePoint)} << shift;
        position += length;
    }
    return code;
}

std::string stringByDeletingHTMLTags(std::string_view string) {
    std::string result;
    bool first = true;
    std::size_t position = 0;
    while (position < string.size()) {
        const std::string_view rest = trimmedStart(string.substr(position));
        const std::size_t tag = rest.find('<');
        const std::string_view piece = rest.substr(0, tag);
        if (!piece.empty()) {
            if (!first) {
                result.push_back(' ');
            }
            result.append(piece);
            first = false;
        }
        if (tag == std::string_view::npos) {
            break;
        }
        const std::size_t tagStart = string.size() - rest.size() + tag;
        const std::size_t tagEnd = string.find('>', tagStart);
        position = tagEnd == std::string_view::npos ? string.size() : tagEnd + 1;
    }
    return result;
}

std::string stringByAddingXMLEscapes(std::string_view string) {
    static constexpr std::array<std::pair<char, std::string_view>, 5> kEscapes = {{
        {'&', "&amp;"},
        {'"', "&quot;"},
        {'\'', "&#x27;"},
        {'>', "&gt;"},
        {'<', "&lt;"},
    }};
    std::string result(string);
    for (const auto& [character, escape] : kEscapes) {
        std::string replaced;
        for (char c : result) {
            if (c == character) {
                replaced.append(escape);
            } else {
                replaced.push_back(c);
            }
        }
        result = std::move(replaced);
    }
    return result;
}

std::string stringAsLossyASCIIString(std::string_view string) {
    std::string result;
    for (std::size_t position = 0; position < string.size();) {
        std::size_t length = 0;
        const std::uint32_t codePoint = decodeUTF8(string, position, length);
        if (!isCombiningAccent(codePoint)) {
            result.push_back(lossyASCII(codePoint));
        }
        position += length;
    }
    return result;
}

KROData lossyASCIICString(std::string_view string) {
    const std::string ascii = stringAsLossyASCIIString(string);
    KROData data(ascii.begin(), ascii.end());
    data.push_back(0);
    return data;
}

std::optional<KROData> lossyASCIIPascalString(std::string_view string) {
    const std::string ascii = stringAsLossyASCIIString(string);
    if (ascii.size() >= 256) {
        return std::nullopt;
    }
    KROData data;
    data.push_back(static_cast<std::uint8_t>(ascii.size()));
    data.insert(data.end(), ascii.begin(), ascii.end());
    return data;
}

std::string stringWithASCIIBytes(const std::uint8_t* bytes, std::size_t count) {
    std::string text;
    text.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        appendUTF8(text, bytes[i]);
    }
    return text;
}

std::string stringWithUTF16LittleEndianBytes(const std::uint8_t* bytes, std::size_t count) {
    std::string text;
    const std::size_t units = count / 2;
    const auto unitAt = [bytes](std::size_t i) {
        return static_cast<std::uint32_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    };
    for (std::size_t i = 0; i < units; ++i) {
        const std::uint32_t unit = unitAt(i);
        if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < units && unitAt(i + 1) >= 0xDC00 &&
            unitAt(i + 1) < 0xE000) {
            appendUTF8(text, 0x10000 + ((unit - 0xD800) << 10) + (unitAt(i + 1) - 0xDC00));
            ++i;
        } else if (unit >= 0xD800 && unit < 0xE000) {
            appendUTF8(text, kReplacementCharacter);
        } else {
            appendUTF8(text, unit);
        }
    }
    return text;
}

bool isValidUTF8(std::string_view bytes) {
    for (std::size_t position = 0, length = 0; position < bytes.size(); position += length) {
        const std::uint32_t codePoint = decodeUTF8(bytes, position, length);
        const std::uint32_t smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
        if (codePoint == kInvalidCodePoint || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint < 0xE000) || (length > 1 && codePoint < smallest)) {
            return false;
        }
    }
    return true;
}

KROData utf16LittleEndianData(std::string_view string) {
    KROData data;
    const auto appendUnit = [&data](std::uint32_t unit) {
        data.push_back(static_cast<std::uint8_t>(unit));
        data.push_back(static_cast<std::uint8_t>(unit >> 8));
    };
    for (std::size_t position = 0; position < string.size();) {
        std::size_t length = 0;
        std::uint32_t codePoint = decodeUTF8(string, position, length);
        if (codePoint == kInvalidCodePoint || (codePoint >= 0xD800 && codePoint < 0xE000) ||
            codePoint > 0x10FFFF) {
            codePoint = kReplacementCharacter;
        }
        if (codePoint >= 0x10000) {
            appendUnit(0xD800 + ((codePoint - 0x10000) >> 10));
            appendUnit(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
        } else {
            appendUnit(codePoint);
        }
        position += length;
    }
    return data;
}

std::size_t utf16Length(std::string_view string) {
    std::size_t units = 0;
    for (std::size_t position = 0; position < string.size();) {
        std::size_t length = 0;
        const std::uint32_t codePoint = decodeUTF8(string, position, length);
        units += codePoint != kInvalidCodePoint && codePoint >= 0x10000 ? 2 : 1;
        position += length;
    }
    return units;
}

NSLongRange range(std::string_view string) {
    return NSMakeLongRange(0, string.size());
}

std::string filename(std::string_view path) {
    std::size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') {
        --end;
    }
    path = path.substr(0, end);
    if (path == "/") {
        return std::string(path);
    }
    const std::size_t slash = path.rfind('/');
    std::string_view component = slash == std::string_view::npos ? path : path.substr(slash + 1);
    const std::size_t dot = component.rfind('.');
    if (dot != std::string_view::npos && dot > 0) {
        component = component.substr(0, dot);
    }
    return std::string(component);
}

std::string_view stringByTrimmingWhitespaceAndNewlines(std::string_view string) {
    return trimmedEnd(trimmedStart(string));
}

std::string lowercaseASCII(std::string_view string) {
    std::string lowered(string);
    for (char& c : lowered) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lowered;
}

} // namespace kro
