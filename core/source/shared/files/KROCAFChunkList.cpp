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
    const KROAudioFileChunk file = fileAsChunk(reader, KROAudioFileChunk::bigEndian);
    std::uint64_t position = kFirstChunk;
    for (std::size_t headers = 0; headers < maximumChunkCount; ++headers) {
        const std::uint32_t type = file.fourCharCodeAtPosition(position);
        const std::int64_t storedSize = file.longLongValueAtPosition(position + 4);
        if (!isChunkTypeValid(type)) {
            return true;
        }
        const std::uint64_t rest =
            fileLength > position + kHeaderSize ? fileLength - position - kHeaderSize : 0;
        const std::uint64_t size = storedSize == -1 ? rest : static_cast<std::uint64_t>(storedSize);
        if (type != kro::fourCC("JUNK") && type != kro::fourCC("free")) {
            // A chunk of type 'uuid' holds its identity before its data.
            const std::uint64_t identity = type == kUUIDType ? kUUIDSize : 0;
            const auto chunk =
                keepChunk(reader, type, KROAudioFileChunk::bigEndian, position,
                          position + kHeaderSize + identity, size - std::min(size, identity));
            chunk->setUsesLongLongSizes(true);
            if (type == kUUIDType) {
                KROUUID uuid{};
                if (const auto bytes = file.dataAtPosition(position + kHeaderSize, kUUIDSize)) {
                    std::copy(bytes->begin(), bytes->end(), uuid.begin());
                }
                chunk->setUUID(uuid);
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
    return true;
}

std::shared_ptr<KROAudioFileChunk> KROCAFChunkList::chunkWithUUID(const KROUUID& uuid) const {
    return firstChunk([&](const KROAudioFileChunk& chunk) {
        return chunk.type() == kUUIDType && chunk.uuid() == uuid;
    });
}
