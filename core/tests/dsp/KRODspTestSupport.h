// Chains for the tests of the signal processors, made of the graph tests'
// head and generator, and raw-float files for the programs the tests compare
// with.
#pragma once

#include <cstdio>
#include <cstdlib>
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
    KROAudioBufferList& render(std::uint64_t frames) { return head->renderBlock(frames); }
};

// Builds and initialises the chain; a failure ends the test program, so that
// no test goes on through a null pointer.
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
