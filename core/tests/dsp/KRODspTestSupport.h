// Chains of the graph tests' head and generator, and raw-float files for outside programs.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <vector>

#include "../graph/KROGraphTestClasses.h"
#include "KROTestCommand.h"

namespace kro_dsp_test {

using kro_graph_test::entry;

using Channels = std::vector<std::vector<float>>;

// An initialised stream of "head" <- ["meter" <-] "source".
struct Chain {
    std::shared_ptr<KROAudioStream> stream = std::make_shared<KROAudioStream>();
    std::shared_ptr<KROTestHead> head;
    // What the source plays for renderSamples; held apart, as chains move.
    struct Tape {
        const Channels* channels = nullptr;
        std::uint64_t start = 0;
    };
    std::shared_ptr<Tape> tape = std::make_shared<Tape>();

    template <typename T> std::shared_ptr<T> get(const char* identifier) const {
        auto processor = std::dynamic_pointer_cast<T>(stream->processorWithIdentifier(identifier));
        EXPECT_NE(processor, nullptr) << identifier;
        return processor;
    }
    template <typename T> std::shared_ptr<T> sourceAs() const { return get<T>("source"); }
    template <typename T> std::shared_ptr<T> meterAs() const { return get<T>("meter"); }
    KROAudioBufferList& render(std::uint64_t frames) { return head->renderBlock(frames); }

    // Renders frames of the channels from frame start, the source playing them: the last channel
    // stands for the rest, and past their end it plays silence. Allocates nothing.
    KROAudioBufferList& renderSamples(const Channels& channels, std::uint64_t start,
                                      std::uint64_t frames) {
        tape->channels = &channels;
        tape->start = start;
        sourceAs<KROTestGenerator>()->signal = [tape = tape.get()](std::uint64_t frame,
                                                                   std::uint32_t channel) {
            const Channels& played = *tape->channels;
            const auto& samples = played[std::min<std::size_t>(channel, played.size() - 1)];
            const std::uint64_t at = tape->start + frame;
            return at < samples.size() ? samples[at] : 0.0f;
        };
        return render(frames);
    }
};

// Offline and running; a failure ends the program rather than go on through null.
inline Chain makeChain(const char* sourceClass, const char* meterClass, std::uint32_t channels,
                       std::uint64_t maxFrames, double sampleRate = 48000.0) {
    KROPropertyList head = kro_graph_test::headEntry("head", true);
    head.setObjectForKey("channels", static_cast<std::int64_t>(channels));
    head.setObjectForKey("maxFrames", static_cast<std::int64_t>(maxFrames));
    head.setObjectForKey("sampleRate", sampleRate);
    KROPropertyList::Array processors{head, entry(sourceClass, "source")};
    KROPropertyList::Array connections{kro_graph_test::connection(nullptr, "source", "head")};
    if (meterClass) {
        processors.push_back(entry(meterClass, "meter"));
        connections = {kro_graph_test::connection(nullptr, "source", "meter"),
                       kro_graph_test::connection(nullptr, "meter", "head")};
    }
    Chain chain;
    if (!chain.stream->initWithDescription(kro_graph_test::description(processors, connections)) ||
        !chain.stream->initialize()) {
        std::fprintf(stderr, "the chain of %s does not build\n", sourceClass);
        std::abort();
    }
    chain.head = chain.get<KROTestHead>("head");
    // Offline and running, as a file render drives a chain.
    chain.head->info()->setRealtime(false);
    chain.head->info()->setRunning(true);
    return chain;
}

// A sine of the amplitude in dB of full scale, seconds long.
inline std::vector<float> sine(double decibels, double hertz, double seconds, double sampleRate) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * sampleRate));
    const double amplitude = std::pow(10.0, decibels / 20.0);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = float(amplitude * std::sin(2.0 * M_PI * hertz * double(i) / sampleRate));
    }
    return samples;
}

// Native 32-bit floats, as `sox -t f32` and numpy's float32 read them.
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

// Samples through a command naming raw float files IN and OUT.
inline std::vector<float> throughCommand(const std::vector<float>& samples, std::string command) {
    const auto in = rawFloatFile("command-in.f32", samples);
    const auto out = in.parent_path() / (in.filename().string() + ".out");
    command.replace(command.find("IN"), 2, "'" + in.string() + "'");
    command.replace(command.find("OUT"), 3, "'" + out.string() + "'");
    const std::string messages = KRORunCommand(command + " 2>&1").output;
    std::ifstream file(out, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    std::vector<float> result(bytes.size() / sizeof(float));
    std::memcpy(result.data(), bytes.data(), result.size() * sizeof(float));
    EXPECT_EQ(result.size(), samples.size()) << messages;
    std::filesystem::remove(in);
    std::filesystem::remove(out);
    return result;
}

inline bool haveProgram(const std::string& name) {
    return KRORunCommand("command -v " + name + " >/dev/null 2>&1").status == 0;
}

} // namespace kro_dsp_test
