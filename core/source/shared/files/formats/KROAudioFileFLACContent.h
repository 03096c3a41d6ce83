// The handler of FLAC files, on libFLAC: integer samples of 8 to 24 bits
// (32-bit files read too), Vorbis comments as metadata, and markers as the
// tracks of a cue sheet. Files written here carry a seek table with a point
// every ten seconds, so that reading from any frame costs one seek.
//
// Codes: 1 the file is no FLAC stream or has no stream info, 2 a sample
// format libFLAC does not decode, 5 a stream info with impossible values,
// 6 the stream could not be decoded at the frame asked for, 7 the encoder
// refused the settings or failed to write.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioFileContent.h"

class KROAudioFileFLACContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileFLACContent)

public:
    KROAudioFileFLACContent();
    ~KROAudioFileFLACContent() override;

    std::string format() const override;
    std::string extension() const override;
    // An existing file that starts with "fLaC", after an ID3v2 tag if any.
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;
    // Rounds the depth to 8, 16 or 24 bits (floats write 24) and starts the
    // encoder on the hidden file with the Vorbis comments.
    bool beginWrite(KROErrorPtr* error = nullptr) override;
    bool writeAudio(const KROAudioBufferList& buffer, KROErrorPtr* error = nullptr) override;
    // Finishes the stream, then adds the seek table and the cue sheet of the
    // markers, now that the length is known.
    bool endWrite(KROErrorPtr* error = nullptr) override;

    // Adds compressionLevel, 0 (fastest) to 8 (smallest); 5 by default.
    bool setValue(const KROPropertyList& value, std::string_view key) override;
    int compressionLevel() const { return compressionLevel_; }

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;

private:
    struct Decoder;
    struct Encoder;

    bool finishEncoding(KROErrorPtr* error);
    bool addSeekTableAndCueSheet(KROErrorPtr* error);

    std::unique_ptr<Decoder> decoder_;
    std::unique_ptr<Encoder> encoder_;
    int compressionLevel_ = 5;
};
