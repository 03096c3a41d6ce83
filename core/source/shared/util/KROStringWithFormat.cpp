// Beyond what the header says: a specifier that is not understood (and %n)
// is written out as it stands and takes no argument. Widths and precisions are
// capped at 4096; '*' and '*N$' take them from an int argument. Integers print
// as the C type their length modifier names (%d an int, %ld a long).
// Mismatches convert: an integer given to %f prints as a double, a real given
// to %d is truncated, a number given to %@ or %s prints as its decimal text,
// and a string given to a numeric conversion prints as it is. %@ counts width
// and precision in characters, %s in bytes.
#include "KROStringWithFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include "KROObject.h"

KROFormatArgument::KROFormatArgument(const KROObject& object) : value_(object.description()) {}

KROFormatArgument::KROFormatArgument(const std::shared_ptr<KROObject>& object)
    : value_(object ? object->description() : std::string("(null)")) {}

namespace {

// Widths and precisions above this are clamped, so that a hostile format
// cannot make one conversion allocate without bound.
constexpr int kMaxFieldSize = 4096;

enum class LengthModifier { None, Char, Short, Long, LongLong, LongDouble, Size };

// One optional field of a specifier: a number, '*' (the next argument) or
// '*N$' (argument N).
struct FieldSpec {
    bool present = false;
    bool fromArgument = false;
    std::size_t argumentIndex = 0;
    bool argumentPositional = false;
    int value = 0;
};

struct ConversionSpec {
    bool positional = false;
    std::size_t argumentIndex = 0;
    bool leftAlign = false;
    bool plusSign = false;
    bool spaceSign = false;
    bool alternate = false;
    bool zeroPad = false;
    FieldSpec width;
    FieldSpec precision;
    LengthModifier length = LengthModifier::None;
    char conversion = 0;
    // Index just past the conversion character.
    std::size_t end = 0;
};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads decimal digits at position, saturating at kMaxFieldSize + 1 so that
// the caller can clamp without any overflow.
int readNumber(std::string_view format, std::size_t& position) {
    int value = 0;
    while (position < format.size() && isDigit(format[position])) {
        value = std::min(value * 10 + (format[position] - '0'), kMaxFieldSize + 1);
        ++position;
    }
    return value;
}

// "N$" at position: an argument index from 1. Leaves position unchanged when
// there is none.
std::optional<std::size_t> readPositionalIndex(std::string_view format, std::size_t& position) {
    std::size_t cursor = position;
    if (cursor >= format.size() || !isDigit(format[cursor])) {
        return std::nullopt;
    }
    std::size_t index = 0;
    while (cursor < format.size() && isDigit(format[cursor])) {
        index = std::min<std::size_t>(index * 10 + static_cast<std::size_t>(format[cursor] - '0'),
                                      std::numeric_limits<int>::max());
        ++cursor;
    }
    if (cursor >= format.size() || format[cursor] != '$') {
        return std::nullopt;
    }
    position = cursor + 1;
    return index;
}

// A width or precision after its introducer. False when malformed.
bool readField(std::string_view format, std::size_t& position, FieldSpec& field) {
    if (position < format.size() && format[position] == '*') {
        ++position;
        field.present = true;
        field.fromArgument = true;
        if (std::optional<std::size_t> index = readPositionalIndex(format, position)) {
            if (*index == 0) {
                return false;
            }
            field.argumentPositional = true;
            field.argumentIndex = *index - 1;
        }
        return true;
    }
    if (position < format.size() && isDigit(format[position])) {
        field.present = true;
        field.value = std::min(readNumber(format, position), kMaxFieldSize);
    }
    return true;
}

void readFlags(std::string_view format, std::size_t& position, ConversionSpec& spec) {
    for (; position < format.size(); ++position) {
        switch (format[position]) {
        case '-':
            spec.leftAlign = true;
            break;
        case '+':
            spec.plusSign = true;
            break;
        case ' ':
            spec.spaceSign = true;
            break;
        case '#':
            spec.alternate = true;
            break;
        case '0':
            spec.zeroPad = true;
            break;
        default:
            return;
        }
    }
}

void readLength(std::string_view format, std::size_t& position, LengthModifier& length) {
    auto next = [&](char c) { return position < format.size() && format[position] == c; };
    if (next('h')) {
        ++position;
        length = LengthModifier::Short;
        if (next('h')) {
            ++position;
            length = LengthModifier::Char;
        }
    } else if (next('l')) {
        ++position;
        length = LengthModifier::Long;
        if (next('l')) {
            ++position;
            length = LengthModifier::LongLong;
        }
    } else if (next('q')) {
        ++position;
        length = LengthModifier::LongLong;
    } else if (next('L')) {
        ++position;
        length = LengthModifier::LongDouble;
    } else if (next('j') || next('z') || next('t')) {
        ++position;
        length = LengthModifier::Size;
    }
}

bool isKnownConversion(char c) {
    static constexpr std::string_view conversions = "@diouxXDUOcCsSpfFeEgGaA%";
    return c != 0 && conversions.find(c) != std::string_view::npos;
}

// Parses the specifier that starts with the '%' at start; none when malformed.
std::optional<ConversionSpec> parseSpec(std::string_view format, std::size_t start) {
    ConversionSpec spec;
    std::size_t position = start + 1;
    if (std::optional<std::size_t> index = readPositionalIndex(format, position)) {
        if (*index == 0) {
            return std::nullopt;
        }
        spec.positional = true;
        spec.argumentIndex = *index - 1;
    }
    readFlags(format, position, spec);
    if (!readField(format, position, spec.width)) {
        return std::nullopt;
    }
    if (position < format.size() && format[position] == '.') {
        ++position;
        if (!readField(format, position, spec.precision)) {
            return std::nullopt;
        }
        // "%.f" is a precision of zero, as in printf.
        spec.precision.present = true;
    }
    readLength(format, position, spec.length);
    if (position >= format.size() || !isKnownConversion(format[position])) {
        return std::nullopt;
    }
    spec.conversion = format[position];
    spec.end = position + 1;
    // "%%" stands alone; "%5%" and the like are not understood.
    if (spec.conversion == '%' && spec.end != start + 2) {
        return std::nullopt;
    }
    return spec;
}

// Walks the argument list: sequential conversions take the next argument,
// positional ones name theirs and leave the sequence where it was.
class ArgumentCursor {
public:
    explicit ArgumentCursor(const std::vector<KROFormatArgument>& arguments)
        : arguments_(arguments) {}

    const KROFormatArgument* take(bool positional, std::size_t index) {
        if (!positional) {
            index = next_++;
        }
        return index < arguments_.size() ? &arguments_[index] : nullptr;
    }

private:
    const std::vector<KROFormatArgument>& arguments_;
    std::size_t next_ = 0;
};

// Integer value of an argument. Reals are truncated and saturated to the
// range of the conversion's signedness (a negative real given to an unsigned
// conversion goes through the signed range, as a negative integer does); NaN is 0.
std::uint64_t integerBits(const KROFormatArgument::Value& value, bool isSigned) {
    if (const auto* signedValue = std::get_if<std::int64_t>(&value)) {
        return static_cast<std::uint64_t>(*signedValue);
    }
    if (const auto* unsignedValue = std::get_if<std::uint64_t>(&value)) {
        return *unsignedValue;
    }
    const double real = std::get<double>(value);
    if (std::isnan(real)) {
        return 0;
    }
    if (!isSigned && real >= 9223372036854775808.0) {
        return real >= 18446744073709551616.0 ? std::numeric_limits<std::uint64_t>::max()
                                              : static_cast<std::uint64_t>(real);
    }
    if (real >= 9223372036854775808.0) {
        return static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    }
    if (real <= -9223372036854775808.0) {
        return static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::min());
    }
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(real));
}

double realValue(const KROFormatArgument::Value& value) {
    if (const auto* signedValue = std::get_if<std::int64_t>(&value)) {
        return static_cast<double>(*signedValue);
    }
    if (const auto* unsignedValue = std::get_if<std::uint64_t>(&value)) {
        return static_cast<double>(*unsignedValue);
    }
    return std::get<double>(value);
}

// The shortest text that reads back as the same double.
std::string shortestRealText(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

// The text of %@ and %s: strings as they are, numbers as their decimal text.
std::string argumentText(const KROFormatArgument::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        return *text;
    }
    if (const auto* signedValue = std::get_if<std::int64_t>(&value)) {
        return std::to_string(*signedValue);
    }
    if (const auto* unsignedValue = std::get_if<std::uint64_t>(&value)) {
        return std::to_string(*unsignedValue);
    }
    return shortestRealText(std::get<double>(value));
}

// Resolves '*' fields; false when an argument they need is missing. A
// negative width means left alignment, a negative precision none, as in printf.
bool resolveFields(ConversionSpec& spec, ArgumentCursor& cursor) {
    auto resolve = [&](FieldSpec& field) -> bool {
        if (!field.fromArgument) {
            return true;
        }
        const KROFormatArgument* argument =
            cursor.take(field.argumentPositional, field.argumentIndex);
        if (!argument) {
            return false;
        }
        if (std::holds_alternative<std::string>(argument->value())) {
            // A string cannot be a width; the field is dropped.
            field.present = false;
            return true;
        }
        const auto bits = static_cast<std::int64_t>(integerBits(argument->value(), true));
        const std::int64_t clamped = std::clamp<std::int64_t>(bits, -kMaxFieldSize, kMaxFieldSize);
        field.value = static_cast<int>(clamped);
        return true;
    };
    if (!resolve(spec.width) || !resolve(spec.precision)) {
        return false;
    }
    if (spec.width.present && spec.width.value < 0) {
        spec.leftAlign = true;
        spec.width.value = -spec.width.value;
    }
    if (spec.precision.present && spec.precision.value < 0) {
        spec.precision.present = false;
    }
    return true;
}

void appendPadding(std::string& output, std::size_t count) {
    output.append(count, ' ');
}

// Pads text to the width, counted in the given units.
void appendAligned(std::string& output, const ConversionSpec& spec, std::string_view text,
                   std::size_t textWidth) {
    const std::size_t width = spec.width.present ? static_cast<std::size_t>(spec.width.value) : 0;
    const std::size_t padding = width > textWidth ? width - textWidth : 0;
    if (!spec.leftAlign) {
        appendPadding(output, padding);
    }
    output.append(text);
    if (spec.leftAlign) {
        appendPadding(output, padding);
    }
}

bool isUTF8Continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

std::size_t codePointCount(std::string_view text) {
    std::size_t count = 0;
    for (char c : text) {
        count += isUTF8Continuation(c) ? 0 : 1;
    }
    return count;
}

// The first count code points of text.
std::string_view prefixOfCodePoints(std::string_view text, std::size_t count) {
    std::size_t position = 0;
    std::size_t seen = 0;
    while (position < text.size()) {
        if (!isUTF8Continuation(text[position])) {
            if (seen == count) {
                break;
            }
            ++seen;
        }
        ++position;
    }
    return text.substr(0, position);
}

// %s counts bytes as printf does; %@ counts characters, as an object string would.
void appendText(std::string& output, const ConversionSpec& spec, std::string_view text) {
    const bool byCharacter = spec.conversion == '@';
    if (spec.precision.present) {
        const auto limit = static_cast<std::size_t>(spec.precision.value);
        text = byCharacter ? prefixOfCodePoints(text, limit) : text.substr(0, limit);
    }
    appendAligned(output, spec, text, byCharacter ? codePointCount(text) : text.size());
}

// A string given to a numeric conversion prints as it is, aligned to the width.
void appendUnconverted(std::string& output, const ConversionSpec& spec, std::string_view text) {
    appendAligned(output, spec, text, text.size());
}

std::string utf8Encode(std::uint32_t codePoint) {
    std::string text;
    if (codePoint < 0x80) {
        text += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        text += static_cast<char>(0xC0 | (codePoint >> 6));
        text += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint >= 0xD800 && codePoint <= 0xDFFF) {
        text = "\xEF\xBF\xBD";
    } else if (codePoint < 0x10000) {
        text += static_cast<char>(0xE0 | (codePoint >> 12));
        text += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x110000) {
        text += static_cast<char>(0xF0 | (codePoint >> 18));
        text += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        text += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        text = "\xEF\xBF\xBD";
    }
    return text;
}

// %c writes one byte, even a zero one; %lc and %C write a code point as UTF-8
// (U+FFFD for a surrogate or a value beyond Unicode).
void appendCharacter(std::string& output, const ConversionSpec& spec,
                     const KROFormatArgument::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        appendUnconverted(output, spec, *text);
        return;
    }
    const std::uint64_t bits = integerBits(value, false);
    const bool wide = spec.conversion == 'C' || spec.length == LengthModifier::Long;
    const std::string text =
        wide ? utf8Encode(static_cast<std::uint32_t>(std::min<std::uint64_t>(bits, 0xFFFFFFFFu)))
             : std::string(1, static_cast<char>(bits));
    appendAligned(output, spec, text, wide ? 1 : text.size());
}

// The specifier handed to snprintf, built only from the parsed parts: the
// format text itself never reaches printf.
std::string buildPrintfSpec(const ConversionSpec& spec, std::string_view allowedFlags,
                            std::string_view lengthText, char conversion) {
    std::string built = "%";
    auto addFlag = [&](bool set, char flag) {
        if (set && allowedFlags.find(flag) != std::string_view::npos) {
            built += flag;
        }
    };
    addFlag(spec.leftAlign, '-');
    addFlag(spec.plusSign, '+');
    addFlag(spec.spaceSign, ' ');
    addFlag(spec.alternate, '#');
    addFlag(spec.zeroPad, '0');
    if (spec.width.present) {
        built += std::to_string(spec.width.value);
    }
    if (spec.precision.present) {
        built += '.';
        built += std::to_string(spec.precision.value);
    }
    built += lengthText;
    built += conversion;
    return built;
}

template <typename Value>
void appendPrintf(std::string& output, const std::string& printfSpec, Value value) {
    const int length = std::snprintf(nullptr, 0, printfSpec.c_str(), value);
    if (length <= 0) {
        return;
    }
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::snprintf(text.data(), text.size(), printfSpec.c_str(), value);
    text.resize(static_cast<std::size_t>(length));
    output += text;
}

// The long forms %D %U %O read a long, whatever the length modifier says.
LengthModifier effectiveLength(const ConversionSpec& spec) {
    if (spec.conversion == 'D' || spec.conversion == 'U' || spec.conversion == 'O') {
        return LengthModifier::Long;
    }
    return spec.length;
}

// The value as the C type its length modifier names would hold it.
long long narrowSigned(std::uint64_t bits, LengthModifier length) {
    switch (length) {
    case LengthModifier::Char:
        return static_cast<signed char>(bits);
    case LengthModifier::Short:
        return static_cast<short>(bits);
    case LengthModifier::None:
    case LengthModifier::LongDouble:
        return static_cast<int>(bits);
    default:
        return static_cast<long long>(bits);
    }
}

unsigned long long narrowUnsigned(std::uint64_t bits, LengthModifier length) {
    switch (length) {
    case LengthModifier::Char:
        return static_cast<unsigned char>(bits);
    case LengthModifier::Short:
        return static_cast<unsigned short>(bits);
    case LengthModifier::None:
    case LengthModifier::LongDouble:
        return static_cast<unsigned>(bits);
    default:
        return static_cast<unsigned long long>(bits);
    }
}

void appendInteger(std::string& output, const ConversionSpec& spec,
                   const KROFormatArgument::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        appendUnconverted(output, spec, *text);
        return;
    }
    const bool isSigned =
        spec.conversion == 'd' || spec.conversion == 'i' || spec.conversion == 'D';
    const std::uint64_t bits = integerBits(value, isSigned);
    const LengthModifier length = effectiveLength(spec);
    switch (spec.conversion) {
    case 'd':
    case 'i':
    case 'D':
        appendPrintf(output, buildPrintfSpec(spec, "-+ 0", "ll", 'd'), narrowSigned(bits, length));
        return;
    case 'u':
    case 'U':
        appendPrintf(output, buildPrintfSpec(spec, "-0", "ll", 'u'), narrowUnsigned(bits, length));
        return;
    case 'o':
    case 'O':
        appendPrintf(output, buildPrintfSpec(spec, "-#0", "ll", 'o'), narrowUnsigned(bits, length));
        return;
    default:
        appendPrintf(output, buildPrintfSpec(spec, "-#0", "ll", spec.conversion),
                     narrowUnsigned(bits, length));
        return;
    }
}

void appendReal(std::string& output, const ConversionSpec& spec,
                const KROFormatArgument::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        appendUnconverted(output, spec, *text);
        return;
    }
    appendPrintf(output, buildPrintfSpec(spec, "-+ #0", "", spec.conversion), realValue(value));
}

// %p of an integer: its hexadecimal value with "0x", as a pointer prints.
void appendPointer(std::string& output, const ConversionSpec& spec,
                   const KROFormatArgument::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        appendUnconverted(output, spec, *text);
        return;
    }
    char buffer[32];
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, integerBits(value, false), 16);
    const std::string text = "0x" + std::string(buffer, result.ptr);
    appendAligned(output, spec, text, text.size());
}

void appendConversion(std::string& output, const ConversionSpec& spec,
                      const KROFormatArgument::Value& value) {
    switch (spec.conversion) {
    case '@':
    case 's':
    case 'S':
        appendText(output, spec, argumentText(value));
        return;
    case 'c':
    case 'C':
        appendCharacter(output, spec, value);
        return;
    case 'p':
        appendPointer(output, spec, value);
        return;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        appendReal(output, spec, value);
        return;
    default:
        appendInteger(output, spec, value);
        return;
    }
}

} // namespace

std::string KROStringWithFormat(std::string_view format,
                                const std::vector<KROFormatArgument>& arguments) {
    std::string output;
    output.reserve(format.size());
    ArgumentCursor cursor(arguments);
    std::size_t position = 0;
    while (position < format.size()) {
        const std::size_t percent = format.find('%', position);
        if (percent == std::string_view::npos) {
            output.append(format.substr(position));
            break;
        }
        output.append(format.substr(position, percent - position));
        std::optional<ConversionSpec> spec = parseSpec(format, percent);
        if (!spec) {
            // Not understood: the '%' is written as it stands and the rest
            // of the specifier follows as plain text.
            output += '%';
            position = percent + 1;
            continue;
        }
        position = spec->end;
        if (spec->conversion == '%') {
            output += '%';
            continue;
        }
        if (!resolveFields(*spec, cursor)) {
            continue;
        }
        if (const KROFormatArgument* argument =
                cursor.take(spec->positional, spec->argumentIndex)) {
            appendConversion(output, *spec, argument->value());
        }
    }
    return output;
}
