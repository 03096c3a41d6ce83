// The chunks of a Wave64 file: a 16-byte identifier, of which the first four
// bytes name the chunk, and a 64-bit little-endian size that counts the
// 24-byte header; chunks start on multiples of 8. The walk starts past the
// riff and wave identifiers at offset 40, keeps every chunk but JUNK and
// those with a zero code, and ends at a size too small to hold the header,
// which would otherwise not advance.
#pragma once

#include "KROAudioFileChunkList.h"

class KROWAV64ChunkList : public KROAudioFileChunkList {
    KRO_DECLARE_CLASS(KROWAV64ChunkList)

public:
    bool initWithFileReader(KROFileReader& reader, KROErrorPtr* error = nullptr) override;
};
