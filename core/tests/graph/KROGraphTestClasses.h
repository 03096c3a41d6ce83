// Test-only processors for the graph tests (Parts 2.1 to 2.3): a generator, a
// pass-through, a multi-bus processor, render and input heads, an input sink,
// an I/O mark and a bus observer. Each registers itself so that descriptions
// can name it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioGenerator.h"
#include "KROAudioProcessor.h"
#include "KROAudioStream.h"
#include "KROClassRegistry.h"
#include "KROHeadAudioProcessor.h"
#include "KROIOAudioProcessor.h"

// Fills every channel with one value and counts its blocks. While `closed`
// is set, any block that reaches it counts as a violation: the concurrency
// test sets it after setActive(false) has returned.
class KROTestGenerator : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROTestGenerator)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override {
        ++initializeForRenderCount;
        return true;
    }
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (!KROAudioGenerator::setSettings(settings, error)) {
            return false;
        }
        if (const KROPropertyList* value = settings.objectForKey("value")) {
            this->value = static_cast<float>(value->doubleValue(this->value));
        }
        return true;
    }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& /*info*/) override {
        if (closed.load(std::memory_order_relaxed)) {
            violations.fetch_add(1, std::memory_order_relaxed);
        }
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            float* const samples = buffer.channel(channel);
            for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
                samples[frame] = value;
            }
        }
        renderCount.fetch_add(1, std::memory_order_relaxed);
    }

    float value = 0.5f;
    int initializeForRenderCount = 0;
    std::atomic<std::uint64_t> renderCount{0};
    std::atomic<std::uint64_t> violations{0};
    std::atomic<bool> closed{false};
};

// Pulls its input and adds `offset` to each sample (0 leaves the audio
// alone); on the push path adds it too and passes the buffer on.
class KROTestPassThrough : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROTestPassThrough)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override {
        ++initializeForRenderCount;
        if (KROAudioConnection* connection = inputConnection()) {
            connection->conformToConnection(outputConnection());
        }
        return true;
    }
    bool initializeForInput(KROErrorPtr* /*error*/ = nullptr) override {
        ++initializeForInputCount;
        if (KROAudioConnection* connection = outputConnection()) {
            connection->conformToConnection(inputConnection());
        }
        return true;
    }
    bool uninitialize(KROErrorPtr* /*error*/ = nullptr) override {
        ++uninitializeCount;
        return true;
    }
    bool reset(KROErrorPtr* /*error*/ = nullptr) override {
        ++resetCount;
        return true;
    }
    std::uint64_t latency() const override { return latencyFrames; }
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (!KROAudioProcessor::setSettings(settings, error)) {
            return false;
        }
        if (const KROPropertyList* value = settings.objectForKey("offset")) {
            offset = static_cast<float>(value->doubleValue(offset));
        }
        return true;
    }
    KROPropertyList settings() const override {
        KROPropertyList settings = KROAudioProcessor::settings();
        settings.setObjectForKey("offset", static_cast<double>(offset));
        return settings;
    }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& info) override {
        if (KROAudioInputBus* bus = inputBus()) {
            bus->render(buffer, info);
        }
        apply(buffer);
    }
    void input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
               KROAudioStreamRenderInfo& info) override {
        apply(buffer);
        ++inputCount;
        if (KROAudioOutputBus* bus = outputBus()) {
            bus->input(buffer, info);
        }
    }

    float offset = 0.0f;
    std::uint64_t latencyFrames = 0;
    int initializeForRenderCount = 0;
    int initializeForInputCount = 0;
    int uninitializeCount = 0;
    int resetCount = 0;
    int inputCount = 0;

private:
    void apply(KROAudioBufferList& buffer) const {
        if (offset == 0.0f) {
            return;
        }
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            float* const samples = buffer.channel(channel);
            for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
                samples[frame] += offset;
            }
        }
    }
};

// A processor with up to eight buses on each side.
class KROTestMultiBusProcessor : public KROTestPassThrough {
    KRO_DECLARE_CLASS(KROTestMultiBusProcessor)

public:
    std::uint64_t maximumNumberOfInputBuses() const override { return 8; }
    std::uint64_t maximumNumberOfOutputBuses() const override { return 8; }
};

// A processor that overrides neither initialise operation.
class KROTestPlainProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROTestPlainProcessor)
};

// A render and input head with a buffer of its own, driven block by block.
class KROTestHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROTestHead)

public:
    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        ++initializeForRenderCount;
        return prepare(inputConnection(), error);
    }
    bool initializeForInput(KROErrorPtr* error = nullptr) override {
        ++initializeForInputCount;
        return prepare(outputConnection(), error);
    }
    bool uninitialize(KROErrorPtr* /*error*/ = nullptr) override {
        buffer.reset();
        return true;
    }
    bool start(KROErrorPtr* /*error*/ = nullptr) override {
        ++startCount;
        setRunning(true);
        return true;
    }
    bool stop(KROErrorPtr* /*error*/ = nullptr) override {
        ++stopCount;
        setRunning(false);
        return true;
    }
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (!KROHeadAudioProcessor::setSettings(settings, error)) {
            return false;
        }
        if (const KROPropertyList* value = settings.objectForKey("channels")) {
            channels = static_cast<std::uint32_t>(value->longValue(channels));
        }
        if (const KROPropertyList* value = settings.objectForKey("frames")) {
            frames =
                static_cast<std::uint64_t>(value->longValue(static_cast<std::int64_t>(frames)));
        }
        return true;
    }

    // Part 2.3 Algorithm 1 step 3: one pull of one block.
    void renderBlock() {
        info()->setHostTime(info()->hostTime() + 1);
        info()->setSampleTime(sampleTime);
        if (KROAudioInputBus* bus = inputBus()) {
            bus->render(*buffer, *info());
        }
        sampleTime += static_cast<std::int64_t>(buffer->frames());
    }
    // Part 2.3 Algorithm 1 step 4: one push of one block filled with value.
    void pushBlock(float value) {
        info()->setSampleTime(sampleTime);
        buffer->clear();
        for (std::uint32_t channel = 0; channel < buffer->numberOfChannels(); ++channel) {
            float* const samples = buffer->channel(channel);
            for (std::uint64_t frame = 0; frame < buffer->frames(); ++frame) {
                samples[frame] = value;
            }
        }
        if (KROAudioOutputBus* bus = outputBus()) {
            bus->input(*buffer, *info());
        }
    }

    std::uint32_t channels = 2;
    std::uint64_t frames = 64;
    double sampleRate = 48000.0;
    std::int64_t sampleTime = 0;
    std::shared_ptr<KROAudioBufferList> buffer;
    int initializeForRenderCount = 0;
    int initializeForInputCount = 0;
    int startCount = 0;
    int stopCount = 0;

private:
    bool prepare(KROAudioConnection* connection, KROErrorPtr* error) {
        if (!buffer) {
            buffer = KROAudioBufferList::bufferListWithChannels(channels, frames, error);
            if (!buffer) {
                return false;
            }
        }
        if (connection) {
            connection->setSampleRate(sampleRate);
            connection->setNumberOfChannels(channels);
            connection->setMaxFrames(frames);
        }
        return true;
    }
};

// An I/O mark that can stand on both chains.
class KROTestIOProcessor : public KROIOAudioProcessor {
    KRO_DECLARE_CLASS(KROTestIOProcessor)

public:
    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override {
        ++initializeForRenderCount;
        return true;
    }
    bool initializeForInput(KROErrorPtr* /*error*/ = nullptr) override {
        ++initializeForInputCount;
        return true;
    }

    int initializeForRenderCount = 0;
    int initializeForInputCount = 0;
};

// Counts the two observer messages.
class KROTestObserver : public KROAudioBusObserver {
public:
    void willRender(KROAudioBufferList& buffer, KROAudioBus& /*bus*/,
                    KROAudioStreamRenderInfo& /*info*/) override {
        ++willRenderCount;
        firstSampleBefore = buffer.valueAtFrame(0);
    }
    void didRender(KROAudioBufferList& buffer, KROAudioBus& /*bus*/,
                   KROAudioStreamRenderInfo& /*info*/) override {
        ++didRenderCount;
        firstSampleAfter = buffer.valueAtFrame(0);
    }

    int willRenderCount = 0;
    int didRenderCount = 0;
    float firstSampleBefore = -1.0f;
    float firstSampleAfter = -1.0f;
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

// The sentence Part 1.1 forms from an action and a code of a family.
inline std::string sentence(const std::string& action, const std::string& reasonKey) {
    return action + " " + KROLocalizedString("KROError_conjunction") + " " +
           KROLocalizedString(reasonKey) + ".";
}

// Expects an error of the family with the code and the localized action
// (already formatted) in its sentence.
template <typename Family>
void expectError(const KROErrorPtr& error, std::int64_t code, const std::string& action) {
    ASSERT_NE(error, nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<Family>(error), nullptr) << error->className();
    EXPECT_EQ(error->domain(), Family::errorDomain());
    EXPECT_EQ(error->code(), code);
    const std::string reasonKey =
        Family::staticClassName() + "_failureReason_" + std::to_string(code);
    EXPECT_NE(KROLocalizedString(reasonKey), reasonKey) << "no text for " << reasonKey;
    EXPECT_EQ(error->localizedDescription(), sentence(action, reasonKey));
}

// A buffer list of the shape, every sample set to value.
inline std::shared_ptr<KROAudioBufferList> filledBuffer(std::uint32_t channels,
                                                        std::uint64_t frames, float value) {
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            buffer->setValue(value, frame, channel);
        }
    }
    return buffer;
}

// True when every sample within frames equals value.
inline bool allSamplesAre(const KROAudioBufferList& buffer, float value) {
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            if (buffer.valueAtFrame(frame, channel) != value) {
                return false;
            }
        }
    }
    return true;
}

// A processor entry of a description.
inline KROPropertyList entry(const char* className, const char* identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    if (identifier) {
        entry.setObjectForKey("identifier", identifier);
    }
    return entry;
}

// A connection entry of a description; null leaves that key out.
inline KROPropertyList connection(const char* identifier, const char* input, const char* output) {
    KROPropertyList entry;
    if (identifier) {
        entry.setObjectForKey("identifier", identifier);
    }
    if (input) {
        entry.setObjectForKey("input", input);
    }
    if (output) {
        entry.setObjectForKey("output", output);
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

// head <- p1 <- ... <- pN <- generator, as a description. The head is
// "head", the generator "generator", the pass-throughs "p1" ... "pN".
inline KROPropertyList chainDescription(int passThroughs, float offset = 0.0f) {
    KROPropertyList::Array processors;
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    processors.push_back(head);
    for (int index = 1; index <= passThroughs; ++index) {
        KROPropertyList passThrough =
            entry("KROTestPassThrough", ("p" + std::to_string(index)).c_str());
        passThrough.setObjectForKey("offset", static_cast<double>(offset));
        processors.push_back(passThrough);
    }
    processors.push_back(entry("KROTestGenerator", "generator"));
    KROPropertyList::Array connections;
    std::string downstream = "head";
    for (int index = 1; index <= passThroughs + 1; ++index) {
        const std::string upstream =
            index <= passThroughs ? "p" + std::to_string(index) : std::string("generator");
        const std::string name = "c" + std::to_string(index);
        connections.push_back(connection(name.c_str(), upstream.c_str(), downstream.c_str()));
        downstream = upstream;
    }
    return description(std::move(processors), std::move(connections));
}

template <typename T>
std::shared_ptr<T> processorOf(const KROAudioStream& stream, const std::string& identifier) {
    return std::dynamic_pointer_cast<T>(stream.processorWithIdentifier(identifier));
}

} // namespace kro_graph_test
