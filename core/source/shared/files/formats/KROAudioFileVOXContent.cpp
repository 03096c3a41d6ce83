#include "KROAudioFileVOXContent.h"

#include "KROClassRegistry.h"
#include "KROStringHelpers.h"

KRO_REGISTER_CLASS(KROAudioFileVOXContent, KROAudioFileContent)

KROAudioFileVOXContent::KROAudioFileVOXContent() {
    setEncoding(kro::fourCC("ulaw"));
    setBitDepth(8);
    setSampleRate(8000);
    setNumberOfChannels(1);
    setBitrate(64000);
}

std::string KROAudioFileVOXContent::format() const {
    return "VOX File";
}

std::string KROAudioFileVOXContent::extension() const {
    return "vox";
}

bool KROAudioFileVOXContent::supportsURL(const std::filesystem::path& url) const {
    std::error_code ignored;
    return url.extension() == ".vox" && std::filesystem::is_regular_file(url, ignored);
}

AudioFormatFlags KROAudioFileVOXContent::audioDataFormatFlags() const {
    return 0;
}

bool KROAudioFileVOXContent::parse(KROErrorPtr* error) {
    if (!openFileReader(error)) {
        return false;
    }
    audioDataPosition_ = 0;
    audioDataLength_ = fileSize();
    setFrames(fileSize());
    return true;
}

bool KROAudioFileVOXContent::getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                                      KROErrorPtr* error) {
    return getLinearAudio(buffer, frame, error);
}
