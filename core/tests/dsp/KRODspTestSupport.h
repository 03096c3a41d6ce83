// Chains of the graph tests' head and generator, and raw-float files for outside programs.
#pragma once

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

// An initialised stream of "head" <- ["meter" <-] "source".
struct Chain {
    std::shared_ptr<KROAudioStream> stream = std::make_shared<KROAudioStream>();
    std::shared_ptr<KROTestHead> head;

    template <typename T> std::shared_ptr<T> get(const char* identifier) const {
        auto processor = std::dynamic_pointer_cast<T>(stream->processorWithIdentifier(identifier));
        EXPECT_NE(processor, nullptr) << identifier;
        return processor;
    }
    template <typename T> std::shared_ptr<T> sourceAs() const { return get<T>("source"); }
    template <typename T> std::shared_ptr<T> meterAs() const { return get<T>("meter"); }
    KROAudioBufferList& render(std::uint64_t frames) { return head->renderBlock(frames); }
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
