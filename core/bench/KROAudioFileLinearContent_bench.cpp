// Writing and reading WAVE files of stereo 16-bit, 24-bit and float samples
// and AIFF files of 16 and 24-bit samples at 48 kHz, through the handlers and
// through libsndfile in the same run, each in its own shape of floats: the
// handlers non-interleaved, libsndfile interleaved, both in blocks of 65536
// frames. Reading has a second libsndfile row, "libsndfile-channels": its
// interleaved block then split into the handlers' shape, which is what a host
// of this library that read through libsndfile would do. Goal: at least as
// fast as libsndfile. The ratios (frames per second of a handler over each
// libsndfile row) are printed after the table.
//
// The files last KRO_BENCH_FILE_SECONDS seconds (default 600, ten minutes)
// and lie in the temporary directory ($TMPDIR or /tmp). Both sides read the
// same file, written by libsndfile and warm in the page cache.
#include <benchmark/benchmark.h>

#include <sndfile.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "KROAudioFileAIFFContent.h"
#include "KROAudioFileWAVEContent.h"
#include "KROBenchmarkSupport.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t blockFrames = 65536;
constexpr double sampleRate = 48000;
constexpr std::uint32_t channels = 2;

std::uint64_t totalFrames() {
    const char* text = std::getenv("KRO_BENCH_FILE_SECONDS");
    const double seconds = text ? std::strtod(text, nullptr) : 600.0;
    return static_cast<std::uint64_t>((seconds > 0 ? seconds : 600.0) * sampleRate);
}

struct SampleFormat;
using Writer = bool (*)(const SampleFormat&);
using Reader = std::uint64_t (*)(const std::filesystem::path&);

struct SampleFormat {
    const char* name;
    std::uint64_t bitDepth;
    bool isFloat;
    int libsndfileFormat;
    Writer write;
    Reader read;
};

template <typename Content> bool writeWithKROCore(const SampleFormat& format);
template <typename Content> std::uint64_t readWithKROCore(const fs::path& path);

constexpr auto writeWAVE = writeWithKROCore<KROAudioFileWAVEContent>;
constexpr auto readWAVE = readWithKROCore<KROAudioFileWAVEContent>;
constexpr auto writeAIFF = writeWithKROCore<KROAudioFileAIFFContent>;
constexpr auto readAIFF = readWithKROCore<KROAudioFileAIFFContent>;
const SampleFormat formats[] = {
    {"WAVE/16-bit", 16, false, SF_FORMAT_WAV | SF_FORMAT_PCM_16, writeWAVE, readWAVE},
    {"WAVE/24-bit", 24, false, SF_FORMAT_WAV | SF_FORMAT_PCM_24, writeWAVE, readWAVE},
    {"WAVE/float", 32, true, SF_FORMAT_WAV | SF_FORMAT_FLOAT, writeWAVE, readWAVE},
    {"AIFF/16-bit", 16, false, SF_FORMAT_AIFF | SF_FORMAT_PCM_16, writeAIFF, readAIFF},
    {"AIFF/24-bit", 24, false, SF_FORMAT_AIFF | SF_FORMAT_PCM_24, writeAIFF, readAIFF},
};

fs::path benchPath(const std::string& name) {
    return kro::temporaryDirectory() /
           ("krocore-file-bench-" + std::to_string(::getpid()) + "-" + name);
}

// A quiet sine-like ramp, the same in both shapes.
float sampleAt(std::uint64_t frame, std::uint32_t channel) {
    return static_cast<float>(int((frame * (channel + 3)) % 2000) - 1000) / 2048.0f;
}

std::shared_ptr<KROAudioBufferList> planarBlock() {
    auto block = KROAudioBufferList::bufferListWithChannels(channels, blockFrames);
    for (std::uint64_t frame = 0; frame < blockFrames; ++frame) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            block->channel(channel)[frame] = sampleAt(frame, channel);
        }
    }
    return block;
}

std::vector<float> interleavedBlock() {
    std::vector<float> block(blockFrames * channels);
    for (std::uint64_t frame = 0; frame < blockFrames; ++frame) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            block[frame * channels + channel] = sampleAt(frame, channel);
        }
    }
    return block;
}

bool writeWithLibsndfile(const fs::path& path, const SampleFormat& format) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(sampleRate);
    info.channels = channels;
    info.format = format.libsndfileFormat;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file) {
        return false;
    }
    static const std::vector<float> block = interleavedBlock();
    for (std::uint64_t done = 0; done < totalFrames(); done += blockFrames) {
        const auto count = static_cast<sf_count_t>(std::min(blockFrames, totalFrames() - done));
        sf_writef_float(file, block.data(), count);
    }
    return sf_close(file) == 0;
}

template <typename Content> bool writeWithKROCore(const SampleFormat& format) {
    Content content;
    content.setWritingDirectory(kro::temporaryDirectory());
    content.setSampleRate(sampleRate);
    content.setNumberOfChannels(channels);
    content.setBitDepth(format.bitDepth);
    content.setIsFloatingPoint(format.isFloat);
    static const auto block = planarBlock();
    bool written = content.beginWrite();
    for (std::uint64_t done = 0; written && done < totalFrames(); done += blockFrames) {
        block->setFrames(std::min(blockFrames, totalFrames() - done));
        written = content.writeAudio(*block);
    }
    written = content.endWrite() && written;
    fs::remove(content.URL());
    return written;
}

// The files both readers read, by format name.
std::map<std::string, fs::path>& sourceFiles() {
    static std::map<std::string, fs::path> files;
    return files;
}

// Written on first use.
const fs::path& sourceFile(const SampleFormat& format) {
    auto& path = sourceFiles()[format.name];
    if (path.empty()) {
        path = benchPath("source-" + std::to_string(&format - formats));
        writeWithLibsndfile(path, format);
    }
    return path;
}

// Each frame's samples to their channels, frame by frame: the faster of the
// two loop orders a host might write, on this kind of machine.
void splitIntoChannels(const std::vector<float>& interleaved, std::uint64_t frames,
                       KROAudioBufferList& block) {
    std::array<float*, channels> samples{};
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        samples[channel] = block.channel(channel);
    }
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            samples[channel][frame] = interleaved[frame * channels + channel];
        }
    }
}

// Interleaved blocks, split into channels when the list is given.
std::uint64_t readThroughLibsndfile(const fs::path& path, KROAudioBufferList* split) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) {
        return 0;
    }
    std::vector<float> interleaved(blockFrames * channels);
    std::uint64_t frames = 0;
    for (sf_count_t count; (count = sf_readf_float(file, interleaved.data(), blockFrames)) > 0;) {
        if (split) {
            splitIntoChannels(interleaved, static_cast<std::uint64_t>(count), *split);
            benchmark::DoNotOptimize(split->channel(0));
        }
        frames += static_cast<std::uint64_t>(count);
        benchmark::DoNotOptimize(interleaved.data());
    }
    sf_close(file);
    return frames;
}

std::uint64_t readWithLibsndfile(const fs::path& path) {
    return readThroughLibsndfile(path, nullptr);
}

std::uint64_t readWithLibsndfileIntoChannels(const fs::path& path) {
    const auto block = KROAudioBufferList::bufferListWithChannels(channels, blockFrames);
    return readThroughLibsndfile(path, block.get());
}

template <typename Content> std::uint64_t readWithKROCore(const fs::path& path) {
    Content content;
    content.setURL(path);
    if (!content.parse()) {
        return 0;
    }
    const auto block = KROAudioBufferList::bufferListWithChannels(channels, blockFrames);
    std::uint64_t frames = 0;
    for (; frames < content.frames(); frames += block->frames()) {
        block->setFrames(blockFrames);
        if (!content.getAudio(*block, frames)) {
            return 0;
        }
        benchmark::DoNotOptimize(block->channel(0));
    }
    return frames;
}

void finish(benchmark::State& state, bool succeeded) {
    if (!succeeded) {
        state.SkipWithError("cannot write or read in the temporary directory");
        return;
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * totalFrames()));
}

void registerRead(const SampleFormat& format, const char* reader, Reader read) {
    benchmark::RegisterBenchmark(("read/" + std::string(format.name) + "/" + reader).c_str(),
                                 [&format, read](benchmark::State& state) {
                                     bool ok = true;
                                     for (auto _ : state) {
                                         ok = read(sourceFile(format)) == totalFrames() && ok;
                                     }
                                     finish(state, ok);
                                 })
        ->Unit(benchmark::kMillisecond);
}

void registerBenchmarks() {
    for (const SampleFormat& format : formats) {
        const std::string name = format.name;
        benchmark::RegisterBenchmark(("write/" + name + "/KROCore").c_str(),
                                     [&format](benchmark::State& state) {
                                         bool ok = true;
                                         for (auto _ : state) {
                                             ok = format.write(format) && ok;
                                         }
                                         finish(state, ok);
                                     })
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("write/" + name + "/libsndfile").c_str(),
                                     [&format](benchmark::State& state) {
                                         const fs::path path = benchPath("written");
                                         bool ok = true;
                                         for (auto _ : state) {
                                             ok = writeWithLibsndfile(path, format) && ok;
                                             fs::remove(path);
                                         }
                                         finish(state, ok);
                                     })
            ->Unit(benchmark::kMillisecond);
        registerRead(format, "KROCore", format.read);
        registerRead(format, "libsndfile", readWithLibsndfile);
        registerRead(format, "libsndfile-channels", readWithLibsndfileIntoChannels);
    }
}

// The table, then each handler figure over libsndfile's.
class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("items_per_second") {}

    void Finalize() override {
        KROCounterReporter::Finalize();
        std::cout << "\nFrames per second of the handlers over libsndfile's:\n";
        for (const char* direction : {"write", "read"}) {
            for (const SampleFormat& format : formats) {
                printRatio(std::string(direction) + "/" + format.name, "KROCore", "libsndfile", 18);
            }
        }
        std::cout << "\nRead, over libsndfile's frames split into channels:\n";
        for (const SampleFormat& format : formats) {
            printRatio(std::string("read/") + format.name, "KROCore", "libsndfile-channels", 18);
        }
        for (const auto& [name, path] : sourceFiles()) {
            std::error_code ignored;
            fs::remove(path, ignored);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    registerBenchmarks();
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
