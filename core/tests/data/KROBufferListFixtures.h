// Test helpers for buffer lists: lists with known samples, their samples as
// vectors, foreign records, and a failing allocator.
#pragma once

#include <cstdint>
#include <cstdlib>
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

// A foreign AudioBufferList record of single-channel buffers, each holding
// frames samples of 0.5.
class ForeignRecord {
public:
    ForeignRecord(std::uint32_t buffers, std::uint32_t frames)
        : record_(
              static_cast<AudioBufferList*>(std::calloc(1, KROAudioBufferListByteSize(buffers)))),
          samples_(buffers, std::vector<float>(frames, 0.5f)) {
        record_->mNumberBuffers = buffers;
        for (std::uint32_t index = 0; index < buffers; ++index) {
            buffer(index) = AudioBuffer{1, frames * 4, samples_[index].data()};
        }
    }
    ~ForeignRecord() { std::free(record_); }
    ForeignRecord(const ForeignRecord&) = delete;
    ForeignRecord& operator=(const ForeignRecord&) = delete;

    AudioBufferList* get() { return record_; }
    AudioBuffer& buffer(std::uint32_t index) { return KROAudioBufferAt(*record_, index); }
    std::vector<float>& samples(std::uint32_t index) { return samples_[index]; }

private:
    AudioBufferList* record_;
    std::vector<std::vector<float>> samples_;
};

// While it lives, the owned memory of new lists comes from a calloc that
// fails from its failAt-th call on, counting from 0.
class FailingAllocator {
public:
    explicit FailingAllocator(int failAt) {
        calls() = 0;
        failAt_() = failAt;
        KROBufferList::setAllocatorForTesting([](std::size_t count, std::size_t size) -> void* {
            return calls()++ >= failAt_() ? nullptr : std::calloc(count, size);
        });
    }
    ~FailingAllocator() { KROBufferList::setAllocatorForTesting(nullptr); }
    FailingAllocator(const FailingAllocator&) = delete;
    FailingAllocator& operator=(const FailingAllocator&) = delete;

private:
    static int& calls() {
        static int value = 0;
        return value;
    }
    static int& failAt_() {
        static int value = 0;
        return value;
    }
};
