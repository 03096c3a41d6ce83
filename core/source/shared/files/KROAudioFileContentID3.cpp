// ID3v2 tags of KROAudioFileContent: the reader of versions 2.2, 2.3 and 2.4
// and the writer of version 2.4.
#include <endian.h>

#include <algorithm>
#include <array>

#include "KROAudioFileChunk.h"
#include "KROAudioFileContent.h"
#include "KROAudioMetadataTable.h"
#include "KROLog.h"
#include "KROResources.h"
#include "KROStringHelpers.h"
#include "KROTextNumbers.h"

namespace {

constexpr std::uint64_t kTagHeaderLength = 10;

// How the frames of one version are laid out.
struct ID3FrameLayout {
    const char* format; // the table's name of the version
    std::size_t idLength;
    std::uint64_t headerLength;
    const char* pictureID;
    // Version 2.2 reads no UTF-16 text and reads pictures its own way.
    bool isVersion22;
    std::int64_t (*size)(const std::uint8_t* header);
};

std::uint32_t bigEndian32(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
}

std::uint32_t hostOrder32(const std::uint8_t* bytes) {
    std::uint32_t value = 0;
    std::copy_n(bytes, 4, reinterpret_cast<std::uint8_t*>(&value));
    return value;
}

const ID3FrameLayout kID3v22Layout = {
    "id3v22", 3, 6, "PIC", true, [](const std::uint8_t* header) -> std::int64_t {
        return std::int64_t{header[3]} << 16 | std::int64_t{header[4]} << 8 | header[5];
    }};
const ID3FrameLayout kID3v23Layout = {
    "id3v23", 4, 10, "APIC", false, [](const std::uint8_t* header) -> std::int64_t {
        return static_cast<std::int32_t>(bigEndian32(header + 4));
    }};
const ID3FrameLayout kID3v24Layout = {
    "id3v24", 4, 10, "APIC", false, [](const std::uint8_t* header) -> std::int64_t {
        return KROAudioFileContent::decodedID3TagSynchsafeValue(hostOrder32(header + 4));
    }};

// Exactly length bytes from position; false, before anything is allocated,
// when the file does not hold them.
bool readBytes(KROFileReader& reader, std::uint64_t position, std::uint64_t length,
               KROData& bytes) {
    const std::uint64_t fileLength = reader.length();
    if (position > fileLength || length > fileLength - position) {
        return false;
    }
    return reader.setPosition(position) && reader.getData(bytes, length);
}

// The text of a frame body after its encoding byte: 0 Latin-1, 1 UTF-16
// after a byte-order mark (big-endian without one), 3 UTF-8; none for
// anything else or malformed UTF-8. A terminator in the body is kept.
std::optional<std::string> textOfEncoding(std::uint8_t encoding, const std::uint8_t* bytes,
                                          std::size_t count, bool readsUTF16) {
    switch (encoding) {
    case 0:
        return kro::stringWithASCIIBytes(bytes, count);
    case 1: {
        if (!readsUTF16) {
            return std::nullopt;
        }
        KROData units(bytes, bytes + count);
        const bool littleEndian = count >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE;
        if (!littleEndian) {
            for (std::size_t i = 0; i + 1 < units.size(); i += 2) {
                std::swap(units[i], units[i + 1]);
            }
        }
        const bool hasMark = count >= 2 && units[0] == 0xFF && units[1] == 0xFE;
        const std::size_t skip = hasMark ? 2 : 0;
        return kro::stringWithUTF16LittleEndianBytes(units.data() + skip, units.size() - skip);
    }
    case 3: {
        std::string text(reinterpret_cast<const char*>(bytes), count);
        if (!kro::isValidUTF8(text)) {
            return std::nullopt;
        }
        return text;
    }
    default:
        return std::nullopt;
    }
}

// The picture of a 2.3 or 2.4 frame: after the encoding byte, the MIME type
// and its zero, the picture type, and the description and its zero (single
// zero bytes whatever the encoding), the rest of the body.
std::optional<KROPropertyList> pictureOfBody(const KROData& body) {
    const auto mimeEnd = std::find(body.begin() + std::min<std::size_t>(1, body.size()), body.end(),
                                   std::uint8_t{0});
    if (body.end() - mimeEnd < 2) {
        return std::nullopt;
    }
    const auto descriptionEnd = std::find(mimeEnd + 2, body.end(), std::uint8_t{0});
    if (body.end() - descriptionEnd < 2) {
        return std::nullopt;
    }
    return KROPropertyList(KROData(descriptionEnd + 1, body.end()));
}

// The picture of a 2.2 frame: past the encoding byte, the three-letter image
// format and the picture type, to the zero after the description, then as
// many bytes as the frame's size. Kept: the count is not reduced by what was
// skipped, so the picture carries bytes of what follows the frame, and a
// picture at a file's end gives none.
std::optional<KROPropertyList> pictureOfID3v22Frame(KROFileReader& reader, std::uint64_t frame,
                                                    std::int64_t size) {
    std::uint8_t byte = 1;
    if (!reader.setPosition(frame + 11)) {
        return std::nullopt;
    }
    while (byte != 0) {
        if (!reader.getCharValue(byte)) {
            return std::nullopt;
        }
    }
    std::uint64_t position = 0;
    KROData picture;
    if (!reader.getPosition(position) || !readBytes(reader, position, size, picture)) {
        return std::nullopt;
    }
    return KROPropertyList(std::move(picture));
}

// The value of one frame, or none.
std::optional<KROPropertyList> valueOfFrame(KROFileReader& reader, const ID3FrameLayout& layout,
                                            std::string_view identifier, std::uint64_t frame,
                                            std::int64_t size) {
    const bool isPicture = identifier == layout.pictureID;
    if (isPicture && layout.isVersion22) {
        return pictureOfID3v22Frame(reader, frame, size);
    }
    KROData body;
    if (!readBytes(reader, frame + layout.headerLength, size, body)) {
        return std::nullopt;
    }
    if (isPicture) {
        return pictureOfBody(body);
    }
    if (body.size() < 2) {
        return std::nullopt;
    }
    auto text = textOfEncoding(body[0], body.data() + 1, body.size() - 1, !layout.isVersion22);
    if (!text || text->empty()) {
        return std::nullopt;
    }
    return KROPropertyList(std::move(*text));
}

// Stores the value under the key of every entry that names the frame for
// this version, or whose key is the frame's identifier.
void storeFrameValue(KROPropertyList& metadata, const KROAudioMetadataTable& table,
                     const ID3FrameLayout& layout, std::string_view identifier,
                     const KROPropertyList& value) {
    for (const auto& entry : table.entries()) {
        const std::string* name = entry.nameForFormat(layout.format);
        if (!(name && *name == identifier) && entry.key != identifier) {
            continue;
        }
        KROPropertyList stored = value;
        if (const std::string* text = value.stringValue()) {
            if (entry.key == "genre") {
                stored = KROAudioFileContent::genreStringForID3GenreNumber(*text);
            }
            if (entry.isReal) {
                stored = kro::doubleValue(*stored.stringValue());
            }
        }
        metadata.setObjectForKey(entry.key, std::move(stored));
    }
}

// Walks the frames of the tag at position into metadata.
void walkID3Frames(KROFileReader& reader, std::uint64_t position, const ID3FrameLayout& layout,
                   KROPropertyList& metadata) {
    std::uint32_t rawSize = 0;
    if (!reader.setPosition(position + 6) || !reader.getUnsignedIntValue(rawSize)) {
        return;
    }
    const auto table = KROAudioMetadataTable::load();
    if (!table) {
        return;
    }
    // Kept: the end counts the size from the tag's start, not from the end
    // of its header, so the last ten bytes of a tag are never visited.
    const std::uint64_t end = position + KROAudioFileContent::decodedID3TagSynchsafeValue(rawSize);
    for (std::uint64_t frame = position + kTagHeaderLength; frame < end;) {
        KROData header;
        if (!readBytes(reader, frame, layout.headerLength, header)) {
            return;
        }
        const auto idEnd = header.begin() + static_cast<std::ptrdiff_t>(layout.idLength);
        if (std::all_of(header.begin(), idEnd, [](std::uint8_t byte) { return byte == 0; })) {
            return;
        }
        const std::string identifier = kro::stringWithASCIIBytes(header.data(), layout.idLength);
        const std::int64_t size = layout.size(header.data());
        if (size <= 0) {
            frame += layout.headerLength;
            continue;
        }
        if (auto value = valueOfFrame(reader, layout, identifier, frame, size)) {
            storeFrameValue(metadata, *table, layout, identifier, *value);
        }
        frame += static_cast<std::uint64_t>(size) + layout.headerLength;
    }
}

// The ID3 names of the frames that go out with an empty body.
bool isWrittenEmpty(std::string_view name) {
    return name == "COMM" || name == "TCOP" || name == "TCON";
}

void appendFrameBody(KROAudioFileChunk& chunk, std::string_view name,
                     const KROPropertyList& value) {
    if (isWrittenEmpty(name)) {
        // Kept: these frames have always gone out empty, and tools that
        // read the files written so far expect nothing else.
        return;
    }
    if (name == "APIC") {
        static constexpr char kPictureHeader[] = "\0image/jpeg\0\0";
        chunk.appendBytes(kPictureHeader, sizeof kPictureHeader);
        if (const KROData* picture = value.dataValue()) {
            chunk.appendData(*picture);
        }
        return;
    }
    // Kept: the encoding byte says UTF-8 but the text goes out as lossy ASCII.
    chunk.appendByte(3);
    chunk.appendAsCString(&value, false);
}

std::size_t dataLengthOf(const KROAudioFileChunk& chunk) {
    return chunk.data() ? chunk.data()->size() : 0;
}

} // namespace

std::uint32_t KROAudioFileContent::decodedID3TagSynchsafeValue(std::uint32_t value) {
    const std::uint32_t big = htobe32(value);
    return (big >> 24 & 0x7F) << 21 | (big >> 16 & 0x7F) << 14 | (big >> 8 & 0x7F) << 7 |
           (big & 0x7F);
}

std::uint32_t KROAudioFileContent::encodedID3TagSynchsafeValue(std::uint32_t value) {
    return (value & 0x7F) | (value << 1 & 0x7F00) | (value << 2 & 0x7F0000) |
           (value << 3 & 0x7F000000);
}

std::string KROAudioFileContent::genreStringForID3GenreNumber(std::string_view genre) {
    constexpr std::string_view trimmed("()\0", 3);
    const bool isNumber = std::all_of(genre.begin(), genre.end(), [](char c) {
        return (c >= '0' && c <= '9') || c == '(' || c == ')' || c == '\0';
    });
    if (!isNumber) {
        return std::string(genre);
    }
    const std::size_t first = genre.find_first_not_of(trimmed);
    const std::string_view number =
        first == std::string_view::npos
            ? std::string_view()
            : genre.substr(first, genre.find_last_not_of(trimmed) - first + 1);
    const std::int64_t index = kro::integerValue(number);
    const auto genres = KROPropertyList::fromFile(KROResourcePath("ID3Genres.plist"));
    const KROPropertyList* name =
        genres && index >= 0 ? genres->objectAtIndex(static_cast<std::size_t>(index)) : nullptr;
    if (!name || !name->stringValue()) {
        return std::string(genre);
    }
    return *name->stringValue();
}

void KROAudioFileContent::parseID3TagInFile(KROFileReader& reader, std::uint64_t position) {
    std::array<std::uint8_t, 4> header{};
    std::size_t length = header.size();
    if (!reader.setPosition(position) || !reader.getBuffer(header.data(), &length) ||
        header[0] != 'I' || header[1] != 'D' || header[2] != '3') {
        return;
    }
    switch (header[3]) {
    case 2:
        parseID3v22Tag(reader, position);
        break;
    case 3:
        parseID3v23Tag(reader, position);
        break;
    case 4:
        parseID3v24Tag(reader, position);
        break;
    default:
        KROLog("found ID3v2%c header", static_cast<char>('0' + header[3]));
        break;
    }
}

void KROAudioFileContent::parseID3v22Tag(KROFileReader& reader, std::uint64_t position) {
    walkID3Frames(reader, position, kID3v22Layout, metadata());
}

void KROAudioFileContent::parseID3v23Tag(KROFileReader& reader, std::uint64_t position) {
    walkID3Frames(reader, position, kID3v23Layout, metadata());
}

void KROAudioFileContent::parseID3v24Tag(KROFileReader& reader, std::uint64_t position) {
    walkID3Frames(reader, position, kID3v24Layout, metadata());
}

bool KROAudioFileContent::hasID3Metadata() const {
    const auto table = KROAudioMetadataTable::load();
    if (!table) {
        return false;
    }
    return std::any_of(table->entries().begin(), table->entries().end(), [this](const auto& entry) {
        return entry.nameForFormat("id3v24") && metadata().objectForKey(entry.key);
    });
}

void KROAudioFileContent::appendID3ToChunk(KROAudioFileChunk& chunk) const {
    const std::size_t tagStart = dataLengthOf(chunk);
    chunk.appendString("ID3");
    chunk.appendByte(4);
    chunk.appendByte(0);
    chunk.appendByte(0);
    chunk.appendInt(0);
    if (const auto table = KROAudioMetadataTable::load()) {
        for (const auto& entry : table->entries()) {
            const std::string* name = entry.nameForFormat("id3v24");
            const KROPropertyList* value = metadata().objectForKey(entry.key);
            if (!name || !value) {
                continue;
            }
            const std::size_t frameStart = dataLengthOf(chunk);
            chunk.appendString(*name);
            chunk.appendInt(0);
            chunk.appendShort(0);
            appendFrameBody(chunk, *name, *value);
            const std::uint32_t frameSize = htobe32(encodedID3TagSynchsafeValue(
                static_cast<std::uint32_t>(dataLengthOf(chunk) - frameStart - kTagHeaderLength)));
            chunk.replaceBytesInRange(frameStart + 4, 4, &frameSize);
        }
    }
    // Kept: the tag's size goes out in the chunk's byte order, little-endian
    // in WAVE, and files in circulation carry it so.
    chunk.replaceIntAtPosition(
        tagStart + 6,
        static_cast<std::int32_t>(encodedID3TagSynchsafeValue(
            static_cast<std::uint32_t>(dataLengthOf(chunk) - tagStart - kTagHeaderLength))));
}
