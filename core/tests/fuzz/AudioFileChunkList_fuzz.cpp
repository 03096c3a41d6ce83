// The chunk walkers on a file walked as RIFF, IFF, Wave64 and CAF, each chunk
// then read as a handler reads a damaged file. An allocation beyond the
// file's size is a finding too.
#include <cstddef>
#include <cstdint>
#include <string>

#include "KROAIFFChunkList.h"
#include "KROCAFChunkList.h"
#include "KROFileReader.h"
#include "KROFuzzInputFile.h"
#include "KROWAV64ChunkList.h"
#include "KROWAVEChunkList.h"

namespace {

std::size_t readAt(const KROAudioFileChunk& chunk, std::uint64_t position) {
    // Summed as doubles: the values are whatever the file holds.
    const double values =
        double(chunk.charValueAtPosition(position)) + double(chunk.shortValueAtPosition(position)) +
        double(chunk.intValueAtPosition(position)) +
        double(chunk.longLongValueAtPosition(position)) +
        double(chunk.floatValueAtPosition(position)) + chunk.doubleValueAtPosition(position) +
        chunk.float80ValueAtPosition(position) + double(chunk.fourCharCodeAtPosition(position));
    return (values != 0.0) + chunk.pascalStringAtPosition(position).value_or("").size() +
           chunk.cStringAtPosition(position).value_or("").size() +
           chunk.unicharStringAtPosition(position, 64).value_or("").size() +
           chunk.stringAtPosition(position, 32).value_or("").size() +
           chunk.stringAtPosition(position, KROAudioFileChunk::toEnd).value_or("").size() +
           chunk.dataAtPosition(position, 16).value_or(KROData{}).size();
}

// Sub-chunks stepped by their sizes, whatever those claim.
std::size_t stepThroughEntries(const KROAudioFileChunk& chunk) {
    std::size_t total = 0;
    std::uint64_t offset = 4;
    for (int entries = 0; entries < 64 && offset < chunk.dataLength(); ++entries) {
        const auto size = static_cast<std::uint32_t>(chunk.intValueAtPosition(offset + 4));
        total += chunk.cStringAtPosition(offset + 8).value_or("").size();
        total += chunk.dataAtPosition(offset + 8, size).value_or(KROData{}).size();
        offset += 8 + std::uint64_t{size} + (size & 1);
    }
    return total;
}

std::size_t exercise(KROAudioFileChunk& chunk, std::uint64_t chosen) {
    const std::uint64_t length = chunk.dataLength();
    std::size_t total = chunk.description().size();
    for (const std::uint64_t position : {std::uint64_t{0}, std::uint64_t{1}, length - 10,
                                         length - 4, length - 1, length, chosen}) {
        total += readAt(chunk, position);
    }
    total += stepThroughEntries(chunk);
    total += chunk.stringForID(static_cast<std::uint32_t>(chosen)).value_or("").size();
    chunk.loadFromFile();
    total += chunk.data() ? chunk.data()->size() : 0;
    return total + readAt(chunk, chosen);
}

template <typename List> std::size_t walk(KROFileReader& reader, std::uint64_t chosen) {
    List list;
    list.initWithFileReader(reader);
    std::size_t total = list.description().size();
    for (const auto& chunk : list.list()) {
        total += exercise(*chunk, chosen);
    }
    return total;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = KROFuzzInputPath(data, size);
    // A position taken from the input, so that reads reach every part of a chunk.
    std::uint64_t chosen = 0;
    for (std::size_t i = 0; i < size && i < 8; ++i) {
        chosen = (chosen << 8) | data[size - 1 - i];
    }
    // The reader streams the file or holds it in memory, as the last byte says.
    const bool inMemory = size > 0 && (data[size - 1] & 1) != 0;
    KROFileReader reader;
    if (!reader.initWithURL(path) || (inMemory && !reader.loadIntoMemory())) {
        return 0;
    }
    volatile std::size_t sink = walk<KROWAVEChunkList>(reader, chosen);
    sink = sink + walk<KROAIFFChunkList>(reader, chosen);
    sink = sink + walk<KROWAV64ChunkList>(reader, chosen);
    sink = sink + walk<KROCAFChunkList>(reader, chosen);
    return 0;
}
