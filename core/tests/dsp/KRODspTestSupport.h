// Helpers for the tests of the signal processors: an offline render head, a
// source whose samples come from a function, a builder of small chains and
// raw-float files for the programs the tests compare with.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"
#include "KROTestCommand.h"

// An offline render head: owns a buffer of "maxFrames" frames and
// "channels" channels, writes the format with "sampleRate" into its input
// connection and pulls one block of any length up to maxFrames at a time.
class KRODspTestHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KRODspTestHead)

public:
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        const auto number = [&](const char* key, double value) {
            const KROPropertyList* found = settings.objectForKey(key);
            return found ? found->doubleValue(value) : value;
        };
        channels = static_cast<std::uint32_t>(number("channels", channels));
        maxFrames = static_cast<std::uint64_t>(number("maxFrames", double(maxFrames)));
        sampleRate = number("sampleRate", sampleRate);
        return KROHeadAudioProcessor::setSettings(settings, error);
    }
    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer = KROAudioBufferList::bufferListWithChannels(channels, maxFrames, error);
        if (KROAudioConnection* connection = inputConnection()) {
            connection->setSampleRate(sampleRate);
            connection->setNumberOfChannels(channels);
            connection->setMaxFrames(maxFrames);
        }
        return buffer != nullptr;
    }
    bool start(KROErrorPtr* = nullptr) override { return true; }
    bool stop(KROErrorPtr* = nullptr) override { return true; }

    // One pull of `frames` frames; the filled buffer stays in `buffer`.
    KROAudioBufferList& renderBlock(std::uint64_t frames) {
        buffer->setFrames(frames);
        inputBus()->render(*buffer, *info());
        return *buffer;
    }

    std::uint32_t channels = 2;
    std::uint64_t maxFrames = 512;
    double sampleRate = 48000.0;
    std::shared_ptr<KROAudioBufferList> buffer;
};

// A generator whose samples come from a function of the frame within the
// block and the channel.
class KRODspTestSource : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KRODspTestSource)

public:
    using Signal = std::function<float(std::uint64_t frame, std::uint32_t channel)>;

    bool initializeForRender(KROErrorPtr* = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus&,
                KROAudioStreamRenderInfo&) override {
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
                buffer.channel(channel)[frame] = signal(frame, channel);
            }
        }
    }

    Signal signal = [](std::uint64_t, std::uint32_t) { return 0.0f; };
};

KRO_REGISTER_CLASS(KRODspTestHead, KROHeadAudioProcessor)
KRO_REGISTER_CLASS(KRODspTestSource, KROAudioGenerator)

namespace kro_dsp_test {

// An initialised stream of "head" <- ["meter" <-] "source".
struct Chain {
    std::shared_ptr<KROAudioStream> stream = std::make_shared<KROAudioStream>();
    std::shared_ptr<KRODspTestHead> head;

    template <typename T> std::shared_ptr<T> get(const char* identifier) const {
        auto processor = std::dynamic_pointer_cast<T>(stream->processorWithIdentifier(identifier));
        EXPECT_NE(processor, nullptr) << identifier;
        return processor;
    }
    KROAudioBufferList& render(std::uint64_t frames) { return head->renderBlock(frames); }
};

inline KROPropertyList processorEntry(const std::string& className, const std::string& identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    entry.setObjectForKey("identifier", identifier);
    return entry;
}

inline KROPropertyList connectionEntry(const std::string& input, const std::string& output) {
    KROPropertyList entry;
    entry.setObjectForKey("input", input);
    entry.setObjectForKey("output", output);
    return entry;
}

// Builds and initialises the chain; a failure ends the test program, so that
// no test goes on through a null pointer.
inline Chain makeChain(const std::string& sourceClass, const std::string& meterClass,
                       std::uint32_t channels, std::uint64_t maxFrames, double sampleRate) {
    KROPropertyList head = processorEntry("KRODspTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    head.setObjectForKey("channels", static_cast<std::int64_t>(channels));
    head.setObjectForKey("maxFrames", static_cast<std::int64_t>(maxFrames));
    head.setObjectForKey("sampleRate", sampleRate);
    KROPropertyList::Array processors{head, processorEntry(sourceClass, "source")};
    KROPropertyList::Array connections{connectionEntry("source", "head")};
    if (!meterClass.empty()) {
        processors.push_back(processorEntry(meterClass, "meter"));
        connections = {connectionEntry("source", "meter"), connectionEntry("meter", "head")};
    }
    KROPropertyList description;
    description.setObjectForKey("processors", std::move(processors));
    description.setObjectForKey("connections", std::move(connections));
    Chain chain;
    if (!chain.stream->initWithDescription(description) || !chain.stream->initialize()) {
        std::fprintf(stderr, "the chain of %s does not build\n", sourceClass.c_str());
        std::abort();
    }
    chain.head = chain.get<KRODspTestHead>("head");
    return chain;
}

// Native-endian 32-bit floats in a file of the test binary's folder, as
// `sox -t f32` and numpy's float32 read them.
inline std::filesystem::path rawFloatFile(const std::string& name,
                                          const std::vector<float>& samples) {
    const auto folder = std::filesystem::path(KRO_TEST_BINARY_DIR) / "dsp-scratch";
    std::filesystem::create_directories(folder);
    const auto path = folder / (std::to_string(::getpid()) + "-" + name);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(samples.data()),
               static_cast<std::streamsize>(samples.size() * sizeof(float)));
    return path;
}

} // namespace kro_dsp_test
