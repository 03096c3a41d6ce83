// The handler of headerless VOX files: 8 kHz mono mu-law, one byte a frame,
// the whole file. Read only. Any file named .vox is taken for one, so the
// registry asks this handler late.
#pragma once

#include "KROAudioFileContent.h"

class KROAudioFileVOXContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileVOXContent)

public:
    // The fixed format: ulaw, 8 bits, 8000 Hz, one channel, 64000 bits a second.
    KROAudioFileVOXContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file whose extension is "vox".
    bool supportsURL(const std::filesystem::path& url) const override;

    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;

protected:
    AudioFormatFlags audioDataFormatFlags() const override;
};
