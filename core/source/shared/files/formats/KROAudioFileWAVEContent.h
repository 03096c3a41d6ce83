// The handler of RIFF WAVE files: integer samples of 8 (unsigned) to 32
// bits, 32- and 64-bit floats, and mu-law, with the labels of the cue,
// adtl, smpl and strc chunks and the metadata of the bext, inst, acid,
// LIST INFO, axml and cart chunks. Files are always written as classic
// RIFF with 32-bit sizes, so no file passes 4 GiB.
//
// Reading is lenient: a damaged optional chunk leaves its keys out and
// never fails the parse; only a missing 'fmt ' (code 1), an unknown format
// tag (2) and a missing or empty 'data' chunk (3) do. Writing consumes the
// metadata keys it writes, as the frame allows, and refuses a file whose
// samples or total size would pass 32 bits (4).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "KROAudioFileChunkList.h"
#include "KROAudioFileContent.h"

class KROAudioFileChunk;
class KROWAVEChunkList;

class KROAudioFileWAVEContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileWAVEContent)

public:
    // lpcm, little-endian samples.
    KROAudioFileWAVEContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose first four bytes are "RIFF"; the form type is
    // not looked at, so that a RIFF file of another kind is reported by
    // parse rather than passed to a later handler.
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Forces 8 bits for mu-law and 32 for floats, then writes the header,
    // the metadata chunks and the header of 'data'.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Pads odd sample data, patches the sizes and appends 'acid' and 'strc'.
    bool endWrite(KROErrorPtr* error = nullptr) override;

    // Appends one text entry of a LIST chunk (the code, its size and the
    // value as a padded C string; a value that is not a string as its
    // description) and removes the key from metadata. False when the key is
    // absent.
    bool appendMetadataOfType(std::uint32_t type, std::string_view key, KROAudioFileChunk& chunk);

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
    // Empties the chunk and gives it the code; Wave64 adds its identifier.
    virtual void startChunk(KROAudioFileChunk& chunk, std::uint32_t code) const;

    // ---- The chunks that Wave64 files share; they call startChunk.
    bool readFormatChunk(const KROAudioFileChunk& chunk, KROErrorPtr* error);
    // How a RIFF or Wave64 file starts to parse: the format chunk, the audio
    // chunk and the length in frames, then every other chunk small enough to
    // hold in memory loaded.
    bool readFormatAndAudioData(const KROAudioFileChunkList& chunks, KROErrorPtr* error);
    void readSamplerChunk(const KROAudioFileChunk& chunk);
    void readAcidChunk(const KROAudioFileChunk& chunk);
    void readSliceChunk(const KROAudioFileChunk& chunk);
    void readBroadcastChunk(const KROAudioFileChunk& chunk);
    bool writeFormatChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeIXMLChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeBroadcastChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeSamplerChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeAcidChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeSliceChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);

private:
    // ---- Reading, one chunk each; the chunk list gives what they need.
    void readInstrumentChunk(const KROAudioFileChunk& chunk);
    void readCueChunk(const KROAudioFileChunk& chunk);
    void readLabelTexts(const KROAudioFileChunk& list);
    void readCartChunk(const KROAudioFileChunk& chunk);
    void readEBUChunk(const KROAudioFileChunk& chunk);
    void readInfoList(const KROAudioFileChunk& list);

    // ---- Writing, one chunk each; false only when the file write fails.
    bool writeID3Chunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeInstrumentChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeCueChunks(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeInfoList(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeEBUChunk(KROAudioFileChunk& chunk, KROErrorPtr* error);
};
