#include "KRODateText.h"

#include <ctime>

namespace kro {
namespace {

struct DateField {
    std::string_view token;
    int width; // digits written; read accepts 1 to width, a year exactly 4
    int std::tm::*member;
    int offset; // what the text shows less what std::tm holds
    int lowest;
    int highest;
};

constexpr DateField kFields[] = {
    {"yyyy", 4, &std::tm::tm_year, 1900, 1, 9999}, {"MM", 2, &std::tm::tm_mon, 1, 1, 12},
    {"dd", 2, &std::tm::tm_mday, 0, 1, 31},        {"HH", 2, &std::tm::tm_hour, 0, 0, 23},
    {"mm", 2, &std::tm::tm_min, 0, 0, 59},         {"ss", 2, &std::tm::tm_sec, 0, 0, 60},
};

const DateField* fieldAt(std::string_view pattern, std::size_t position) {
    for (const DateField& field : kFields) {
        if (pattern.substr(position, field.token.size()) == field.token) {
            return &field;
        }
    }
    return nullptr;
}

std::string digits(int value, int width) {
    std::string text = std::to_string(value < 0 ? -value : value);
    if (static_cast<int>(text.size()) < width) {
        text.insert(0, width - text.size(), '0');
    }
    if (value < 0) {
        text.insert(text.begin(), '-');
    }
    return text;
}

std::string offsetText(long seconds) {
    const long minutes = (seconds < 0 ? -seconds : seconds) / 60;
    std::string text(1, seconds < 0 ? '-' : '+');
    text.append(digits(static_cast<int>(minutes / 60), 2));
    text.append(digits(static_cast<int>(minutes % 60), 2));
    return text;
}

// Reads one to width digits (exactly width for a year) at position.
std::optional<int> readDigits(std::string_view text, std::size_t& position, int width, bool exact) {
    int value = 0;
    int count = 0;
    while (count < width && position < text.size() && text[position] >= '0' &&
           text[position] <= '9') {
        value = value * 10 + (text[position++] - '0');
        ++count;
    }
    if (count == 0 || (exact && count != width)) {
        return std::nullopt;
    }
    return value;
}

std::optional<long> readOffset(std::string_view text, std::size_t& position) {
    if (position >= text.size() || (text[position] != '+' && text[position] != '-')) {
        return std::nullopt;
    }
    const long sign = text[position++] == '-' ? -1 : 1;
    const auto hours = readDigits(text, position, 2, true);
    const auto minutes = readDigits(text, position, 2, true);
    if (!hours || !minutes || *hours > 23 || *minutes > 59) {
        return std::nullopt;
    }
    return sign * (*hours * 3600L + *minutes * 60L);
}

} // namespace

std::string stringFromDate(KRODate date, std::string_view pattern) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
    std::tm parts{};
    localtime_r(&seconds, &parts);
    std::string text;
    for (std::size_t position = 0; position < pattern.size();) {
        if (const DateField* field = fieldAt(pattern, position)) {
            text += digits(parts.*field->member + field->offset, field->width);
            position += field->token.size();
        } else if (pattern[position] == 'Z') {
            text += offsetText(parts.tm_gmtoff);
            ++position;
        } else {
            text += pattern[position++];
        }
    }
    return text;
}

std::optional<KRODate> dateFromString(std::string_view text, std::string_view pattern) {
    std::tm parts{};
    parts.tm_year = 100;
    parts.tm_mday = 1;
    parts.tm_isdst = -1;
    std::optional<long> offset;
    std::size_t at = 0;
    for (std::size_t position = 0; position < pattern.size();) {
        if (const DateField* field = fieldAt(pattern, position)) {
            const auto value = readDigits(text, at, field->width, field->width == 4);
            if (!value || *value < field->lowest || *value > field->highest) {
                return std::nullopt;
            }
            parts.*field->member = *value - field->offset;
            position += field->token.size();
        } else if (pattern[position] == 'Z') {
            if (!(offset = readOffset(text, at))) {
                return std::nullopt;
            }
            ++position;
        } else if (at < text.size() && text[at] == pattern[position]) {
            ++at;
            ++position;
        } else {
            return std::nullopt;
        }
    }
    const int day = parts.tm_mday;
    const std::time_t seconds = offset ? timegm(&parts) - *offset : std::mktime(&parts);
    // A date is held in nanoseconds, which reach about 292 years either way
    // of 1970; years beyond are no date here.
    constexpr std::time_t limit = 9'000'000'000;
    if (at != text.size() || parts.tm_mday != day || seconds == -1 || seconds < -limit ||
        seconds > limit) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(seconds);
}

} // namespace kro
