// The handler of M4A files, on FFmpeg's libavformat and libavcodec: it
// reads AAC and ALAC (and any other audio codec FFmpeg decodes inside an
// MPEG-4 container), and writes ALAC, lossless at 16 or 24 bits, or AAC
// when the encoding is 'aac ' (at bitrate, 192 kbit/s when none is set).
// The iTunes-style atoms are the metadata. Samples read as FFmpeg decodes
// them, to the same length: the encoder's priming is skipped as the file
// says.
//
// Codes: 1 the file is no MPEG-4 file with an audio track, 2 an audio
// codec FFmpeg cannot decode, 6 the stream could not be decoded at the
// frame asked for, 7 the encoder or the muxer refused the settings or
// could not write.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioFileContent.h"

class KROAudioFileM4AContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileM4AContent)

public:
    KROAudioFileM4AContent();
    ~KROAudioFileM4AContent() override;

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose second box is 'ftyp', as MPEG-4 files start.
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    bool endWrite(KROErrorPtr* error = nullptr) override;

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;

private:
    struct Decoder;
    struct Encoder;

    bool openDecoder(KROErrorPtr* error);

    std::unique_ptr<Decoder> decoder_;
    std::unique_ptr<Encoder> encoder_;
};
