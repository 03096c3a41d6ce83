// The handler of Sound Designer I files: a 1336-byte big-endian header
// (data size, ten markers, two loops, rate and depth), then mono samples.
// Read only. Marker and loop positions are byte counts in the file.
#pragma once

#include "KROAudioFileContent.h"

class KROAudioFileSFILContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileSFILContent)

public:
    KROAudioFileSFILContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose first two bytes are 05 38.
    bool supportsURL(const std::filesystem::path& url) const override;

    // Fails as the reader does for a header shorter than 1336 bytes, and
    // with code 5 for a zero rate or a depth under 8 bits.
    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;
};
