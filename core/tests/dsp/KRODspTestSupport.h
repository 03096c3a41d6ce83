// Helpers for the tests of the signal processors: an offline render head, a
// programmable source, a builder of small chains, raw-float files and
// running other programs (sox, python3) as oracles.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// An offline render head (Part 2.3, Algorithm 1): owns a buffer of
// maxFrames frames, writes the format into its input connection and pulls
// one block at a time of any length up to maxFrames. Settings: "channels",
// "maxFrames", "sampleRate".
class KRODspTestHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KRODspTestHead)

public:
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override {
        if (!KROHeadAudioProcessor::setSettings(settings, error)) {
            return false;
        }
        if (const KROPropertyList* value = settings.objectForKey("channels")) {
            channels = static_cast<std::uint32_t>(value->longValue(channels));
        }
        if (const KROPropertyList* value = settings.objectForKey("maxFrames")) {
            maxFrames =
                static_cast<std::uint64_t>(value->longValue(static_cast<std::int64_t>(maxFrames)));
        }
        if (const KROPropertyList* value = settings.objectForKey("sampleRate")) {
            sampleRate = value->doubleValue(sampleRate);
        }
        return true;
    }
    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer = KROAudioBufferList::bufferListWithChannels(channels, maxFrames, error);
        if (!buffer) {
            return false;
        }
        if (KROAudioConnection* connection = inputConnection()) {
            connection->setSampleRate(sampleRate);
            connection->setNumberOfChannels(channels);
            connection->setMaxFrames(maxFrames);
        }
        info()->setRealtime(false);
        info()->setRunning(true);
        info()->setSampleTime(0);
        return true;
    }
    bool uninitialize(KROErrorPtr* /*error*/ = nullptr) override {
        buffer.reset();
        return true;
    }
    bool start(KROErrorPtr* /*error*/ = nullptr) override {
        setRunning(true);
        return true;
    }
    bool stop(KROErrorPtr* /*error*/ = nullptr) override {
        setRunning(false);
        return true;
    }

    // One pull of frames frames; the filled buffer stays in `buffer`.
    KROAudioBufferList& renderBlock(std::uint64_t frames) {
        buffer->setFrames(frames);
        if (KROAudioInputBus* bus = inputBus()) {
            bus->render(*buffer, *info());
        }
        info()->setSampleTime(info()->sampleTime() + static_cast<std::int64_t>(frames));
        return *buffer;
    }

    std::uint32_t channels = 2;
    std::uint64_t maxFrames = 512;
    double sampleRate = 48000.0;
    std::shared_ptr<KROAudioBufferList> buffer;
};

// A generator whose samples come from a function of frame (within the block)
// and channel; silence without one.
class KRODspTestSource : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KRODspTestSource)

public:
    using Signal = std::function<float(std::uint64_t frame, std::uint32_t channel)>;

    bool initializeForRender(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                KROAudioStreamRenderInfo& /*info*/) override {
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            float* samples = buffer.channel(channel);
            for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
                samples[frame] = signal ? signal(frame, channel) : 0.0f;
            }
        }
    }

    Signal signal;
};

KRO_REGISTER_CLASS(KRODspTestHead, KROHeadAudioProcessor)
KRO_REGISTER_CLASS(KRODspTestSource, KROAudioGenerator)

namespace kro_dsp_test {

// A stream of head <- [meter <-] source, built from a description and
// initialised: "head", "meter", "source".
struct Chain {
    std::shared_ptr<KROAudioStream> stream;
    std::shared_ptr<KRODspTestHead> head;
    std::shared_ptr<KROAudioProcessor> source;
    std::shared_ptr<KROAudioProcessor> meter;

    // The source or meter as a T; a chain built wrongly ends the test program,
    // so that no test goes on through a null pointer.
    template <typename T> std::shared_ptr<T> sourceAs() const { return required<T>(source); }
    template <typename T> std::shared_ptr<T> meterAs() const { return required<T>(meter); }
    // The source as a T, or none when it is of another class.
    template <typename T> std::shared_ptr<T> sourceIf() const {
        return std::dynamic_pointer_cast<T>(source);
    }

private:
    template <typename T, typename U>
    static std::shared_ptr<T> required(const std::shared_ptr<U>& p) {
        auto cast = std::dynamic_pointer_cast<T>(p);
        if (!cast) {
            std::fprintf(stderr, "the chain has no %s\n", T::staticClassName().c_str());
            std::abort();
        }
        return cast;
    }
};

inline KROPropertyList processorEntry(const std::string& className, const std::string& identifier) {
    KROPropertyList entry;
    entry.setObjectForKey("class", className);
    entry.setObjectForKey("identifier", identifier);
    return entry;
}

inline KROPropertyList connectionEntry(const std::string& input, const std::string& output) {
    KROPropertyList entry;
    entry.setObjectForKey("identifier", input + "-to-" + output);
    entry.setObjectForKey("input", input);
    entry.setObjectForKey("output", output);
    return entry;
}

inline Chain makeChain(const std::string& sourceClass, const std::string& meterClass,
                       std::uint32_t channels, std::uint64_t maxFrames, double sampleRate) {
    KROPropertyList head = processorEntry("KRODspTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    head.setObjectForKey("channels", static_cast<std::int64_t>(channels));
    head.setObjectForKey("maxFrames", static_cast<std::int64_t>(maxFrames));
    head.setObjectForKey("sampleRate", sampleRate);
    KROPropertyList::Array processors{head, processorEntry(sourceClass, "source")};
    KROPropertyList::Array connections;
    if (meterClass.empty()) {
        connections.push_back(connectionEntry("source", "head"));
    } else {
        processors.push_back(processorEntry(meterClass, "meter"));
        connections.push_back(connectionEntry("source", "meter"));
        connections.push_back(connectionEntry("meter", "head"));
    }
    KROPropertyList description;
    description.setObjectForKey("processors", std::move(processors));
    description.setObjectForKey("connections", std::move(connections));

    Chain chain;
    chain.stream = std::make_shared<KROAudioStream>();
    KROErrorPtr error;
    EXPECT_TRUE(chain.stream->initWithDescription(description, &error))
        << (error ? error->localizedDescription() : "no error");
    EXPECT_TRUE(chain.stream->initialize(&error))
        << (error ? error->localizedDescription() : "no error");
    chain.head =
        std::dynamic_pointer_cast<KRODspTestHead>(chain.stream->processorWithIdentifier("head"));
    chain.source = chain.stream->processorWithIdentifier("source");
    chain.meter = chain.stream->processorWithIdentifier("meter");
    return chain;
}

// A file in the test binary's folder, unique to this process.
inline std::filesystem::path scratchFile(const std::string& name) {
    const std::filesystem::path folder = std::filesystem::path(KRO_TEST_BINARY_DIR) / "dsp-scratch";
    std::filesystem::create_directories(folder);
    return folder / (std::to_string(::getpid()) + "-" + name);
}

// Native-endian 32-bit floats, as `sox -t f32` and numpy's float32 read them.
inline void writeRawFloats(const std::filesystem::path& path, const float* samples,
                           std::size_t count) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(samples),
               static_cast<std::streamsize>(count * sizeof(float)));
}

// Runs a shell command and returns its standard output and error; empty
// when it cannot be run.
inline std::string runCommand(const std::string& command) {
    return KRORunCommand(command + " 2>&1").output;
}

// The samples of a file of native 32-bit floats; none when it is missing.
inline std::vector<float> readRawFloats(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

// Samples run through an outside program: command names its input file IN
// and its output file OUT, both raw 32-bit floats.
inline std::vector<float> throughCommand(const std::vector<float>& samples, std::string command) {
    const auto in = scratchFile("command-in.f32");
    const auto out = scratchFile("command-out.f32");
    writeRawFloats(in, samples.data(), samples.size());
    command.replace(command.find("IN"), 2, "'" + in.string() + "'");
    command.replace(command.find("OUT"), 3, "'" + out.string() + "'");
    const std::string messages = runCommand(command);
    auto result = readRawFloats(out);
    EXPECT_EQ(result.size(), samples.size()) << messages;
    std::filesystem::remove(in);
    std::filesystem::remove(out);
    return result;
}

inline bool haveProgram(const std::string& name) {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

} // namespace kro_dsp_test
