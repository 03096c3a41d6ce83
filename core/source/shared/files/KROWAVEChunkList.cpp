#include "KROWAVEChunkList.h"

#include "KROClassRegistry.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROWAVEChunkList, KROAudioFileChunkList)

bool KROWAVEChunkList::initWithFileReader(KROFileReader& reader, KROErrorPtr* error) {
    KROAudioFileChunkList::initWithFileReader(reader, error);
    walkForm(reader, {KROAudioFileChunk::littleEndian, false, kro::fourCC("LIST")});
    return true;
}

std::shared_ptr<KROAudioFileChunk>
KROWAVEChunkList::chunkOfTypeSubtype(std::uint32_t type, std::uint32_t subtype) const {
    return firstChunk([&](const KROAudioFileChunk& chunk) {
        return chunk.type() == type && chunk.fourCharCodeAtPosition(0) == subtype;
    });
}
