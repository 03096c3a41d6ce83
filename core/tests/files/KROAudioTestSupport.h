// What the handler tests share: samples of a buffer in file order, the same
// as libsndfile reads them, and a file written or read in one call.
#pragma once

#include <sndfile.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioFileWAVEContent.h"
#include "KROFileTestSupport.h"

inline KRODate utcDate(int year, unsigned month, unsigned day, int hour = 0, int minute = 0,
                       int second = 0) {
    using namespace std::chrono;
    return sys_days{std::chrono::year(year) / month / day} + hours(hour) + minutes(minute) +
           seconds(second);
}

// A label with text items: testLabel("marker", 0.5, 0, {{"name", "Verse"}}).
inline std::shared_ptr<KROAudioLabel>
testLabel(const char* type, double start, double length,
          std::vector<std::pair<const char*, const char*>> items = {}) {
    auto made = KROAudioLabel::labelOfType(type);
    made->setLocation(start);
    made->setLength(length);
    for (const auto& [key, value] : items) {
        made->setValueForUndefinedKey(KROPropertyList(value), key);
    }
    return made;
}

// Each label as "type start+length key=value ...", times in frames at the rate.
inline std::vector<std::string> labelTexts(const KROAudioFileContent& content, double rate) {
    std::vector<std::string> texts;
    for (const auto& label : content.labels()) {
        std::string text = label->type() + " " +
                           std::to_string(std::llround(label->location() * rate)) + "+" +
                           std::to_string(std::llround(label->length() * rate));
        for (const auto& item : label->metadata()) {
            text += " " + item->key() + "=" + (item->value() ? item->value()->description() : "");
        }
        texts.push_back(text);
    }
    return texts;
}

// Each key of expected has its value in the file's metadata.
inline void expectMetadata(const KROAudioFileContent& content, const KROPropertyList& expected) {
    for (const std::string& key : expected.allKeys()) {
        const KROPropertyList* value = content.metadata().objectForKey(key);
        EXPECT_TRUE(value && *value == *expected.objectForKey(key))
            << key << ": " << (value ? value->description() : "none");
    }
}

// Interleaved, as a file holds them.
inline std::vector<float> samplesOf(const KROAudioBufferList& buffer) {
    std::vector<float> samples;
    for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            samples.push_back(buffer.channel(channel)[frame]);
        }
    }
    return samples;
}

// Interleaved samples as libsndfile reads them, normalised to +-1.
inline std::vector<float> libsndfileSamples(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<float> samples(file ? static_cast<std::size_t>(info.frames * info.channels) : 0);
    if (file) {
        sf_readf_float(file, samples.data(), info.frames);
        sf_close(file);
    }
    return samples;
}

// A parsed file of the handler, or null after a failure, which lands in error.
template <typename Content>
std::shared_ptr<Content> parsedFile(const std::filesystem::path& path,
                                    KROErrorPtr* error = nullptr) {
    auto content = std::make_shared<Content>();
    content->setURL(path);
    return content->parse(error) ? content : nullptr;
}

inline std::shared_ptr<KROAudioFileWAVEContent> parsedWAVE(const std::filesystem::path& path,
                                                           KROErrorPtr* error = nullptr) {
    return parsedFile<KROAudioFileWAVEContent>(path, error);
}

// All the frames of a parsed file.
inline std::shared_ptr<KROAudioBufferList> allAudio(KROAudioFileContent& content) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(content.numberOfChannels()),
        std::max<std::uint64_t>(content.frames(), 1));
    EXPECT_TRUE(content.getAudio(*buffer, 0));
    return buffer;
}

// The frames from start on, read in blocks of block frames (0: one block),
// as a reader that starts there gets them.
inline std::vector<float> samplesFrom(KROAudioFileContent& content, std::uint64_t start,
                                      std::uint64_t block = 0) {
    if (block == 0) {
        block = std::max<std::uint64_t>(content.frames() - std::min(start, content.frames()), 1);
    }
    std::vector<float> samples;
    const auto buffer = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(content.numberOfChannels()), block);
    for (std::uint64_t frame = start; frame < content.frames(); frame += block) {
        buffer->setFrames(block);
        EXPECT_TRUE(content.getAudio(*buffer, frame));
        const std::vector<float> more = samplesOf(*buffer);
        samples.insert(samples.end(), more.begin(), more.end());
    }
    return samples;
}

// The RMS of the difference of two runs of samples, over the first's length.
inline double rmsDifference(const std::vector<float>& a, const std::vector<float>& b) {
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        sum += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    }
    return std::sqrt(sum / double(std::max<std::size_t>(a.size(), 1)));
}

// Writes the buffer with the handler at path: 48 kHz, the buffer's
// channels, 16 bits unless setUp says otherwise; setUp adds labels and metadata.
template <typename Content>
void writeFile(const std::filesystem::path& path, const KROAudioBufferList& buffer,
               const std::function<void(Content&)>& setUp = {}) {
    Content content;
    content.setWritingDirectory(path.parent_path());
    content.setSampleRate(48000);
    content.setNumberOfChannels(buffer.numberOfChannels());
    content.setBitDepth(16);
    if (setUp) {
        setUp(content);
    }
    KROErrorPtr error;
    ASSERT_TRUE(content.beginWrite(&error) && content.writeAudio(buffer, &error) &&
                content.endWrite(&error))
        << (error ? error->description() : "");
    std::filesystem::rename(content.URL(), path);
}

inline void writeWAVE(const std::filesystem::path& path, const KROAudioBufferList& buffer,
                      const std::function<void(KROAudioFileWAVEContent&)>& setUp = {}) {
    writeFile<KROAudioFileWAVEContent>(path, buffer, setUp);
}

// A chunk: type, size, body and the pad byte after an odd body.
inline KROData wavChunk(const char* type, const KROData& body) {
    return KROTestBytes().text(type).le32(body.size()).bytes(body).fill(body.size() % 2).data();
}

// A 'fmt ' chunk of 16-bit samples at 8 kHz.
inline KROData formatChunk(std::uint16_t tag = 1, std::uint16_t channels = 1) {
    KROTestBytes body;
    body.le(tag, 2).le(channels, 2).le32(8000).le32(16000).le(2, 2).le(16, 2);
    return wavChunk("fmt ", body.data());
}

// A RIFF WAVE file of the chunks, its size counting them all.
inline KROData riffWAVE(std::initializer_list<KROData> chunks) {
    KROTestBytes body;
    for (const KROData& chunk : chunks) {
        body.bytes(chunk);
    }
    return KROTestBytes().text("RIFF").le32(body.size() + 4).text("WAVE").bytes(body.data()).data();
}

// A ramp through the whole range, different in each channel.
inline std::shared_ptr<KROAudioBufferList> rampBuffer(std::uint32_t channels, std::uint64_t frames,
                                                      float step) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint64_t i = 0; i < channels * frames; ++i) {
        buffer->channel(i % channels)[i / channels] = static_cast<float>(int(i % 200) - 100) * step;
    }
    return buffer;
}
