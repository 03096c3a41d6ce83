#include "JSONText.h"

#include <charconv>
#include <cmath>
#include <iomanip>
#include <sstream>

std::string jsonString(const std::string& text) {
    std::ostringstream out;
    out << '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out << '\\' << c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            out << "\\u" << std::hex << std::setw(4) << std::setfill('0') << int(c) << std::dec;
        } else {
            out << c;
        }
    }
    out << '"';
    return out.str();
}

std::string jsonStrings(const std::vector<std::string>& texts) {
    std::string result = "[";
    for (std::size_t i = 0; i < texts.size(); ++i) {
        result += i ? "," : "";
        result += jsonString(texts[i]);
    }
    return result + "]";
}

std::string jsonNumber(double value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}
