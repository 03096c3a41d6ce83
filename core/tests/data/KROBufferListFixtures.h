// Buffer lists with known samples, and their samples as vectors.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "KROAudioBufferList.h"

inline std::shared_ptr<KROAudioBufferList> makeList(std::uint32_t channels, std::uint64_t frames) {
    auto list = KROAudioBufferList::bufferListWithChannels(channels, frames);
    EXPECT_TRUE(list);
    return list;
}

// Channel c, frame f holds first + c * 100 + f, over the whole capacity.
inline std::shared_ptr<KROAudioBufferList> countingList(std::uint32_t channels,
                                                        std::uint64_t frames, float first = 1) {
    auto list = makeList(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            list->setValue(first + static_cast<float>(channel * 100 + frame), frame, channel);
        }
    }
    return list;
}

inline std::shared_ptr<KROAudioBufferList> constantList(std::uint32_t channels,
                                                        std::uint64_t frames, float value) {
    auto list = makeList(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        std::fill_n(list->channel(channel), frames, value);
    }
    return list;
}

inline void fillChannel(KROAudioBufferList& list, std::uint32_t channel,
                        const std::vector<float>& values) {
    std::copy(values.begin(), values.end(), list.channel(channel));
}

// The samples of one channel over the whole capacity.
inline std::vector<float> samplesOf(const KROAudioBufferList& list, std::uint32_t channel) {
    std::vector<float> values;
    for (std::uint64_t frame = 0; frame < list.frameCapacity(); ++frame) {
        values.push_back(list.valueAtFrame(frame, channel));
    }
    return values;
}

// Every sample of every channel, over the whole capacity.
inline std::vector<std::vector<float>> samplesOf(const KROAudioBufferList& list) {
    std::vector<std::vector<float>> channels;
    for (std::uint32_t channel = 0; channel < list.numberOfChannels(); ++channel) {
        channels.push_back(samplesOf(list, channel));
    }
    return channels;
}

inline std::vector<float> randomSamples(std::size_t count, std::uint32_t seed, float scale = 1) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-scale, scale);
    std::vector<float> values(count);
    for (float& value : values) {
        value = distribution(generator);
    }
    return values;
}
