// Test-only processors for the graph and processor tests, registered so that
// descriptions can name them, and builders of descriptions.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"
#include "KROIOAudioProcessor.h"

namespace kro_graph_test {

inline void fill(KROAudioBufferList& buffer, float value) {
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        std::fill_n(buffer.channel(channel), buffer.frames(), value);
    }
}

} // namespace kro_graph_test

// Fills its blocks from `signal`, a function of the frame within the block and
// the channel, 0.5 unless set, and counts them; while `closed` is set, a block
// that reaches it counts as a violation.
class KROTestGenerator : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestGenerator)

public:
    using Signal = std::function<float(std::uint64_t frame, std::uint32_t channel)>;

    bool initializeForRender(KROErrorPtr* = nullptr) override { return ++initializeCount > 0; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus&,
                KROAudioStreamRenderInfo&) override {
        violations += closed.load();
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
                buffer.channel(channel)[frame] = signal(frame, channel);
            }
        }
        ++renderCount;
    }

    // A constant signal, also from the setting "value".
    void setConstant(float value) {
        signal = [value](std::uint64_t, std::uint32_t) { return value; };
    }
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (const KROPropertyList* value = settings.objectForKey("value")) {
            setConstant(static_cast<float>(value->doubleValue(0.5)));
        }
        return KROAudioGenerator::setSettings(settings, error);
    }

    Signal signal = [](std::uint64_t, std::uint32_t) { return 0.5f; };
    int initializeCount = 0;
    std::atomic<std::uint64_t> renderCount{0}, violations{0};
    std::atomic<bool> closed{false};
};

// Scales what it pulls, and what is pushed through it, by `gain` (setting
// "gain"), passing pushes on; counts each operation.
class KROTestPassThrough : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROTestPassThrough)

public:
    bool initializeForRender(KROErrorPtr* = nullptr) override {
        if (KROAudioConnection* connection = inputConnection()) {
            connection->conformToConnection(outputConnection());
        }
        return ++initializeForRenderCount > 0;
    }
    bool initializeForInput(KROErrorPtr* = nullptr) override {
        if (KROAudioConnection* connection = outputConnection()) {
            connection->conformToConnection(inputConnection());
        }
        return ++initializeForInputCount > 0;
    }
    bool uninitialize(KROErrorPtr* = nullptr) override { return ++uninitializeCount > 0; }
    bool reset(KROErrorPtr* = nullptr) override { return ++resetCount > 0; }
    std::uint64_t latency() const override { return latencyFrames; }
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (const KROPropertyList* value = settings.objectForKey("gain")) {
            gain = static_cast<float>(value->doubleValue(gain));
        }
        return KROAudioProcessor::setSettings(settings, error);
    }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus&,
                KROAudioStreamRenderInfo& info) override {
        inputBus()->render(buffer, info);
        buffer.scale(gain);
    }
    void input(KROAudioBufferList& buffer, KROAudioInputBus&,
               KROAudioStreamRenderInfo& info) override {
        buffer.scale(gain);
        ++inputCount;
        outputBus()->input(buffer, info);
    }

    float gain = 1.0f;
    std::uint64_t latencyFrames = 0;
    int initializeForRenderCount = 0, initializeForInputCount = 0, uninitializeCount = 0,
        resetCount = 0, inputCount = 0;
};

// A pass-through with up to eight buses on each side.
class KROTestMultiBusProcessor : public KROTestPassThrough {
    KRO_DECLARE_CLASS(KROTestMultiBusProcessor)

public:
    std::uint64_t maximumNumberOfInputBuses() const override { return 8; }
    std::uint64_t maximumNumberOfOutputBuses() const override { return 8; }
};

// Overrides neither initialise operation, nor input.
class KROTestPlainProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROTestPlainProcessor)
};

// A render and input head with a buffer of its own (settings "channels",
// "maxFrames", "sampleRate"; 2, 64 and 48000 unless given), driven one block
// at a time as a device head would be.
class KROTestHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROTestHead)

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
    bool initializeForRender(KROErrorPtr* = nullptr) override {
        ++initializeForRenderCount;
        return prepare(inputConnection());
    }
    bool initializeForInput(KROErrorPtr* = nullptr) override {
        ++initializeForInputCount;
        return prepare(outputConnection());
    }
    bool start(KROErrorPtr* = nullptr) override {
        setRunning(true);
        return ++startCount > 0;
    }
    bool stop(KROErrorPtr* = nullptr) override {
        setRunning(false);
        return ++stopCount > 0;
    }

    // One pull of `frames` frames, all of the buffer unless given.
    KROAudioBufferList& renderBlock(std::uint64_t frames = UINT64_MAX) {
        buffer->setFrames(std::min(frames, maxFrames));
        info()->setSampleTime(sampleTime);
        inputBus()->render(*buffer, *info());
        sampleTime += static_cast<std::int64_t>(buffer->frames());
        return *buffer;
    }
    void pushBlock(float value) {
        kro_graph_test::fill(*buffer, value);
        outputBus()->input(*buffer, *info());
    }

    std::uint32_t channels = 2;
    std::uint64_t maxFrames = 64;
    double sampleRate = 48000.0;
    std::int64_t sampleTime = 0;
    std::shared_ptr<KROAudioBufferList> buffer;
    int initializeForRenderCount = 0, initializeForInputCount = 0, startCount = 0, stopCount = 0;

private:
    bool prepare(KROAudioConnection* connection) {
        buffer = buffer ? buffer : KROAudioBufferList::bufferListWithChannels(channels, maxFrames);
        if (connection) {
            connection->setSampleRate(sampleRate);
            connection->setNumberOfChannels(channels);
            connection->setMaxFrames(maxFrames);
        }
        return buffer != nullptr;
    }
};

// An I/O mark that can stand on both chains.
class KROTestIOProcessor : public KROIOAudioProcessor {
    KRO_DECLARE_CLASS(KROTestIOProcessor)

public:
    bool initializeForRender(KROErrorPtr* = nullptr) override {
        return ++initializeForRenderCount > 0;
    }
    bool initializeForInput(KROErrorPtr* = nullptr) override {
        return ++initializeForInputCount > 0;
    }

    int initializeForRenderCount = 0, initializeForInputCount = 0;
};

// Counts the observer messages and keeps the first sample each one saw.
class KROTestObserver : public KROAudioBusObserver {
public:
    void willRender(KROAudioBufferList& buffer, KROAudioBus&, KROAudioStreamRenderInfo&) override {
        ++willRenderCount;
        firstSampleBefore = buffer.valueAtFrame(0);
    }
    void didRender(KROAudioBufferList& buffer, KROAudioBus&, KROAudioStreamRenderInfo&) override {
        ++didRenderCount;
        firstSampleAfter = buffer.valueAtFrame(0);
    }

    int willRenderCount = 0, didRenderCount = 0;
    float firstSampleBefore = -1.0f, firstSampleAfter = -1.0f;
};

KRO_REGISTER_CLASS(KROTestGenerator, KROAudioGenerator)
KRO_REGISTER_CLASS(KROTestPassThrough, KROAudioProcessor)
KRO_REGISTER_CLASS(KROTestMultiBusProcessor, KROTestPassThrough)
KRO_REGISTER_CLASS(KROTestPlainProcessor, KROAudioProcessor)
KRO_REGISTER_CLASS(KROTestHead, KROHeadAudioProcessor)
KRO_REGISTER_CLASS(KROTestIOProcessor, KROIOAudioProcessor)

namespace kro_graph_test {

// A processor of a class made and initialised as the stream would.
template <typename T> std::shared_ptr<T> make() {
    auto object = std::make_shared<T>();
    EXPECT_TRUE(object->init(nullptr));
    return object;
}

// An error of the family with the code, whose sentence is the action (already
// formatted) joined to the family's text for the code.
template <typename Family>
void expectError(const KROErrorPtr& error, std::int64_t code, const std::string& action) {
    ASSERT_NE(std::dynamic_pointer_cast<Family>(error), nullptr);
    EXPECT_EQ(error->code(), code);
    const std::string reason = Family::staticClassName() + "_failureReason_" + std::to_string(code);
    EXPECT_NE(KROLocalizedString(reason), reason) << "no text for " << reason;
    EXPECT_EQ(error->localizedDescription(), action + " " +
                                                 KROLocalizedString("KROError_conjunction") + " " +
                                                 KROLocalizedString(reason) + ".");
}

inline std::shared_ptr<KROAudioBufferList> filledBuffer(float value, std::uint32_t channels = 2) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, 64);
    fill(*buffer, value);
    return buffer;
}

inline bool allSamplesAre(const KROAudioBufferList& buffer, float value) {
    return buffer.minimum() == value && buffer.maximum() == value;
}

// A processor entry; a null identifier leaves the key out.
inline KROPropertyList entry(const char* className, const char* identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    if (identifier) {
        entry.setObjectForKey("identifier", identifier);
    }
    return entry;
}

inline KROPropertyList headEntry(const char* identifier, bool render, bool input = false) {
    KROPropertyList head = entry("KROTestHead", identifier);
    head.setObjectForKey("isRenderHead", render);
    head.setObjectForKey("isInputHead", input);
    return head;
}

// The entry with its "inputBuses" or "outputBuses" named so.
inline KROPropertyList withBuses(KROPropertyList entry, const char* key,
                                 const std::vector<std::string>& names) {
    KROPropertyList::Array buses;
    for (const std::string& name : names) {
        KROPropertyList bus;
        bus.setObjectForKey("identifier", name);
        buses.push_back(bus);
    }
    entry.setObjectForKey(key, std::move(buses));
    return entry;
}

// A connection entry; null leaves that key out.
inline KROPropertyList connection(const char* identifier, const char* input, const char* output) {
    KROPropertyList entry;
    for (const auto& [key, value] : {std::pair{"identifier", identifier}, std::pair{"input", input},
                                     std::pair{"output", output}}) {
        if (value) {
            entry.setObjectForKey(key, value);
        }
    }
    return entry;
}

inline KROPropertyList description(KROPropertyList::Array processors,
                                   KROPropertyList::Array connections) {
    KROPropertyList description;
    description.setObjectForKey("processors", std::move(processors));
    description.setObjectForKey("connections", std::move(connections));
    return description;
}

// "head" <- "p1" <- ... <- "pN" <- "generator" over "c1" ... "cN+1", each
// pass-through scaling by gain.
inline KROPropertyList chainDescription(int passThroughs, float gain = 1.0f) {
    KROPropertyList::Array processors{headEntry("head", true)};
    KROPropertyList::Array connections;
    std::string downstream = "head";
    for (int index = 1; index <= passThroughs + 1; ++index) {
        const bool last = index > passThroughs;
        const std::string upstream = last ? "generator" : "p" + std::to_string(index);
        processors.push_back(
            entry(last ? "KROTestGenerator" : "KROTestPassThrough", upstream.c_str()));
        processors.back().setObjectForKey("gain", static_cast<double>(gain));
        const std::string name = "c" + std::to_string(index);
        connections.push_back(connection(name.c_str(), upstream.c_str(), downstream.c_str()));
        downstream = upstream;
    }
    return description(std::move(processors), std::move(connections));
}

template <typename T = KROAudioProcessor>
std::shared_ptr<T> processorOf(const KROAudioStream& stream, const std::string& identifier) {
    return std::dynamic_pointer_cast<T>(stream.processorWithIdentifier(identifier));
}

} // namespace kro_graph_test
