// The header probe on a folder of 1,000 small files (WAVE, AIFF, Wave64 and
// AU, a quarter each, written by the library's handlers), beside soxi and
// ffprobe asked for the same length in the same run. Goal: far faster than
// either, since the probe reads headers only. The figures are files per
// second of wall-clock time, as the peers run in processes of their own;
// the ratios of the probe over each peer are printed after the
// table.
//
// soxi reads all the files in one process. ffprobe takes one file a process,
// so it runs on the first KRO_BENCH_PROBE_PEER_FILES files (default 50); its
// figure is per file all the same. KRO_BENCH_PROBE_FILES sets the folder's
// size (default 1000). The folder lies in the temporary directory.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "KROAudioFileAIFFContent.h"
#include "KROAudioFileInfo.h"
#include "KROAudioFileWAV64Content.h"
#include "KROAudioFileWAVEContent.h"
#include "KROBenchmarkSupport.h"
#include "KROURLExtension.h"

namespace {

namespace fs = std::filesystem;

std::size_t countFromEnvironment(const char* name, std::size_t fallback) {
    const char* text = std::getenv(name);
    const long value = text ? std::strtol(text, nullptr, 10) : 0;
    return value > 0 ? static_cast<std::size_t>(value) : fallback;
}

const fs::path& folder() {
    static const fs::path path =
        kro::temporaryDirectory() / ("krocore-probe-bench-" + std::to_string(::getpid()));
    return path;
}

// A tenth of a second of stereo 16-bit at 44.1 kHz in the handler's format.
template <typename Content> fs::path writeSample(const std::string& name) {
    Content content;
    content.setWritingDirectory(folder());
    content.setSampleRate(44100);
    content.setNumberOfChannels(2);
    content.setBitDepth(16);
    const auto block = KROAudioBufferList::bufferListWithChannels(2, 4410);
    block->setFrames(4410);
    const bool written = content.beginWrite() && content.writeAudio(*block) && content.endWrite();
    const fs::path path = folder() / name;
    if (written) {
        fs::rename(content.URL(), path);
    }
    return path;
}

// An AU file of the same samples: header and zeros.
fs::path writeAUSample() {
    const fs::path path = folder() / "sample.au";
    // A 28-byte header, as sox expects at least.
    std::vector<unsigned char> bytes = {'.', 's', 'n', 'd', 0, 0, 0,    28,   0, 0, 0x44, 0xE8,
                                        0,   0,   0,   3,   0, 0, 0xAC, 0x44, 0, 0, 0,    2};
    bytes.resize(28 + 4410 * 4);
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file) {
        std::fwrite(bytes.data(), 1, bytes.size(), file);
        std::fclose(file);
    }
    return path;
}

// The folder's files, made on first use.
const std::vector<fs::path>& files() {
    static const std::vector<fs::path> made = [] {
        fs::create_directories(folder());
        const fs::path samples[] = {writeSample<KROAudioFileWAVEContent>("sample.wav"),
                                    writeSample<KROAudioFileAIFFContent>("sample.aif"),
                                    writeSample<KROAudioFileWAV64Content>("sample.w64"),
                                    writeAUSample()};
        std::vector<fs::path> paths;
        const std::size_t count = countFromEnvironment("KRO_BENCH_PROBE_FILES", 1000);
        for (std::size_t index = 0; index < count; ++index) {
            const fs::path& sample = samples[index % 4];
            paths.push_back(folder() /
                            ("file-" + std::to_string(index) + sample.extension().string()));
            fs::copy_file(sample, paths.back(), fs::copy_options::overwrite_existing);
        }
        for (const fs::path& sample : samples) {
            fs::remove(sample);
        }
        return paths;
    }();
    return made;
}

// Runs the command over the files, one process or one a file; true when all succeed.
bool runPeer(const std::string& command, std::size_t count, bool oneProcess) {
    std::string line = command;
    for (std::size_t index = 0; index < count; ++index) {
        if (oneProcess) {
            line += " " + files()[index].string();
        } else {
            line =
                (index ? line + " && " : std::string()) + command + " " + files()[index].string();
        }
    }
    return std::system(("(" + line + ") > /dev/null").c_str()) == 0;
}

void finish(benchmark::State& state, bool succeeded, std::size_t count) {
    if (!succeeded) {
        state.SkipWithError("a file was not read");
        return;
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}

void registerBenchmarks() {
    benchmark::RegisterBenchmark("probe/KROCore",
                                 [](benchmark::State& state) {
                                     bool ok = true;
                                     for (auto _ : state) {
                                         for (const fs::path& path : files()) {
                                             KROAudioFileInfo info;
                                             ok = info.initWithURL(path) && info.frames() > 0 && ok;
                                             benchmark::DoNotOptimize(info.length());
                                         }
                                     }
                                     finish(state, ok, files().size());
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("probe/soxi",
                                 [](benchmark::State& state) {
                                     bool ok = true;
                                     for (auto _ : state) {
                                         ok = runPeer("soxi -s", files().size(), true) && ok;
                                     }
                                     finish(state, ok, files().size());
                                 })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->UseRealTime();
    benchmark::RegisterBenchmark(
        "probe/ffprobe",
        [](benchmark::State& state) {
            const std::size_t count =
                std::min(files().size(), countFromEnvironment("KRO_BENCH_PROBE_PEER_FILES", 50));
            bool ok = true;
            for (auto _ : state) {
                ok = runPeer("ffprobe -v error -show_entries stream=duration_ts -of csv=p=0", count,
                             false) &&
                     ok;
            }
            finish(state, ok, count);
        })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->UseRealTime();
}

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("items_per_second") {}

    void Finalize() override {
        KROCounterReporter::Finalize();
        const double ours = figure("probe/KROCore");
        std::cout << "\nFiles per second: probe " << std::fixed << std::setprecision(0) << ours
                  << ", soxi " << figure("probe/soxi") << ", ffprobe " << figure("probe/ffprobe")
                  << "\n";
        for (const char* peer : {"soxi", "ffprobe"}) {
            const double theirs = figure(std::string("probe/") + peer);
            if (ours > 0 && theirs > 0) {
                std::cout << "  probe over " << peer << ": " << std::setprecision(1)
                          << ours / theirs << "x\n";
            }
        }
        std::error_code ignored;
        fs::remove_all(folder(), ignored);
    }
};

} // namespace

int main(int argc, char** argv) {
    // Made before any timing starts.
    files();
    registerBenchmarks();
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
