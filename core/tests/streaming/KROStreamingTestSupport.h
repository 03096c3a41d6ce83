// What the streaming tests share: a float WAVE file whose every sample tells
// its own frame and channel, and a chain of processors built into a stream.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <vector>

#include "../files/KROAudioTestSupport.h"
#include "../graph/KROGraphTestClasses.h"
#include "KROAudioConnection.h"
#include "KROAudioStream.h"

// Never 0, different at every frame of a cycle of 48007 (a prime, so that no
// jump of whole seconds lands on the same values) and on each channel:
// silence and a sample of the wrong place both show.
inline float signatureSample(std::int64_t frame, std::uint32_t channel) {
    const float value = float(frame % 48007 + 1) / 48008.0f;
    return channel % 2 ? -value : value;
}

// A 32-bit float WAVE file at 48 kHz of signature samples.
inline void writeSignatureFile(const std::filesystem::path& path, std::uint32_t channels,
                               std::uint64_t frames) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            buffer->channel(channel)[frame] = signatureSample(std::int64_t(frame), channel);
        }
    }
    writeWAVE(path, *buffer, [](KROAudioFileWAVEContent& content) {
        content.setBitDepth(32);
        content.setIsFloatingPoint(true);
    });
}

// The first frame of the block at which it differs from the file played
// from `first`; -1 when the block is the file.
inline std::int64_t firstWrongFrame(const KROAudioBufferList& block, std::int64_t first) {
    for (std::uint64_t frame = 0; frame < block.frames(); ++frame) {
        for (std::uint32_t channel = 0; channel < block.numberOfChannels(); ++channel) {
            if (block.channel(channel)[frame] !=
                signatureSample(first + std::int64_t(frame), channel)) {
                return std::int64_t(frame);
            }
        }
    }
    return -1;
}

// Joins the processors in order, source first, into the stream; the last is
// the render head.
inline void buildChain(KROAudioStream& stream,
                       const std::vector<std::shared_ptr<KROAudioProcessor>>& chain) {
    ASSERT_TRUE(stream.init());
    for (const auto& processor : chain) {
        stream.addProcessorsObject(processor);
    }
    for (std::size_t index = 0; index + 1 < chain.size(); ++index) {
        auto connection = std::make_shared<KROAudioConnection>();
        stream.addConnectionsObject(connection);
        stream.connectOutputBus(*chain[index]->outputBus(), *connection);
        stream.connectInputBus(*chain[index + 1]->inputBus(), *connection);
    }
    stream.setRenderHeadProcessor(dynamic_cast<KROHeadAudioProcessor*>(chain.back().get()));
}

template <typename T> std::shared_ptr<T> made() {
    auto object = std::make_shared<T>();
    EXPECT_TRUE(object->init());
    return object;
}
