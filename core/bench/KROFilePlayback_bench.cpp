// How many files the playback disk thread keeps fed at once: N file players
// (each its own reader of a stereo float file) mixed and played through a
// transport to a private JACK server with the dummy backend at 256 frames.
// A block in which any player gives a zero sample (the files hold none) means
// the ring was not ready in time. N doubles from 8 up to
// KRO_PLAYBACK_BENCH_MAX_FILES (default 128) while no block of
// KRO_PLAYBACK_BENCH_SECONDS (default 2) seconds of play went silent; the
// largest such N is the figure.
#include <benchmark/benchmark.h>

#include <sndfile.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include "KROAudioConnection.h"
#include "KROAudioFileAudioGenerator.h"
#include "KROAudioStream.h"
#include "KROBenchmarkSupport.h"
#include "KROConductorAudioProcessor.h"
#include "KROJACKTestServer.h"
#include "KROMixerAudioProcessor.h"
#include "KROOSXHardwareAudioProcessor.h"
#include "KROURLExtension.h"

namespace {

namespace fs = std::filesystem;

double playSeconds() {
    const char* text = std::getenv("KRO_PLAYBACK_BENCH_SECONDS");
    const double seconds = text ? std::atof(text) : 0.0;
    return seconds > 0.0 ? seconds : 2.0;
}

std::size_t maximumFiles() {
    const char* text = std::getenv("KRO_PLAYBACK_BENCH_MAX_FILES");
    const long files = text ? std::atol(text) : 0;
    return files > 0 ? std::size_t(files) : 128;
}

// Never zero, so that a zero can only be a frame the ring did not hold.
const fs::path& sourceFile() {
    static const fs::path path = [] {
        const fs::path made = kro::temporaryDirectory() /
                              ("krocore-playback-bench-" + std::to_string(::getpid()) + ".wav");
        SF_INFO info{0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
        SNDFILE* file = sf_open(made.c_str(), SFM_WRITE, &info);
        const auto frames = std::size_t((playSeconds() + 3.0) * 48000);
        std::vector<float> samples(2 * frames);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            samples[i] = 0.25f + 0.2f * float(std::sin(double(i) * 0.01));
        }
        sf_writef_float(file, samples.data(), sf_count_t(frames));
        sf_close(file);
        return made;
    }();
    return path;
}

// Counts the blocks in which a player's output held a zero.
class SilenceCounter : public KROAudioBusObserver {
public:
    void willRender(KROAudioBufferList&, KROAudioBus&, KROAudioStreamRenderInfo&) override {}
    void didRender(KROAudioBufferList& buffer, KROAudioBus&, KROAudioStreamRenderInfo&) override {
        for (std::uint64_t frame = 0; frame < buffer.frames(); ++frame) {
            if (buffer.channel(0)[frame] == 0.0f) {
                silentBlocks.fetch_add(1, std::memory_order_relaxed);
                return;
            }
        }
    }
    std::atomic<std::uint64_t> silentBlocks{0};
};

// Plays N files for the bench's seconds; the blocks that went silent.
std::uint64_t silentBlocksWith(std::size_t players) {
    KROAudioStream stream;
    stream.init();
    auto head = std::make_shared<KROOSXHardwareAudioProcessor>();
    auto transport = std::make_shared<KROConductorAudioProcessor>();
    auto mixer = std::make_shared<KROMixerAudioProcessor>();
    if (!head->init() || !transport->init() || !mixer->init() ||
        !mixer->setNumberOfInputBuses(players)) {
        return ~0ull;
    }
    const auto join = [&](KROAudioOutputBus& from, KROAudioInputBus& to) {
        auto connection = std::make_shared<KROAudioConnection>();
        stream.addConnectionsObject(connection);
        stream.connectOutputBus(from, *connection);
        stream.connectInputBus(to, *connection);
    };
    for (const auto& processor :
         std::initializer_list<std::shared_ptr<KROAudioProcessor>>{head, transport, mixer}) {
        stream.addProcessorsObject(processor);
    }
    join(*mixer->outputBus(), *transport->inputBus());
    join(*transport->outputBus(), *head->inputBus());
    stream.setRenderHeadProcessor(head.get());
    SilenceCounter counter;
    std::vector<std::shared_ptr<KROAudioFileAudioGenerator>> files;
    for (std::size_t index = 0; index < players; ++index) {
        auto file = std::make_shared<KROAudioFileAudioGenerator>();
        file->init();
        file->setAudioFile(KROAudioFileReader::readerWithURL(sourceFile()));
        stream.addProcessorsObject(file);
        join(*file->outputBus(), *mixer->inputBuses()[index]);
        files.push_back(file);
    }
    if (!stream.initialize() || !stream.start()) {
        return ~0ull;
    }
    for (const auto& file : files) {
        file->prepareForPlaybackFromFrame(0);
    }
    transport->start();
    // Blocks before the transport ran are silent by design; count from here.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (const auto& file : files) {
        file->outputBus()->addPostRenderTarget(&counter);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(playSeconds()));
    for (const auto& file : files) {
        file->outputBus()->removePostRenderTarget(&counter);
    }
    stream.stop();
    stream.uninitialize();
    return counter.silentBlocks.load();
}

void BM_FilesPlayedAtOnceAt256Frames(benchmark::State& state) {
    KROJACKTestServer server;
    if (!server.start(256)) {
        state.SkipWithError("jackd did not start (scripts/install-deps installs jackd2)");
        return;
    }
    std::size_t largest = 0;
    for (auto _ : state) {
        for (std::size_t players = 8; players <= maximumFiles(); players *= 2) {
            const std::uint64_t silent = silentBlocksWith(players);
            std::cout << players << " files: " << silent << " silent blocks\n";
            if (silent != 0) {
                break;
            }
            largest = players;
        }
    }
    state.counters["files"] = double(largest);
}
BENCHMARK(BM_FilesPlayedAtOnceAt256Frames)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    KROCounterReporter reporter("files");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    fs::remove(sourceFile());
    benchmark::Shutdown();
    return 0;
}
