// Disk streaming beside its peers, in the same run:
// - an offline render of a file player -> fader at half gain -> file writer,
//   stereo float at 48 kHz, beside `sox IN OUT vol 0.5` on the same file, in
//   times faster than real time (goal: faster than sox);
// - building min-max overview tables of one channel, beside numpy's max and
//   min of each block of 256 samples (timed inside Python, without its start),
//   in frames per second.
// The file lasts KRO_BENCH_STREAMING_SECONDS seconds (default 600, ten
// minutes) and lies in the temporary directory.
#include <benchmark/benchmark.h>

#include <sndfile.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>

#include "KROAudioConnection.h"
#include "KROAudioFileAudioGenerator.h"
#include "KROAudioFileWriterAudioProcessor.h"
#include "KROAudioStream.h"
#include "KROAudioStreamBasicDescription.h"
#include "KROBenchmarkSupport.h"
#include "KROFaderAudioProcessor.h"
#include "KROURLExtension.h"
#include "KROWaveform.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double kRate = 48000.0;

double seconds() {
    const char* text = std::getenv("KRO_BENCH_STREAMING_SECONDS");
    const double value = text ? std::strtod(text, nullptr) : 600.0;
    return value > 0 ? value : 600.0;
}

fs::path benchPath(const std::string& name) {
    return kro::temporaryDirectory() /
           ("krocore-streaming-bench-" + std::to_string(::getpid()) + "-" + name);
}

float sampleAt(std::uint64_t frame, int channel) {
    return float(std::sin(double(frame) * (0.01 + 0.003 * channel)) * 0.7);
}

// The source file, written once by libsndfile: stereo float.
const fs::path& sourceFile() {
    static const fs::path path = [] {
        const fs::path made = benchPath("source.wav");
        SF_INFO info{0, int(kRate), 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
        SNDFILE* file = sf_open(made.c_str(), SFM_WRITE, &info);
        std::vector<float> block(2 * 48000);
        const auto frames = std::uint64_t(seconds() * kRate);
        for (std::uint64_t start = 0; start < frames; start += 48000) {
            const std::uint64_t count = std::min<std::uint64_t>(48000, frames - start);
            for (std::uint64_t i = 0; i < count; ++i) {
                block[2 * i] = sampleAt(start + i, 0);
                block[2 * i + 1] = sampleAt(start + i, 1);
            }
            sf_writef_float(file, block.data(), sf_count_t(count));
        }
        sf_close(file);
        return made;
    }();
    return path;
}

// One render into the temporary directory; its file is removed after.
double renderOnce() {
    auto file = std::make_shared<KROAudioFileAudioGenerator>();
    file->init();
    file->setAudioFile(KROAudioFileReader::readerWithURL(sourceFile()));
    auto fader = std::make_shared<KROFaderAudioProcessor>();
    fader->init();
    fader->setScalar(0.5f);
    auto writer = std::make_shared<KROAudioFileWriterAudioProcessor>();
    writer->init();
    writer->setBaseDirectory(kro::temporaryDirectory());
    writer->setBaseFilename(benchPath("render").filename().string());
    writer->setFormat("WAVE File");
    writer->setEncoding(kAudioFormatLinearPCM);
    writer->setBitDepth(32);
    writer->setFloatingPoint(true);
    writer->setAudioDataByteOrder(1);
    writer->setSampleRate(kRate);
    writer->setNumberOfChannels(2);
    writer->setRange(NSMakeDoubleRange(0.0, seconds()));
    KROAudioStream stream;
    stream.init();
    const std::vector<std::shared_ptr<KROAudioProcessor>> chain{file, fader, writer};
    for (const auto& processor : chain) {
        stream.addProcessorsObject(processor);
    }
    for (std::size_t i = 0; i + 1 < chain.size(); ++i) {
        auto connection = std::make_shared<KROAudioConnection>();
        stream.addConnectionsObject(connection);
        stream.connectOutputBus(*chain[i]->outputBus(), *connection);
        stream.connectInputBus(*chain[i + 1]->inputBus(), *connection);
    }
    stream.setRenderHeadProcessor(writer.get());
    const auto start = Clock::now();
    const bool rendered = stream.initialize() && writer->start();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    stream.uninitialize();
    fs::remove(writer->resultURL());
    return rendered ? elapsed : -1.0;
}

void BM_RenderFilePlayerFaderFileWriter(benchmark::State& state) {
    sourceFile();
    for (auto _ : state) {
        const double elapsed = renderOnce();
        if (elapsed <= 0) {
            state.SkipWithError("the render failed");
            return;
        }
        state.SetIterationTime(elapsed);
        state.counters["rate"] = seconds() / elapsed;
    }
}
BENCHMARK(BM_RenderFilePlayerFaderFileWriter)->UseManualTime()->Iterations(1);

void BM_SoxVolume(benchmark::State& state) {
    const fs::path out = benchPath("sox.wav");
    const std::string command =
        "sox '" + sourceFile().string() + "' '" + out.string() + "' vol 0.5";
    for (auto _ : state) {
        const auto start = Clock::now();
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("sox failed");
            return;
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        state.counters["rate"] = seconds() / elapsed;
    }
    fs::remove(out);
}
BENCHMARK(BM_SoxVolume)->UseManualTime()->Iterations(1);

std::vector<float>& channelSamples() {
    static std::vector<float> samples = [] {
        std::vector<float> made(std::size_t(seconds() * kRate));
        for (std::size_t i = 0; i < made.size(); ++i) {
            made[i] = sampleAt(i, 0);
        }
        return made;
    }();
    return samples;
}

void BM_BuildMinMaxOverview(benchmark::State& state) {
    const auto& samples = channelSamples();
    for (auto _ : state) {
        KROMinMaxWaveform table;
        table.buildFromSamples(samples.data(), samples.size());
        benchmark::DoNotOptimize(table.table().data());
    }
    state.counters["rate"] =
        benchmark::Counter(double(samples.size()), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_BuildMinMaxOverview)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_NumpyMinMax(benchmark::State& state) {
    const auto& samples = channelSamples();
    const fs::path raw = benchPath("channel.f32");
    std::FILE* file = std::fopen(raw.c_str(), "wb");
    std::fwrite(samples.data(), sizeof(float), samples.size(), file);
    std::fclose(file);
    const std::string command =
        "/usr/bin/python3 -c \"import numpy as n, time; s = n.fromfile('" + raw.string() +
        "', dtype=n.float32); t = time.perf_counter(); p = len(s) // 256 * 256; "
        "b = s[:p].reshape(-1, 256); x = b.max(axis=1); m = b.min(axis=1); "
        "r = s[p:]; (r.max(), r.min()) if len(r) else None; "
        "print(time.perf_counter() - t)\"";
    for (auto _ : state) {
        std::FILE* pipe = ::popen(command.c_str(), "r");
        double elapsed = 0.0;
        if (!pipe || std::fscanf(pipe, "%lf", &elapsed) != 1 || elapsed <= 0) {
            state.SkipWithError("numpy failed");
            if (pipe) {
                ::pclose(pipe);
            }
            break;
        }
        ::pclose(pipe);
        state.SetIterationTime(elapsed);
        state.counters["rate"] = double(samples.size()) / elapsed;
    }
    fs::remove(raw);
}
BENCHMARK(BM_NumpyMinMax)->UseManualTime()->Iterations(3);

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("rate") {}
    void printRatios() const {
        const double ours = figure("BM_RenderFilePlayerFaderFileWriter");
        const double sox = figure("BM_SoxVolume");
        const double tables = figure("BM_BuildMinMaxOverview");
        const double numpy = figure("BM_NumpyMinMax");
        std::cout << "\nOffline render of " << seconds() << " s of stereo: " << ours
                  << " times real time; sox vol 0.5: " << sox << " times; ratio "
                  << (sox > 0 ? ours / sox : 0) << "\n";
        std::cout << "Min-max overview: " << tables / 1e6 << " M frames/s; numpy: " << numpy / 1e6
                  << " M frames/s; ratio " << (numpy > 0 ? tables / numpy : 0) << "\n";
    }
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
    fs::remove(benchPath("source.wav"));
    benchmark::Shutdown();
    return 0;
}
