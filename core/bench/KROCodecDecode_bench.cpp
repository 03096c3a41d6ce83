// Decoding stereo files of each codec format through its handler and
// through the command-line decoder that wraps the same codec, in the same
// run: sox for CAF, flac -d, oggdec, mpg123 and ffmpeg (ALAC and AAC), each
// writing its samples nowhere. The handler reads floats in blocks of 65536
// frames. Both sides are timed in processor seconds (the program's as its
// child process's), so that a loaded machine slows neither. Goal: no slower
// than the program. The ratios (frames per second of the handler over the
// program's) are printed after the table.
//
// The files last KRO_BENCH_CODEC_SECONDS seconds (default 600, ten minutes)
// and lie in the temporary directory; the reference encoders make them from
// one noisy two-tone file of sox's. The handlers read past the page cache,
// as every handler reads; the programs read through it.
#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <string>

#include "KROAudioFileContent.h"
#include "KROBenchmarkSupport.h"
#include "KROURLExtension.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t blockFrames = 65536;

double seconds() {
    const char* text = std::getenv("KRO_BENCH_CODEC_SECONDS");
    const double value = text ? std::strtod(text, nullptr) : 600.0;
    return value > 0 ? value : 600.0;
}

struct Codec {
    const char* name;
    const char* extension;
    // Makes %o from the source %i.
    const char* encode;
    // Decodes %o to nowhere.
    const char* decode;
};
const Codec codecs[] = {
    {"CAF", "caf", "sox %i -b 24 %o", "sox %o -t raw /dev/null"},
    {"FLAC", "flac", "flac -s -f -o %o %i", "flac -s -d -f -o /dev/null %o"},
    {"Vorbis", "ogg", "oggenc -Q -q 5 -o %o %i", "oggdec -Q -o /dev/null %o"},
    {"MP3", "mp3", "lame --quiet -V 2 %i %o", "mpg123 -q -w /dev/null %o"},
    {"ALAC", "m4a", "ffmpeg -v error -y -i %i -c:a alac %o",
     "ffmpeg -v error -i %o -f f32le -y /dev/null"},
    {"AAC", "m4a", "ffmpeg -v error -y -i %i -c:a aac -b:a 192k %o",
     "ffmpeg -v error -i %o -f f32le -y /dev/null"},
};

fs::path benchPath(const std::string& name) {
    return kro::temporaryDirectory() /
           ("krocore-codec-bench-" + std::to_string(::getpid()) + "-" + name);
}

// The processor time, user and system, of the finished child processes.
double childProcessorSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

std::string replaced(std::string command, const fs::path& input, const fs::path& output) {
    for (const auto& [mark, path] : {std::pair{"%i", input}, std::pair{"%o", output}}) {
        for (std::size_t at; (at = command.find(mark)) != std::string::npos;) {
            std::string quoted = "'";
            quoted += path.string();
            quoted += "'";
            command.replace(at, 2, quoted);
        }
    }
    return command;
}

std::map<std::string, fs::path>& files() {
    static std::map<std::string, fs::path> made;
    return made;
}

// The codec's file, encoded on first use; empty when a program failed.
const fs::path& fileOf(const Codec& codec) {
    fs::path& path = files()[codec.name];
    if (path.empty()) {
        fs::path& source = files()["source"];
        if (source.empty()) {
            source = benchPath("source.wav");
            const std::string make = "sox -n -r 44100 -c 2 -b 16 '" + source.string() + "' synth " +
                                     std::to_string(seconds()) +
                                     " sine 440 sine 660 pinknoise vol 0.3 2>/dev/null";
            if (std::system(make.c_str()) != 0) {
                return source;
            }
        }
        path = benchPath(std::string(codec.name) + "." + codec.extension);
        if (std::system(replaced(codec.encode, source, path).c_str()) != 0) {
            path.clear();
        }
    }
    return path;
}

std::uint64_t decodeHere(const fs::path& path) {
    const auto handler = KROAudioFileContent::fileContentClassAtURL(path);
    const auto content = handler ? handler->makeContent() : nullptr;
    if (!content) {
        return 0;
    }
    content->setURL(path);
    if (!content->parse()) {
        return 0;
    }
    const auto block = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(content->numberOfChannels()), blockFrames);
    std::uint64_t frames = 0;
    for (; frames < content->frames(); frames += block->frames()) {
        block->setFrames(blockFrames);
        if (!content->getAudio(*block, frames)) {
            return 0;
        }
        benchmark::DoNotOptimize(block->channel(0));
    }
    return frames;
}

void registerBenchmarks() {
    for (const Codec& codec : codecs) {
        const std::string name = codec.name;
        benchmark::RegisterBenchmark(
            ("decode/" + name + "/KROCore").c_str(),
            [&codec](benchmark::State& state) {
                // Encoded before the clock runs.
                const fs::path& path = fileOf(codec);
                std::uint64_t frames = 0;
                for (auto _ : state) {
                    frames = decodeHere(path);
                }
                if (frames == 0) {
                    state.SkipWithError("the file did not decode");
                }
                state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * frames));
            })
            ->Unit(benchmark::kMillisecond)
            ->MeasureProcessCPUTime();
        benchmark::RegisterBenchmark(
            ("decode/" + name + "/program").c_str(),
            [&codec](benchmark::State& state) {
                const fs::path& path = fileOf(codec);
                const std::string command = replaced(codec.decode, path, path);
                bool ok = !path.empty();
                for (auto _ : state) {
                    const double before = childProcessorSeconds();
                    ok = std::system(command.c_str()) == 0 && ok;
                    state.SetIterationTime(childProcessorSeconds() - before);
                }
                if (!ok) {
                    state.SkipWithError("the program failed");
                }
                state.SetItemsProcessed(
                    static_cast<std::int64_t>(double(state.iterations()) * seconds() * 44100));
            })
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime();
    }
}

// The table, then each handler figure over the program's.
class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("items_per_second") {}

    void Finalize() override {
        KROCounterReporter::Finalize();
        std::cout << "\nFrames per second of the handler over the decoding program's:\n";
        for (const Codec& codec : codecs) {
            printRatio(std::string("decode/") + codec.name, "KROCore", "program", 14);
        }
        for (const auto& [name, path] : files()) {
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
