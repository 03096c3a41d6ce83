// The chunks of an AIFF or AIFC file: a four-character code and a 32-bit
// big-endian size each, from offset 12. Chunks of size 0 are kept (an empty
// SSND is a file with no frames); JUNK, free and APPL chunks too short for
// their signature are not. Odd chunks are found whether padded or not.
#pragma once

#include "KROAudioFileChunkList.h"

class KROAIFFChunkList : public KROAudioFileChunkList {
    KRO_DECLARE_CLASS(KROAIFFChunkList)

public:
    bool initWithFileReader(KROFileReader& reader, KROErrorPtr* error = nullptr) override;
};
