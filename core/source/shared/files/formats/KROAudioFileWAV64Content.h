// The handler of Wave64 files: the samples, labels and metadata of WAVE in
// a container of 16-byte chunk identifiers and 64-bit sizes, so with no
// 4 GiB limit. The format, sampler, acid, slice, broadcast and iXML chunks
// have the bodies of their WAVE forms; markers and regions live in a marker
// list and the texts in a summary list, both in UTF-16, so that names need
// not be ASCII. Broadcast and summary dates read back as text.
//
// Reading fails only without 'fmt ' (code 1), with an unknown format tag (2)
// and without 'data' (3); a damaged optional chunk leaves its keys out.
#pragma once

#include "KROAudioFileWAVEContent.h"

class KROAudioFileWAV64Content : public KROAudioFileWAVEContent {
    KRO_DECLARE_CLASS(KROAudioFileWAV64Content)

public:
    std::string format() const override;
    std::string extension() const override;
    // An existing file named ".w64" (in any case) whose first four bytes are "riff".
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    // Forces 8 bits for mu-law and 32 for floats, then writes the header,
    // the label and metadata chunks and the header of 'data'.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    // Pads the samples to a multiple of 8, patches the sizes and appends
    // the acid and slice chunks.
    bool endWrite(KROErrorPtr* error = nullptr) override;

    // Appends one summary list entry for the key (its code, the byte length
    // and the UTF-16 text) and removes the key from metadata; false when
    // the key is absent.
    bool appendMetadataForKey(std::string_view key, std::uint32_t type, KROAudioFileChunk& chunk);

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
    void startChunk(KROAudioFileChunk& chunk, std::uint32_t code) const override;
    // 64-bit sizes hold any length.
    std::uint64_t maximumAudioDataLength() const override;

private:
    void readMarkerList(const KROAudioFileChunk& chunk);
    void readSummaryList(const KROAudioFileChunk& chunk);
    bool writeMarkerList(KROAudioFileChunk& chunk, std::int32_t firstIdentifier,
                         KROErrorPtr* error);
    bool writeSummaryList(KROAudioFileChunk& chunk, KROErrorPtr* error);
};
