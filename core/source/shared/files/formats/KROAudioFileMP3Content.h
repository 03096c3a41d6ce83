// The handler of MP3 files: libmpg123 reads them gapless, with the exact
// length of the encoder's delay and padding where a LAME or Xing header
// gives them; LAME writes them, at a constant bitrate when bitrate is set
// and at a variable one of quality 0 to 1 (0.8 when none is set) otherwise.
// Metadata is the ID3v2 tag at the start, read and written by the frame's
// ID3 reader and writer.
//
// Codes: 1 the file holds no MPEG audio, 2 more than two channels, which
// MP3 cannot hold, 6 the stream could not be decoded at the frame asked
// for, 7 the encoder refused the settings or could not write.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioFileContent.h"

class KROAudioFileMP3Content : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileMP3Content)

public:
    KROAudioFileMP3Content();
    ~KROAudioFileMP3Content() override;

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose first bytes, past any ID3v2 tag, are the header
    // of an MPEG audio frame.
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Writes the ID3v2 tag and starts the encoder.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Flushes the encoder and writes the LAME header into the first frame,
    // which the encoder kept free for it.
    bool endWrite(KROErrorPtr* error = nullptr) override;

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;

private:
    struct Decoder;
    struct Encoder;

    bool writeEncoded(int bytes, KROErrorPtr* error);

    std::unique_ptr<Decoder> decoder_;
    std::unique_ptr<Encoder> encoder_;
};
