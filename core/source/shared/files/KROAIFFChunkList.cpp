#include "KROAIFFChunkList.h"

#include "KROClassRegistry.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAIFFChunkList, KROAudioFileChunkList)

bool KROAIFFChunkList::initWithFileReader(KROFileReader& reader, KROErrorPtr* error) {
    KROAudioFileChunkList::initWithFileReader(reader, error);
    walkForm(reader, {KROAudioFileChunk::bigEndian, true, kro::fourCC("APPL")});
    return true;
}
