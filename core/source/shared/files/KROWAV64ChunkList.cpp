#include "KROWAV64ChunkList.h"

#include "KROClassRegistry.h"
#include "KROFileReader.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROWAV64ChunkList, KROAudioFileChunkList)

namespace {

// The 16-byte identifier and the 64-bit size.
constexpr std::uint64_t kHeaderSize = 24;
// Past the riff identifier, the file size and the wave identifier.
constexpr std::uint64_t kFirstChunk = 40;
constexpr std::uint64_t kAlignment = 8;

} // namespace

bool KROWAV64ChunkList::initWithFileReader(KROFileReader& reader, KROErrorPtr* error) {
    KROAudioFileChunkList::initWithFileReader(reader, error);
    const std::uint64_t fileLength = reader.length();
    const std::uint64_t end = fileLength > kHeaderSize ? fileLength - kHeaderSize : 0;
    const KROAudioFileChunk file = fileAsChunk(reader, KROAudioFileChunk::littleEndian);
    std::uint64_t position = kFirstChunk;
    for (std::size_t headers = 0; headers < maximumChunkCount; ++headers) {
        const std::uint32_t code = file.fourCharCodeAtPosition(position);
        const auto size = static_cast<std::uint64_t>(file.longLongValueAtPosition(position + 16));
        // A size counts the header, so a smaller one is no chunk, and one of
        // 0 would hold the walk in place for ever.
        if (size < kHeaderSize) {
            return true;
        }
        if (code != 0 && code != kro::fourCC("JUNK")) {
            const auto chunk = keepChunk(reader, code, KROAudioFileChunk::littleEndian, position,
                                         position + kHeaderSize, size - kHeaderSize);
            chunk->setByteCountMultiple(kAlignment);
            chunk->setUsesLongLongSizes(true);
            chunk->setSizeIncludesNameAndSize(true);
        }
        if (size > ~std::uint64_t{0} - position - (kAlignment - 1)) {
            return true;
        }
        position = (position + size + kAlignment - 1) / kAlignment * kAlignment;
        if (position >= end) {
            return true;
        }
    }
    return true;
}
