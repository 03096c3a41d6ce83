// The sample format converter on the file handlers' two paths, 10 s
// of stereo at 44.1 kHz, beside libsndfile doing the same conversion in the
// same run over a memory file (sf_open_virtual):
//
//   read   16-bit, 24-bit and 32-bit float interleaved little-endian bytes to
//          the working format (non-interleaved float), by convertInput as
//          the handlers read; libsndfile by sf_readf_float.
//   write  the working format back to those bytes, by convertAudioBuffer as
//          the handlers write; libsndfile by sf_writef_float.
//
// libsndfile gives and takes interleaved floats, so its side does no
// (de-)interleaving; ours does, and clips, which libsndfile does not by
// default. Every benchmark reports MB/s of its input; the table at the end
// gives each case's MB/s and the ratio ours / libsndfile. Goal: at least 1.
#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KROAudioConverter.h"
#include "KROBenchmarkSupport.h"

namespace {

constexpr std::uint32_t kChannels = 2;
constexpr std::uint64_t kFrames = 441000; // 10 s at 44.1 kHz

struct Case {
    const char* name;
    AudioFormatFlags flags;
    std::uint32_t bits;
    int libsndfile;
};

const Case kCases[] = {
    {"s16", kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 16, SF_FORMAT_PCM_16},
    {"s24", kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 24, SF_FORMAT_PCM_24},
    {"f32", kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked, 32, SF_FORMAT_FLOAT},
};

std::shared_ptr<KROAudioStreamDescription> fileFormat(const Case& c) {
    const auto format = KROAudioStreamDescription::descriptionWithSampleRate(44100, kChannels);
    format->setFlags(c.flags);
    format->setBitDepth(c.bits);
    return format;
}

std::uint64_t fileBytes(const Case& c) {
    return kFrames * kChannels * c.bits / 8;
}

// Interleaved file bytes of noise, as libsndfile writes them.
std::vector<std::uint8_t> noiseBytes(const Case& c) {
    std::mt19937 generator(7);
    std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
    std::vector<std::uint8_t> bytes(fileBytes(c));
    if (c.flags & kAudioFormatFlagIsFloat) {
        std::vector<float> values(kFrames * kChannels);
        for (float& value : values) {
            value = noise(generator);
        }
        std::memcpy(bytes.data(), values.data(), bytes.size());
    } else {
        for (auto& byte : bytes) {
            byte = static_cast<std::uint8_t>(generator());
        }
    }
    return bytes;
}

// ---- libsndfile over memory ------------------------------------------------

struct MemoryFile {
    std::vector<std::uint8_t> bytes;
    sf_count_t position = 0;

    static sf_count_t length(void* self) {
        return sf_count_t(static_cast<MemoryFile*>(self)->bytes.size());
    }
    static sf_count_t seek(sf_count_t offset, int whence, void* self) {
        auto& file = *static_cast<MemoryFile*>(self);
        const sf_count_t base = whence == SEEK_SET   ? 0
                                : whence == SEEK_CUR ? file.position
                                                     : sf_count_t(file.bytes.size());
        file.position = base + offset;
        return file.position;
    }
    static sf_count_t read(void* destination, sf_count_t count, void* self) {
        auto& file = *static_cast<MemoryFile*>(self);
        const sf_count_t n = std::min(count, sf_count_t(file.bytes.size()) - file.position);
        std::memcpy(destination, file.bytes.data() + file.position, std::size_t(n));
        file.position += n;
        return n;
    }
    static sf_count_t write(const void* source, sf_count_t count, void* self) {
        auto& file = *static_cast<MemoryFile*>(self);
        const sf_count_t n = std::min(count, sf_count_t(file.bytes.size()) - file.position);
        std::memcpy(file.bytes.data() + file.position, source, std::size_t(n));
        file.position += n;
        return n;
    }
    static sf_count_t tell(void* self) { return static_cast<MemoryFile*>(self)->position; }
};

SNDFILE* openMemory(MemoryFile& file, const Case& c, int mode) {
    static SF_VIRTUAL_IO io{MemoryFile::length, MemoryFile::seek, MemoryFile::read,
                            MemoryFile::write, MemoryFile::tell};
    SF_INFO info{};
    info.samplerate = 44100;
    info.channels = kChannels;
    info.format = SF_FORMAT_RAW | c.libsndfile | SF_ENDIAN_LITTLE;
    return sf_open_virtual(&io, mode, &info, &file);
}

void reportBytes(benchmark::State& state, std::uint64_t bytes) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

// ---- The four benchmarks ---------------------------------------------------

void ourRead(benchmark::State& state, const Case& c) {
    const auto bytes = noiseBytes(c);
    const auto converter = KROAudioConverter::converterWithSourceFormat(
        *fileFormat(c), *KROAudioStreamDescription::descriptionWithSampleRate(44100, kChannels));
    const auto list = KROAudioBufferList::bufferListWithChannels(kChannels, kFrames);
    for (auto _ : state) {
        if (!converter->convertInput(bytes.data(), bytes.size(), *list)) {
            state.SkipWithError("convertInput failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    reportBytes(state, bytes.size());
}

void libsndfileRead(benchmark::State& state, const Case& c) {
    MemoryFile file{noiseBytes(c)};
    SNDFILE* sound = openMemory(file, c, SFM_READ);
    std::vector<float> values(kFrames * kChannels);
    for (auto _ : state) {
        sf_seek(sound, 0, SEEK_SET);
        if (sf_readf_float(sound, values.data(), kFrames) != sf_count_t(kFrames)) {
            state.SkipWithError("sf_readf_float failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    sf_close(sound);
    reportBytes(state, fileBytes(c));
}

void ourWrite(benchmark::State& state, const Case& c) {
    const auto working = KROAudioStreamDescription::descriptionWithSampleRate(44100, kChannels);
    const auto toFloat = KROAudioConverter::converterWithSourceFormat(*fileFormat(c), *working);
    const auto converter = KROAudioConverter::converterWithSourceFormat(*working, *fileFormat(c));
    const auto list = KROAudioBufferList::bufferListWithChannels(kChannels, kFrames);
    const auto bytes = noiseBytes(c);
    toFloat->convertInput(bytes.data(), bytes.size(), *list);
    const auto output = KROBufferList::bufferListWithNumberOfBuffers(1, fileBytes(c));
    for (auto _ : state) {
        if (converter->convertAudioBuffer(*list, *output) != kFrames) {
            state.SkipWithError("convertAudioBuffer failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    reportBytes(state, kFrames * kChannels * sizeof(float));
}

void libsndfileWrite(benchmark::State& state, const Case& c) {
    MemoryFile file{std::vector<std::uint8_t>(fileBytes(c))};
    SNDFILE* sound = openMemory(file, c, SFM_WRITE);
    std::vector<float> values(kFrames * kChannels);
    std::mt19937 generator(7);
    std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
    for (float& value : values) {
        value = noise(generator);
    }
    for (auto _ : state) {
        sf_seek(sound, 0, SEEK_SET);
        if (sf_writef_float(sound, values.data(), kFrames) != sf_count_t(kFrames)) {
            state.SkipWithError("sf_writef_float failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    sf_close(sound);
    reportBytes(state, kFrames * kChannels * sizeof(float));
}

// ---- Report ----------------------------------------------------------------

// The console output, then a table of MB/s of input and of the ratio
// ours / libsndfile, measured in the same run.
class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("bytes_per_second", 1e-6) {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-12s %12s %14s %8s\n", "case", "ours MB/s", "libsndfile MB/s", "ratio");
        for (const char* direction : {"read", "write"}) {
            for (const Case& c : kCases) {
                const std::string name = std::string(direction) + "/" + c.name;
                const double ours = figure("kro/" + name);
                const double theirs = figure("libsndfile/" + name);
                if (ours == 0.0 && theirs == 0.0) {
                    continue;
                }
                std::printf("%-12s %12.0f %14.0f %8.2f\n", name.c_str(), ours, theirs,
                            theirs > 0 ? ours / theirs : 0.0);
            }
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    for (const Case& c : kCases) {
        const std::string name = c.name;
        benchmark::RegisterBenchmark(("kro/read/" + name).c_str(), ourRead, c);
        benchmark::RegisterBenchmark(("libsndfile/read/" + name).c_str(), libsndfileRead, c);
        benchmark::RegisterBenchmark(("kro/write/" + name).c_str(), ourWrite, c);
        benchmark::RegisterBenchmark(("libsndfile/write/" + name).c_str(), libsndfileWrite, c);
    }
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
