// A processor between two connections whose far ends are open, for the tests
// of the measuring and shaping processors: the output connection carries the
// format, and each render works on the samples handed in, as they would come
// up a chain from a source.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioProcessor.h"
#include "KROAudioStreamRenderInfo.h"

template <typename Processor> struct KROInPlaceProcessor {
    KROInPlaceProcessor(double sampleRate, std::uint32_t channels, std::uint64_t maxFrames)
        : buffer(KROAudioBufferList::bufferListWithChannels(channels, maxFrames)) {
        EXPECT_TRUE(processor->init());
        processor->inputBus()->setConnection(&in);
        in.setOutput(processor->inputBus());
        processor->outputBus()->setConnection(&out);
        out.setInput(processor->outputBus());
        out.setSampleRate(sampleRate);
        out.setNumberOfChannels(channels);
        out.setMaxFrames(maxFrames);
    }

    bool initialize() { return processor->initializeForRender(); }

    // Renders the frames from start of each channel's samples (the last
    // channel given standing for the rest) and gives back the rendered block.
    const KROAudioBufferList&
    render(std::initializer_list<std::reference_wrapper<const std::vector<float>>> channels,
           std::size_t start, std::uint64_t frames) {
        return render(channels.begin(), channels.size(), start, frames);
    }
    const KROAudioBufferList& render(const std::vector<std::vector<float>>& channels,
                                     std::size_t start, std::uint64_t frames) {
        return render(channels.data(), channels.size(), start, frames);
    }
    template <typename Channel>
    const KROAudioBufferList& render(const Channel* channels, std::size_t count, std::size_t start,
                                     std::uint64_t frames) {
        buffer->setFrames(frames);
        for (std::uint32_t channel = 0; channel < buffer->numberOfChannels(); ++channel) {
            const std::vector<float>& source = channels[std::min<std::size_t>(channel, count - 1)];
            float* samples = buffer->channel(channel);
            for (std::uint64_t frame = 0; frame < frames; ++frame) {
                samples[frame] = start + frame < source.size() ? source[start + frame] : 0.0f;
            }
        }
        processor->render(*buffer, *processor->outputBus(), info);
        return *buffer;
    }

    std::shared_ptr<Processor> processor = std::make_shared<Processor>();
    KROAudioConnection in;
    KROAudioConnection out;
    KROAudioStreamRenderInfo info;
    std::shared_ptr<KROAudioBufferList> buffer;
};

// A sine of the amplitude in dB of full scale, seconds long.
inline std::vector<float> KROTestSine(double decibels, double hertz, double seconds,
                                      double sampleRate) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * sampleRate));
    const double amplitude = std::pow(10.0, decibels / 20.0);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] =
            static_cast<float>(amplitude * std::sin(2.0 * M_PI * hertz * double(i) / sampleRate));
    }
    return samples;
}
