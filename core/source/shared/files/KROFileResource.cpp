#include "KROFileResource.h"

namespace {

// The type code as text, with '?' for bytes that are not printable ASCII.
std::string typeText(std::uint32_t type) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char byte = static_cast<char>((type >> shift) & 0xFF);
        text += (byte >= 0x20 && byte < 0x7F) ? byte : '?';
    }
    return text;
}

} // namespace

KROFileResource::KROFileResource(std::uint32_t type, std::int64_t ID, std::string name,
                                 KROData data)
    : type_(type), ID_(ID), name_(std::move(name)), data_(std::move(data)) {}

std::string KROFileResource::description() const {
    return className() + " '" + typeText(type_) + "' " + std::to_string(ID_) + " \"" + name_ +
           "\" (" + std::to_string(data_.size()) + " bytes)";
}
