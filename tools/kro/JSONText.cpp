#include "JSONText.h"

#include <charconv>
#include <cmath>
#include <iomanip>
#include <sstream>

#include "KROPropertyList.h"
#include "KROStringHelpers.h"

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

std::string jsonValue(const KROPropertyList& value) {
    switch (value.type()) {
    case KROPropertyList::Type::String:
        return jsonString(*value.stringValue());
    case KROPropertyList::Type::Integer:
        return std::to_string(*value.integerValue());
    case KROPropertyList::Type::Real:
        return jsonNumber(*value.realValue());
    case KROPropertyList::Type::Boolean:
        return *value.booleanValue() ? "true" : "false";
    case KROPropertyList::Type::Data:
        return jsonString(kro::encodeBase64(*value.dataValue()));
    case KROPropertyList::Type::Date:
        return jsonString(value.description());
    case KROPropertyList::Type::Array: {
        std::string text = "[";
        for (const KROPropertyList& element : *value.arrayValue()) {
            if (text.size() > 1) {
                text += ',';
            }
            text += jsonValue(element);
        }
        return text + "]";
    }
    case KROPropertyList::Type::Dictionary: {
        std::string text = "{";
        for (const auto& [key, element] : *value.dictionaryValue()) {
            if (text.size() > 1) {
                text += ',';
            }
            text += jsonString(key);
            text += ':';
            text += jsonValue(element);
        }
        return text + "}";
    }
    }
    return "null";
}
