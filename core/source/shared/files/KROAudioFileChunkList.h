// The chunks of one file, in file order. Each subclass walks its container
// once (KROWAVEChunkList, KROAIFFChunkList, KROWAV64ChunkList,
// KROCAFChunkList) and keeps one KROAudioFileChunk per chunk worth keeping.
// A walk never fails: a damaged file gives a short or empty list, and the
// handler's search for the chunk it needs reports the problem. The chunks
// point at the reader without owning it, so the list must not outlive it.
//
// The searches that C++ could not tell apart by their arguments join their
// keywords: chunkOfType:chunkID: is chunkOfTypeChunkID, chunkOfType:name: is
// chunkOfTypeName.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KROAudioFileChunk.h"

class KROAudioFileChunkList : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFileChunkList)

public:
    using Chunks = std::vector<std::shared_ptr<KROAudioFileChunk>>;

    // A walk reads at most this many chunk headers and stops there. No audio
    // file comes near it; a hostile file of millions of tiny chunks costs no
    // more time or memory than this many.
    static constexpr std::size_t maximumChunkCount = std::size_t{1} << 16;

    KROAudioFileChunkList() = default;

    // The base class keeps an empty list; each subclass walks the file from
    // its start. Always succeeds.
    virtual bool initWithFileReader(KROFileReader& reader, KROErrorPtr* error = nullptr);

    const Chunks& list() const { return list_; }
    Chunks& list() { return list_; }
    bool hasChunks() const { return !list_.empty(); }

    // The first chunk of the type (and identifier, or name), or null.
    std::shared_ptr<KROAudioFileChunk> chunkOfType(std::uint32_t type) const;
    std::shared_ptr<KROAudioFileChunk> chunkOfTypeChunkID(std::uint32_t type,
                                                          std::int16_t chunkID) const;
    std::shared_ptr<KROAudioFileChunk> chunkOfTypeName(std::uint32_t type,
                                                       std::string_view name) const;

    // All four bytes of the code are printable ASCII (0x20 to 0x7E).
    static bool isChunkTypeValid(std::uint32_t type);

    // The descriptions of the chunks, one a line, in parentheses.
    std::string description() const override;

protected:
    // The first chunk that passes the test, or null.
    template <typename Test> std::shared_ptr<KROAudioFileChunk> firstChunk(Test test) const {
        const auto found = std::find_if(list_.begin(), list_.end(),
                                        [&](const auto& chunk) { return test(*chunk); });
        return found == list_.end() ? nullptr : *found;
    }

    // The whole file seen as one chunk in the container's byte order, so
    // that a walk reads its headers with the bounds and order of chunks.
    static KROAudioFileChunk fileAsChunk(KROFileReader& reader, std::int64_t byteOrder);

    // Adds a chunk read from the reader and answers it, for the walk to set
    // what else its container says.
    std::shared_ptr<KROAudioFileChunk> keepChunk(KROFileReader& reader, std::uint32_t type,
                                                 std::int64_t byteOrder, std::uint64_t location,
                                                 std::uint64_t dataLocation,
                                                 std::uint64_t dataLength);

    // The walk shared by RIFF (WAVE) and IFF (AIFF) files, whose chunks have
    // a four-character code and a 32-bit size in the file's byte order.
    struct FormWalkRules {
        std::int64_t byteOrder;
        // Whether a chunk of size 0 is kept.
        bool keepsEmptyChunks;
        // A chunk of this type with a size under 4 is dropped.
        std::uint32_t typeNeedingFourBytes;
    };
    void walkForm(KROFileReader& reader, const FormWalkRules& rules);

private:
    Chunks list_;
};
