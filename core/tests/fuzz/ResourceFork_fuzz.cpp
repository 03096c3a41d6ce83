// The resource-fork parser on random bytes, as a container and as a raw fork.
#include <cstddef>
#include <cstdint>

#include "KROResourceForkParser.h"

namespace {

// Touches every field so that a resource built from bad offsets is read whole.
std::size_t walk(const KROFileResources& resources) {
    std::size_t total = 0;
    for (const auto& resource : resources) {
        total += resource->type() + static_cast<std::size_t>(resource->ID());
        total += resource->name().size() + resource->data().size();
        for (std::uint8_t byte : resource->data()) {
            total += byte;
        }
    }
    return total;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const KROResourceForkParser::Bytes input(data, size);
    volatile std::size_t sink = 0;
    if (const auto fork = KROResourceForkParser::forkFromContainer(input)) {
        if (const auto resources = KROResourceForkParser::resourcesFromFork(*fork)) {
            sink = sink + walk(*resources);
        }
    }
    if (const auto resources = KROResourceForkParser::resourcesFromFork(input)) {
        sink = sink + walk(*resources);
    }
    sink = sink + KROResourceForkParser::stringFromMacRoman(input).size();
    return 0;
}
