// APEv2 tags of KROAudioFileContent: the reader of a tag at a file's end.
#include <endian.h>

#include <algorithm>
#include <array>

#include "KROAudioFileContent.h"
#include "KROAudioMetadataTable.h"
#include "KROStringHelpers.h"

namespace {

constexpr std::uint64_t kFooterLength = 32;
// The longest key read: keys of the format have at most 255 characters.
constexpr std::size_t kKeyBufferLength = 256;

bool readLittleEndian32(KROFileReader& reader, std::uint32_t& value) {
    if (!reader.getUnsignedIntValue(value)) {
        return false;
    }
    value = le32toh(value);
    return true;
}

struct APEFooter {
    std::uint32_t tagSize = 0;
    std::uint32_t itemCount = 0;
};

// The footer in the last 32 bytes: "APETAGEX", version, tag size (items and
// footer) and item count.
std::optional<APEFooter> readFooter(KROFileReader& reader, std::uint64_t fileSize) {
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    std::uint32_t version = 0;
    APEFooter footer;
    if (fileSize < kFooterLength || !reader.setPosition(fileSize - kFooterLength) ||
        !reader.getFourCharCode(first) || !reader.getFourCharCode(second) ||
        first != kro::fourCC("APET") || second != kro::fourCC("AGEX") ||
        !readLittleEndian32(reader, version) || !readLittleEndian32(reader, footer.tagSize) ||
        !readLittleEndian32(reader, footer.itemCount)) {
        return std::nullopt;
    }
    return footer;
}

// The key at the reader's position: up to the buffer's length, to its first
// zero byte. None when nothing could be read.
std::optional<std::string> readKey(KROFileReader& reader, std::uint64_t position) {
    std::array<char, kKeyBufferLength> buffer{};
    const std::uint64_t available = reader.length() > position ? reader.length() - position : 0;
    std::size_t length = std::min<std::uint64_t>(buffer.size(), available);
    if (length == 0 || !reader.getBuffer(buffer.data(), &length)) {
        return std::nullopt;
    }
    const auto end = std::find(buffer.begin(), buffer.begin() + length, '\0');
    return std::string(buffer.begin(), end);
}

// The bytes of one item's value; none when the file does not hold them.
std::optional<KROData> readValueBytes(KROFileReader& reader, std::uint64_t position,
                                      std::uint32_t size) {
    KROData bytes;
    if (position > reader.length() || size > reader.length() - position ||
        !reader.setPosition(position) || !reader.getData(bytes, size)) {
        return std::nullopt;
    }
    return bytes;
}

// A data block when the flags mark the item binary, else UTF-8 text; none
// for malformed text.
std::optional<KROPropertyList> valueOfItem(KROData bytes, std::uint32_t flags) {
    if ((flags & 6) == 2) {
        return KROPropertyList(std::move(bytes));
    }
    std::string text(bytes.begin(), bytes.end());
    if (!kro::isValidUTF8(text)) {
        return std::nullopt;
    }
    return KROPropertyList(std::move(text));
}

} // namespace

void KROAudioFileContent::parseAPETagInFile(KROFileReader& reader) {
    const auto footer = readFooter(reader, fileSize());
    if (!footer || footer->tagSize > fileSize() ||
        !reader.setPosition(fileSize() - footer->tagSize)) {
        return;
    }
    const auto table = KROAudioMetadataTable::load();
    if (!table) {
        return;
    }
    for (std::uint32_t item = 0; item < footer->itemCount; ++item) {
        std::uint32_t size = 0;
        std::uint32_t flags = 0;
        std::uint64_t position = 0;
        if (!readLittleEndian32(reader, size) || !readLittleEndian32(reader, flags) ||
            !reader.getPosition(position)) {
            return;
        }
        const auto key = readKey(reader, position);
        if (!key) {
            return;
        }
        auto bytes = readValueBytes(reader, position + key->size() + 1, size);
        if (!bytes) {
            return;
        }
        const auto value = valueOfItem(std::move(*bytes), flags);
        for (const auto& entry : table->entries()) {
            const std::string* name = entry.nameForFormat("ape");
            if (value && ((name && *name == *key) || entry.key == *key)) {
                metadata().setObjectForKey(entry.key, *value);
            }
        }
    }
}
