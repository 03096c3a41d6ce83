// A graph built and initialised from processor entries, a test "head" rendering.
#pragma once

#include <string>
#include <vector>

#include "KROGraphTestClasses.h"

namespace kro_shaping_test {

using namespace kro_graph_test;

struct Graph {
    std::shared_ptr<KROAudioStream> stream;
    std::shared_ptr<KROTestHead> head;

    template <typename T> std::shared_ptr<T> get(const std::string& identifier) const {
        return processorOf<T>(*stream, identifier);
    }
};

// Without connections the processors form a chain: head <- processors[0] <- ...
inline Graph graph(const KROPropertyList::Array& processors,
                   KROPropertyList::Array connections = {}, std::int64_t channels = 2,
                   std::int64_t frames = 64) {
    KROPropertyList head = entry("KROTestHead", "head");
    head.setObjectForKey("isRenderHead", true);
    head.setObjectForKey("channels", channels);
    head.setObjectForKey("maxFrames", frames);
    KROPropertyList::Array all{head};
    std::string downstream = "head";
    const bool chain = connections.empty();
    for (const KROPropertyList& processor : processors) {
        all.push_back(processor);
        const std::string identifier = *processor.objectForKey("identifier")->stringValue();
        if (chain) {
            connections.push_back(connection(nullptr, identifier.c_str(), downstream.c_str()));
            downstream = identifier;
        }
    }
    Graph graph{std::make_shared<KROAudioStream>(), nullptr};
    KROErrorPtr error;
    EXPECT_TRUE(graph.stream->initWithDescription(description(all, connections), &error));
    EXPECT_TRUE(graph.stream->initialize(&error)) << (error ? error->description() : "");
    graph.head = processorOf<KROTestHead>(*graph.stream, "head");
    return graph;
}

} // namespace kro_shaping_test
