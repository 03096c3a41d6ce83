// The handler of AIFF and AIFC files: big-endian integers of 8 to 32 bits,
// little-endian ('sowt') integers, 32-bit floats and mu- and A-law, with
// markers, loops and regions (MARK, INST and an 'auFM' application chunk),
// the loop-file chunks basc, trns, cate and coll, the text chunks, ID3 and
// iXML. Written files are plain AIFF, or AIFC when the samples are floats or
// little-endian; little-endian is written only at 16 bits.
//
// Reading fails only without 'COMM' (code 1), with a compression type it
// does not know (2), without 'SSND' (3) and with zero channels, depth or
// rate (5); a damaged optional chunk leaves its labels or keys out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "KROAudioFileContent.h"

class KROAudioFileChunk;
class KROAudioFileChunkList;

class KROAudioFileAIFFContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileAIFFContent)

public:
    // lpcm, big-endian samples.
    KROAudioFileAIFFContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose first four bytes are "FORM", whatever its form type.
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Forces big-endian samples at any depth but 16, then writes the header,
    // the label and metadata chunks and the header of 'SSND'.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Pads odd sample data and patches the sizes and the frame count.
    bool endWrite(KROErrorPtr* error = nullptr) override;

    // Stores the whole text of the first chunk of the code under the key,
    // when that chunk holds any.
    void parseMetadataChunk(std::uint32_t code, std::string_view key,
                            const KROAudioFileChunkList& chunks);

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
    // Integers are signed at every depth, 8 bits included.
    AudioFormatFlags audioDataFormatFlags() const override;

private:
    bool readCommonChunk(const KROAudioFileChunk& chunk, KROErrorPtr* error);
    void readMarkerChunk(const KROAudioFileChunk& chunk);
    void readRegionApplicationChunk(const KROAudioFileChunk& chunk);
    void readInstrumentChunk(const KROAudioFileChunk& chunk);
    void readBasicsChunk(const KROAudioFileChunk& chunk);
    void readTransientChunk(const KROAudioFileChunk& chunk);
    void readCategoryChunk(const KROAudioFileChunk& chunk);
    void readCollectionChunk(const KROAudioFileChunk& chunk);
    void readCommentChunk(const KROAudioFileChunk& chunk);

    bool isAIFC() const;
    bool writeCommonChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeInstrumentChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeMarkerChunks(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeBasicsChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeTransientChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeCategoryChunks(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeTextChunks(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeTagChunks(KROAudioFileChunk& chunk, KROErrorPtr* error);

    // Where the frame count of 'COMM' lies, patched by endWrite.
    std::uint64_t sampleCountPosition_ = 0;
};
