// The chunks of a RIFF WAVE file: a four-character code and a 32-bit
// little-endian size each, from offset 12. Chunks of size 0, JUNK, free and
// LIST chunks too short for their list type are not kept. An odd-sized chunk
// is followed by a pad byte in most files and not in some; the walk finds the
// next chunk either way.
#pragma once

#include "KROAudioFileChunkList.h"

class KROWAVEChunkList : public KROAudioFileChunkList {
    KRO_DECLARE_CLASS(KROWAVEChunkList)

public:
    bool initWithFileReader(KROFileReader& reader, KROErrorPtr* error = nullptr) override;

    // The first chunk of the type whose first four data bytes are the
    // subtype: a LIST chunk of INFO or adtl entries.
    std::shared_ptr<KROAudioFileChunk> chunkOfTypeSubtype(std::uint32_t type,
                                                          std::uint32_t subtype) const;
};
