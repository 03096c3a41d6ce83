#include "KROAudioFileChunkList.h"

#include "KROClassRegistry.h"
#include "KROFileReader.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileChunkList, KROObject)

namespace {

constexpr std::uint32_t kJunkType = kro::fourCC("JUNK");
constexpr std::uint32_t kFreeType = kro::fourCC("free");
// A chunk header: a four-character code and a 32-bit size.
constexpr std::uint64_t kHeaderSize = 8;

} // namespace

bool KROAudioFileChunkList::initWithFileReader(KROFileReader&, KROErrorPtr*) {
    list_.clear();
    return true;
}

std::shared_ptr<KROAudioFileChunk> KROAudioFileChunkList::chunkOfType(std::uint32_t type) const {
    return firstChunk([type](const KROAudioFileChunk& chunk) { return chunk.type() == type; });
}

std::shared_ptr<KROAudioFileChunk>
KROAudioFileChunkList::chunkOfTypeChunkID(std::uint32_t type, std::int16_t chunkID) const {
    return firstChunk([&](const KROAudioFileChunk& chunk) {
        return chunk.type() == type && chunk.chunkID() == chunkID;
    });
}

std::shared_ptr<KROAudioFileChunk>
KROAudioFileChunkList::chunkOfTypeName(std::uint32_t type, std::string_view name) const {
    return firstChunk([&](const KROAudioFileChunk& chunk) {
        return chunk.type() == type && chunk.name() == name;
    });
}

bool KROAudioFileChunkList::isChunkTypeValid(std::uint32_t type) {
    for (int shift = 0; shift < 32; shift += 8) {
        const std::uint32_t byte = (type >> shift) & 0xFF;
        if (byte < 0x20 || byte > 0x7E) {
            return false;
        }
    }
    return true;
}

std::string KROAudioFileChunkList::description() const {
    std::string text = "(";
    for (std::size_t i = 0; i < list_.size(); ++i) {
        text += (i == 0 ? "\n    " : ",\n    ") + list_[i]->description();
    }
    return text + "\n)";
}

KROAudioFileChunk KROAudioFileChunkList::fileAsChunk(KROFileReader& reader,
                                                     std::int64_t byteOrder) {
    KROAudioFileChunk file;
    file.setFile(&reader);
    file.setByteOrder(byteOrder);
    file.setDataLength(reader.length());
    return file;
}

std::shared_ptr<KROAudioFileChunk>
KROAudioFileChunkList::keepChunk(KROFileReader& reader, std::uint32_t type, std::int64_t byteOrder,
                                 std::uint64_t location, std::uint64_t dataLocation,
                                 std::uint64_t dataLength) {
    auto chunk = std::make_shared<KROAudioFileChunk>();
    chunk->setFile(&reader);
    chunk->setType(type);
    chunk->setByteOrder(byteOrder);
    chunk->setLocation(location);
    chunk->setDataLocation(dataLocation);
    chunk->setDataLength(dataLength);
    list_.push_back(chunk);
    return chunk;
}

void KROAudioFileChunkList::walkForm(KROFileReader& reader, const FormWalkRules& rules) {
    const std::uint64_t fileLength = reader.length();
    const KROAudioFileChunk file = fileAsChunk(reader, rules.byteOrder);
    const std::uint64_t formSize = static_cast<std::uint32_t>(file.intValueAtPosition(4));
    const std::uint64_t limit = std::min(formSize, fileLength >= 8 ? fileLength - 8 : 0);
    // The form type at offset 8 is not looked at.
    std::uint64_t position = 12;
    std::uint64_t previousSize = 0;
    bool retrying = false;
    for (std::size_t headers = 0; headers < maximumChunkCount; ++headers) {
        const std::uint32_t type = file.fourCharCodeAtPosition(position);
        const std::uint64_t size =
            static_cast<std::uint32_t>(file.intValueAtPosition(position + 4));
        // Kept: data may run up to 7 bytes past the end of the file.
        const bool acceptable = isChunkTypeValid(type) && position + size < fileLength;
        if (!acceptable) {
            // The chunk before was odd and its pad byte may be missing, or
            // present: the walk steps by sizes alone and tries one byte on.
            if (previousSize % 2 != 0 && !retrying) {
                ++position;
                retrying = true;
                continue;
            }
            return;
        }
        const bool dropped = type == kJunkType || type == kFreeType ||
                             (size == 0 && !rules.keepsEmptyChunks) ||
                             (type == rules.typeNeedingFourBytes && size < 4);
        if (!dropped) {
            keepChunk(reader, type, rules.byteOrder, position, position + kHeaderSize, size)
                ->setByteCountMultiple(2);
        }
        position += size + kHeaderSize;
        previousSize = size;
        retrying = false;
        if (position >= limit) {
            return;
        }
    }
}
