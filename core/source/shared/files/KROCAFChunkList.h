// The chunks of a CAF file: a four-character code and a 64-bit big-endian
// size each, from offset 8. A size of -1 runs to the end of the file (an
// audio chunk written by a recorder that never came back to patch it). A
// chunk of type 'uuid' carries its 16-byte identity before its data. The
// walk ends at the first code that is not printable.
#pragma once

#include "KROAudioFileChunkList.h"

class KROCAFChunkList : public KROAudioFileChunkList {
    KRO_DECLARE_CLASS(KROCAFChunkList)

public:
    bool initWithFileReader(KROFileReader& reader, KROErrorPtr* error = nullptr) override;

    // The first chunk of type 'uuid' with that identity.
    std::shared_ptr<KROAudioFileChunk> chunkWithUUID(const KROUUID& uuid) const;
};
