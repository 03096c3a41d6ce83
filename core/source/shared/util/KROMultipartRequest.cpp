#include "KROMultipartRequest.h"

#include <charconv>
#include <fstream>
#include <iterator>

namespace {

void append(KROData& body, std::string_view text) {
    body.insert(body.end(), text.begin(), text.end());
}

void append(KROData& body, const KROData& bytes) {
    body.insert(body.end(), bytes.begin(), bytes.end());
}

// The shortest text that reads back as the same double, as a number object
// of the platform describes itself.
std::string numberText(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

KROData fileBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return {};
    }
    return KROData(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void appendTextField(KROData& body, const std::string& name, std::string_view text) {
    append(body, "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n");
    append(body, text);
}

void appendBytesField(KROData& body, const std::string& name, const std::string& filename,
                      const KROData& bytes) {
    append(body, "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" + filename +
                     "\"\r\n");
    append(body, "Content-Type: application/octet-stream\r\n\r\n");
    append(body, bytes);
}

struct FieldWriter {
    KROData& body;
    const std::string& name;

    void operator()(const std::string& text) const { appendTextField(body, name, text); }
    void operator()(std::int64_t number) const {
        appendTextField(body, name, std::to_string(number));
    }
    void operator()(double number) const { appendTextField(body, name, numberText(number)); }
    void operator()(const std::filesystem::path& file) const {
        appendBytesField(body, name, file.filename().string(), fileBytes(file));
    }
    void operator()(const KROData& data) const {
        appendBytesField(body, name, name + ".txt", data);
    }
    void operator()(KROMultipartRequest::OtherKind) const {}
};

KROMultipartRequest::Value valueOf(const KROPropertyList& value) {
    switch (value.type()) {
    case KROPropertyList::Type::String:
        return *value.stringValue();
    case KROPropertyList::Type::Integer:
        return *value.integerValue();
    case KROPropertyList::Type::Real:
        return *value.realValue();
    case KROPropertyList::Type::Boolean:
        return std::int64_t{*value.booleanValue() ? 1 : 0};
    case KROPropertyList::Type::Data:
        return *value.dataValue();
    default:
        return KROMultipartRequest::OtherKind{};
    }
}

} // namespace

KROMultipartRequest KROMultipartRequest::requestWithURL(std::string url,
                                                        const std::vector<Field>& form) {
    KROMultipartRequest request;
    request.url = std::move(url);
    request.method = "POST";
    const std::string boundaryText(boundary);
    request.headers.emplace_back("Content-Type", "multipart/form-data; boundary=" + boundaryText);
    for (const auto& [name, value] : form) {
        append(request.body, "--" + boundaryText + "\r\n");
        std::visit(FieldWriter{request.body, name}, value);
        append(request.body, "\r\n");
    }
    append(request.body, "--" + boundaryText + "--\r\n");
    return request;
}

KROMultipartRequest KROMultipartRequest::requestWithURL(std::string url,
                                                        const KROPropertyList& form) {
    std::vector<Field> fields;
    if (const auto* dictionary = form.dictionaryValue()) {
        for (const auto& [key, value] : *dictionary) {
            fields.emplace_back(key, valueOf(value));
        }
    }
    return requestWithURL(std::move(url), fields);
}

const std::string* KROMultipartRequest::valueForHeader(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (key == name) {
            return &value;
        }
    }
    return nullptr;
}
