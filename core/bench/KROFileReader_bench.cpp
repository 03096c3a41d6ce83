// Sequential reading through KROFileReader in the block sizes the
// format handlers use, beside plain read() of the same file in the same run,
// page cache warm. Goal: at least 0.9x of read(). The ratios are printed
// after the table.
//
// The file is KRO_BENCH_FILE_MB megabytes (default 256), written once per
// run to the temporary directory ($TMPDIR or /tmp) and removed at the end.
// Each iteration reads the whole file, so `ctest`'s single iteration with
// --benchmark_min_time=0.001 finishes within a few seconds; `make bench`
// runs long enough for steady figures. Rates are per CPU second, Google
// Benchmark's default; on a busy machine add --benchmark_repetitions=10
// --benchmark_enable_random_interleaving=true, and the ratios use the medians.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "KROFileReader.h"
#include "KROURLExtension.h"

namespace {

constexpr std::size_t megabyte = std::size_t{1} << 20;

std::size_t fileSize() {
    const char* text = std::getenv("KRO_BENCH_FILE_MB");
    const long megabytes = text ? std::strtol(text, nullptr, 10) : 256;
    return std::size_t(megabytes > 0 ? megabytes : 256) * megabyte;
}

// The test file, written on first use and warmed into the page cache.
class BenchFile {
public:
    static BenchFile& shared() {
        static BenchFile file;
        return file;
    }
    ~BenchFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }
    std::size_t size() const { return size_; }
    bool ready() const { return ready_; }

private:
    BenchFile()
        : path_(kro::temporaryDirectory() /
                ("krocore-bench-" + std::to_string(::getpid()) + ".raw")),
          size_(fileSize()) {
        ready_ = write() && warm();
    }

    bool write() const {
        const int descriptor = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (descriptor < 0) {
            return false;
        }
        std::vector<unsigned char> block(megabyte);
        for (std::size_t index = 0; index < block.size(); ++index) {
            block[index] = static_cast<unsigned char>(index * 31 + 7);
        }
        bool written = true;
        for (std::size_t done = 0; written && done < size_; done += block.size()) {
            written = ::write(descriptor, block.data(), block.size()) == ssize_t(block.size());
        }
        return ::close(descriptor) == 0 && written;
    }

    bool warm() const {
        const int descriptor = ::open(path_.c_str(), O_RDONLY);
        std::vector<char> block(megabyte);
        while (descriptor >= 0 && ::read(descriptor, block.data(), block.size()) > 0) {
        }
        return descriptor >= 0 && ::close(descriptor) == 0;
    }

    std::filesystem::path path_;
    std::size_t size_;
    bool ready_ = false;
};

void readWithSystemCall(benchmark::State& state) {
    const BenchFile& file = BenchFile::shared();
    if (!file.ready()) {
        state.SkipWithError("cannot write the file in the temporary directory");
        return;
    }
    const std::size_t block = std::size_t(state.range(0));
    std::vector<char> buffer(block);
    const int descriptor = ::open(file.path().c_str(), O_RDONLY);
    for (auto _ : state) {
        ::lseek(descriptor, 0, SEEK_SET);
        std::size_t total = 0;
        for (ssize_t count; (count = ::read(descriptor, buffer.data(), block)) > 0;) {
            total += std::size_t(count);
        }
        benchmark::DoNotOptimize(total);
        benchmark::DoNotOptimize(buffer.data());
    }
    ::close(descriptor);
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(file.size()));
}

void readWithFileReader(benchmark::State& state, bool cached) {
    const BenchFile& file = BenchFile::shared();
    if (!file.ready()) {
        state.SkipWithError("cannot write the file in the temporary directory");
        return;
    }
    const std::size_t block = std::size_t(state.range(0));
    std::vector<char> buffer(block);
    KROFileReader reader;
    if (!reader.initWithURL(file.path())) {
        state.SkipWithError("cannot open the file");
        return;
    }
    reader.setCached(cached);
    for (auto _ : state) {
        reader.setPositionToBeginning();
        std::size_t total = 0;
        for (;;) {
            std::size_t length = block;
            const bool whole = reader.getBuffer(buffer.data(), &length);
            total += length;
            if (!whole) {
                break;
            }
        }
        benchmark::DoNotOptimize(total);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(file.size()));
}

void readWithCachedFileReader(benchmark::State& state) {
    readWithFileReader(state, true);
}

// As the handlers use it: parse: switches caching off.
void readWithUncachedFileReader(benchmark::State& state) {
    readWithFileReader(state, false);
}

// Block sizes of the handlers: small header reads, and the 64 KiB and 1 MiB
// audio reads.
void blockSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
}

BENCHMARK(readWithSystemCall)->Apply(blockSizes);
BENCHMARK(readWithCachedFileReader)->Apply(blockSizes);
BENCHMARK(readWithUncachedFileReader)->Apply(blockSizes);

// The console table, then each reader's speed as a ratio of read()'s at the
// same block size (medians when repetitions were asked for).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal, as the library's own reporter does by default.
    RatioReporter() : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) {
                continue;
            }
            const auto rate = run.counters.find("bytes_per_second");
            if (rate == run.counters.end() || run.error_occurred) {
                continue;
            }
            const std::string name = run.run_name.function_name;
            const std::string block = run.run_name.args;
            if (median || !medians_.count(name + "/" + block)) {
                rates_[name][block] = rate->second.value;
            }
            if (median) {
                medians_[name + "/" + block] = true;
            }
        }
    }

    void printRatios() const {
        const auto base = rates_.find("readWithSystemCall");
        if (base == rates_.end()) {
            return;
        }
        std::cout << "\nSequential reading, MB/s and ratio to read() at the same block size:\n";
        for (const auto& [name, byBlock] : rates_) {
            for (const auto& [block, rate] : byBlock) {
                const auto peer = base->second.find(block);
                if (peer == base->second.end() || peer->second <= 0) {
                    continue;
                }
                std::cout << "  " << name << "/" << block << ": " << rate / 1e6 << " MB/s, "
                          << rate / peer->second << "x\n";
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> rates_;
    std::map<std::string, bool> medians_;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
