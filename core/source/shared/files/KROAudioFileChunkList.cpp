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
    for (const auto& chunk : list_) {
        if (chunk->type() == type) {
            return chunk;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioFileChunk>
KROAudioFileChunkList::chunkOfTypeChunkID(std::uint32_t type, std::int16_t chunkID) const {
    for (const auto& chunk : list_) {
        if (chunk->type() == type && chunk->chunkID() == chunkID) {
            return chunk;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioFileChunk>
KROAudioFileChunkList::chunkOfTypeName(std::uint32_t type, std::string_view name) const {
    for (const auto& chunk : list_) {
        if (chunk->type() == type && chunk->name() == name) {
            return chunk;
        }
    }
    return nullptr;
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

bool KROAudioFileChunkList::keep(std::shared_ptr<KROAudioFileChunk> chunk) {
    if (list_.size() >= maximumChunkCount) {
        return false;
    }
    list_.push_back(std::move(chunk));
    return true;
}

void KROAudioFileChunkList::walkForm(KROFileReader& reader, const FormWalkRules& rules) {
    const std::uint64_t fileLength = reader.length();
    // The whole file seen as one chunk, so that the walk reads its headers
    // with the chunk's bounds and byte order.
    KROAudioFileChunk file;
    file.setFile(&reader);
    file.setByteOrder(rules.byteOrder);
    file.setDataLength(fileLength);
    const std::uint64_t formSize = static_cast<std::uint32_t>(file.intValueAtPosition(4));
    const std::uint64_t limit = std::min(formSize, fileLength >= 8 ? fileLength - 8 : 0);
    // The form type at offset 8 is not looked at.
    std::uint64_t position = 12;
    std::uint64_t previousSize = 0;
    bool retrying = false;
    for (;;) {
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
            auto chunk = std::make_shared<KROAudioFileChunk>();
            chunk->setFile(&reader);
            chunk->setType(type);
            chunk->setByteOrder(rules.byteOrder);
            chunk->setByteCountMultiple(2);
            chunk->setLocation(position);
            chunk->setDataLocation(position + kHeaderSize);
            chunk->setDataLength(size);
            if (!keep(std::move(chunk))) {
                return;
            }
        }
        position += size + kHeaderSize;
        previousSize = size;
        retrying = false;
        if (position >= limit) {
            return;
        }
    }
}
