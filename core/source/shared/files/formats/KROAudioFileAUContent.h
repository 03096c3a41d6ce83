// The handler of AU (.snd) files: a 24-byte big-endian header, then the
// samples to the end of the file -- linear integers of 8 to 32 bits, 32-bit
// floats, mu-law and A-law. The header's data size is written but never
// read: the samples run to the end of the file, from the data offset.
#pragma once

#include "KROAudioFileContent.h"

class KROAudioFileAUContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileAUContent)

public:
    // lpcm, big-endian samples.
    KROAudioFileAUContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose first four bytes are ".snd".
    bool supportsURL(const std::filesystem::path& url) const override;

    // Fails with code 1 for an encoding code it does not know, and for a
    // header of no channels or rate.
    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Writes the header with a data size of 0; the encoding code follows
    // from encoding, depth and isFloatingPoint.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Pads odd sample data with a byte the size does not count, and patches the size.
    bool endWrite(KROErrorPtr* error = nullptr) override;

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
    AudioFormatFlags audioDataFormatFlags() const override;
    // No limit is checked; the size field keeps the low 32 bits.
    std::uint64_t maximumAudioDataLength() const override;
};
