// The handler of CAF files: linear PCM integers of 8 to 32 bits and floats
// of 32 and 64 bits in either byte order, and mu-law and A-law; markers
// ('mark') and regions ('regn') as labels, their names in 'strg', and the
// 'info' chunk as metadata. Chunk sizes are 64-bit, so a file has no size
// limit but the disk's; a 'data' chunk of size -1 runs to the end of the
// file, as a recorder that never patched it leaves it.
//
// Parsing fails only without 'desc' (code 1), for an encoding it does not
// read (2), without 'data' (3), and for a description whose frames would
// hold no bytes or disagree with the packet size (5). Damaged label and info
// chunks leave out what they cannot give.
#pragma once

#include <cstdint>
#include <string>

#include "KROAudioFileContent.h"

class KROAudioFileChunk;

class KROAudioFileCAFContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileCAFContent)

public:
    // lpcm, big-endian samples, as CAF writers mostly make them.
    KROAudioFileCAFContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose first four bytes are "caff".
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Forces 8 bits for mu-law and A-law, 32 or 64 for floats; writes the
    // file header, 'desc', 'info', the label chunks and the header of 'data'.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Patches the size of 'data'.
    bool endWrite(KROErrorPtr* error = nullptr) override;

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
    // CAF integers are signed at every width, 8 bits included.
    AudioFormatFlags audioDataFormatFlags() const override;
    std::uint64_t maximumAudioDataLength() const override;

private:
    bool readDescription(const KROAudioFileChunk& chunk, KROErrorPtr* error);
    void readMarkers(const KROAudioFileChunk& chunk, const KROAudioFileChunk* strings);
    void readRegions(const KROAudioFileChunk& chunk, const KROAudioFileChunk* strings);
    void readInfo(const KROAudioFileChunk& chunk);

    bool writeDescription(KROAudioFileChunk& chunk, KROErrorPtr* error);
    bool writeInfo(KROAudioFileChunk& chunk, KROErrorPtr* error);
    // 'mark', 'regn' and the 'strg' of their names.
    bool writeLabels(KROAudioFileChunk& chunk, KROErrorPtr* error);
};
