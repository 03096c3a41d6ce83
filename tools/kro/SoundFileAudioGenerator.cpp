#include "SoundFileAudioGenerator.h"

#include <sndfile.h>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"

SoundFileAudioGenerator::~SoundFileAudioGenerator() {
    if (file_) {
        sf_close(file_);
    }
}

bool SoundFileAudioGenerator::open(const std::filesystem::path& path, std::string& message) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file || info.channels <= 0 || info.samplerate <= 0) {
        std::string reason = sf_strerror(file);
        if (!reason.empty() && reason.back() == '.') {
            reason.pop_back();
        }
        message = "The file " + path.string() + " could not be read as audio: " + reason + ".";
        if (file) {
            sf_close(file);
        }
        return false;
    }
    if (file_) {
        sf_close(file_);
    }
    file_ = file;
    sampleRate_ = info.samplerate;
    channels_ = static_cast<std::uint32_t>(info.channels);
    frames_ = info.frames > 0 ? static_cast<std::uint64_t>(info.frames) : 0;
    return true;
}

bool SoundFileAudioGenerator::initializeForRender(KROErrorPtr* /*error*/) {
    const KROAudioConnection* connection = outputConnection();
    const std::uint64_t frames = connection ? connection->maxFrames() : 0;
    interleaved_.assign(frames * channels_, 0.0f);
    return true;
}

void SoundFileAudioGenerator::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                     KROAudioStreamRenderInfo& /*info*/) {
    buffer.clear();
    const std::uint64_t wanted =
        std::min<std::uint64_t>(buffer.frames(), channels_ ? interleaved_.size() / channels_ : 0);
    const sf_count_t read =
        file_ ? sf_readf_float(file_, interleaved_.data(), static_cast<sf_count_t>(wanted)) : 0;
    const std::uint32_t channels = std::min(channels_, buffer.numberOfChannels());
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        float* const samples = buffer.channel(channel);
        for (sf_count_t frame = 0; frame < read; ++frame) {
            samples[frame] = interleaved_[std::size_t(frame) * channels_ + channel];
        }
    }
}
