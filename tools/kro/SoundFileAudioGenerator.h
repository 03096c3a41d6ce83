// A generator that plays an audio file from its start, read through
// libsndfile: the one place where kro reads audio files, so that the
// library's own file handlers can take its place. Past the end of the file it
// gives silence.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "KROAudioGenerator.h"

struct sf_private_tag;

class SoundFileAudioGenerator : public KROAudioGenerator {
public:
    ~SoundFileAudioGenerator() override;

    // Opens the file for reading; false with a sentence for the user when it
    // is not an audio file that can be read.
    bool open(const std::filesystem::path& path, std::string& message);

    double sampleRate() const { return sampleRate_; }
    std::uint32_t channels() const { return channels_; }
    std::uint64_t frames() const { return frames_; }

    // Room for one block of the output connection's shape.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // The next frames of the file, one channel to each buffer.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

private:
    sf_private_tag* file_ = nullptr;
    double sampleRate_ = 0.0;
    std::uint32_t channels_ = 0;
    std::uint64_t frames_ = 0;
    std::vector<float> interleaved_;
};
