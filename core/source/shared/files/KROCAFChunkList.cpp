#include "KROCAFChunkList.h"

#include "KROClassRegistry.h"
#include "KROFileReader.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROCAFChunkList, KROAudioFileChunkList)

namespace {

constexpr std::uint32_t kUUIDType = kro::fourCC("uuid");
// The code and the 64-bit size.
constexpr std::uint64_t kHeaderSize = 12;
constexpr std::uint64_t kUUIDSize = 16;
// Past the 'caff' code, the version and the flags.
constexpr std::uint64_t kFirstChunk = 8;

} // namespace

bool KROCAFChunkList::initWithFileReader(KROFileReader& reader, KROErrorPtr* error) {
    KROAudioFileChunkList::initWithFileReader(reader, error);
    const std::uint64_t fileLength = reader.length();
    const std::uint64_t end = fileLength > kHeaderSize ? fileLength - kHeaderSize : 0;
    KROAudioFileChunk file;
    file.setFile(&reader);
    file.setByteOrder(KROAudioFileChunk::bigEndian);
    file.setDataLength(fileLength);
    std::uint64_t position = kFirstChunk;
    for (;;) {
        const std::uint32_t type = file.fourCharCodeAtPosition(position);
        const std::int64_t storedSize = file.longLongValueAtPosition(position + 4);
        if (!isChunkTypeValid(type)) {
            return true;
        }
        const std::uint64_t rest =
            fileLength > position + kHeaderSize ? fileLength - position - kHeaderSize : 0;
        const std::uint64_t size = storedSize == -1 ? rest : static_cast<std::uint64_t>(storedSize);
        if (type != kro::fourCC("JUNK") && type != kro::fourCC("free")) {
            auto chunk = std::make_shared<KROAudioFileChunk>();
            chunk->setFile(&reader);
            chunk->setType(type);
            chunk->setByteOrder(KROAudioFileChunk::bigEndian);
            chunk->setUsesLongLongSizes(true);
            chunk->setLocation(position);
            if (type == kUUIDType) {
                KROUUID uuid{};
                if (const auto bytes = file.dataAtPosition(position + kHeaderSize, kUUIDSize)) {
                    std::copy(bytes->begin(), bytes->end(), uuid.begin());
                }
                chunk->setUUID(uuid);
                chunk->setDataLocation(position + kHeaderSize + kUUIDSize);
                chunk->setDataLength(size >= kUUIDSize ? size - kUUIDSize : 0);
            } else {
                chunk->setDataLocation(position + kHeaderSize);
                chunk->setDataLength(size);
            }
            if (!keep(std::move(chunk))) {
                return true;
            }
        }
        if (size > ~std::uint64_t{0} - position - kHeaderSize) {
            return true;
        }
        position += kHeaderSize + size;
        if (position >= end) {
            return true;
        }
    }
}

std::shared_ptr<KROAudioFileChunk> KROCAFChunkList::chunkWithUUID(const KROUUID& uuid) const {
    for (const auto& chunk : list()) {
        if (chunk->type() == kUUIDType && chunk->uuid() == uuid) {
            return chunk;
        }
    }
    return nullptr;
}
