// The handler of Ogg Vorbis files: libvorbisfile reads, libvorbisenc writes
// at a quality from 0 to 1 (0.5 when none is set). Vorbis comments are the
// metadata. Samples read as libvorbisfile decodes them, as floats, and the
// length is the exact count of the last page's granule position.
//
// Codes: 1 the file is no Ogg Vorbis stream, 2 a stream whose channels or
// rate change along the file, 6 the stream could not be decoded at the frame
// asked for, 7 the encoder refused the settings or could not write.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioFileContent.h"

class KROAudioFileVorbisContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileVorbisContent)

public:
    KROAudioFileVorbisContent();
    ~KROAudioFileVorbisContent() override;

    std::string format() const override;
    std::string extension() const override;
    // An existing file that starts with an Ogg page whose first packet is a
    // Vorbis identification header.
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

    // Runs the analysis on what the encoder holds and writes its pages.
    bool writePages(bool flush, KROErrorPtr* error);

    std::unique_ptr<Decoder> decoder_;
    std::unique_ptr<Encoder> encoder_;
};
