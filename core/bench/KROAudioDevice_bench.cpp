// The DSP load of the demo graph (examples/sine-to-level-meter.plist,
// a stereo sine through a level meter into the device head) on a private
// JACK server with the dummy backend, at 64 and 256 frames, beside JACK's own
// example client jack_simple_client (a stereo sine from a table) on the same
// kind of server in the same run.
//
// Two figures:
// - dsp_load_percent, ours only: time inside the head's process callback
//   over the block period, as the device layer measures it (`kro play`
//   prints the same figure).
// - server_load_percent, both: JACK's own DSP load of the whole cycle
//   (jack_cpu_load), sampled every 100 ms while the client plays. The table
//   at the end gives it for both and the ratio ours / jack_simple_client.
//
// Each iteration plays for KRO_DEVICE_BENCH_SECONDS (default 5) seconds,
// so `ctest`'s single iteration gives the full figures.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "KROAudioStream.h"
#include "KROBenchmarkSupport.h"
#include "KROJACKAudioDeviceBackend.h"
#include "KROJACKTestServer.h"
#include "KROOSXHardwareAudioProcessor.h"

namespace {

double playSeconds() {
    const char* text = std::getenv("KRO_DEVICE_BENCH_SECONDS");
    const double seconds = text ? std::atof(text) : 0.0;
    return seconds > 0.0 ? seconds : 5.0;
}

KROJACKAudioDeviceBackend* jackBackend() {
    return dynamic_cast<KROJACKAudioDeviceBackend*>(KROAudioDeviceBackend::sharedBackend().get());
}

// JACK's DSP load averaged over samples taken every 100 ms for the seconds.
double averageServerLoad(double seconds) {
    KROJACKAudioDeviceBackend* backend = jackBackend();
    double sum = 0.0;
    int samples = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const double load = backend ? backend->serverLoad() : -1.0;
        if (load >= 0.0) {
            sum += load;
            ++samples;
        }
    }
    return samples > 0 ? sum / samples : 0.0;
}

bool startServer(KROJACKTestServer& server, benchmark::State& state) {
    if (!server.start(unsigned(state.range(0)))) {
        state.SkipWithError("jackd did not start (scripts/install-deps installs jackd2)");
        return false;
    }
    return true;
}

void ours(benchmark::State& state) {
    KROJACKTestServer server;
    if (!startServer(server, state)) {
        return;
    }
    const auto description =
        std::filesystem::path(KRO_SOURCE_DIR) / "examples" / "sine-to-level-meter.plist";
    auto stream = std::make_shared<KROAudioStream>();
    if (!stream->initWithDescriptionFile(description)) {
        state.SkipWithError("the demo description did not load");
        return;
    }
    auto* head = dynamic_cast<KROOSXHardwareAudioProcessor*>(stream->renderHeadProcessor().get());
    double serverLoad = 0.0;
    KROAudioDeviceIOStatistics statistics;
    for (auto _ : state) {
        if (!head || !stream->initialize() || !stream->start()) {
            state.SkipWithError("the demo graph did not start on the device");
            return;
        }
        serverLoad = averageServerLoad(playSeconds());
        statistics = head->statistics();
        stream->stop();
        stream->uninitialize();
    }
    state.counters["dsp_load_percent"] = statistics.averageLoad * 100.0;
    state.counters["dsp_peak_percent"] = statistics.peakLoad * 100.0;
    state.counters["server_load_percent"] = serverLoad;
    state.counters["xruns"] = double(statistics.xruns);
}

void jackSimpleClient(benchmark::State& state) {
    KROJACKTestServer server;
    if (!startServer(server, state)) {
        return;
    }
    double serverLoad = 0.0;
    for (auto _ : state) {
        const pid_t client = fork();
        if (client == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            execlp("jack_simple_client", "jack_simple_client", static_cast<char*>(nullptr));
            _exit(127);
        }
        // The client opens, activates and joins the playback ports.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        int status = 0;
        if (client < 0 || waitpid(client, &status, WNOHANG) != 0) {
            state.SkipWithError("jack_simple_client did not run (it comes with jackd2)");
            return;
        }
        serverLoad = averageServerLoad(playSeconds());
        kill(client, SIGTERM);
        waitpid(client, &status, 0);
    }
    state.counters["server_load_percent"] = serverLoad;
}

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("server_load_percent") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-8s %22s %30s %8s\n", "frames", "server load, ours (%)",
                    "server load, simple client (%)", "ratio");
        for (const char* frames : {"64", "256"}) {
            const double mine = figure(std::string("kro/demo-graph/") + frames);
            const double theirs = figure(std::string("jack_simple_client/") + frames);
            std::printf("%-8s %22.2f %30.2f %8.2f\n", frames, mine, theirs,
                        theirs > 0 ? mine / theirs : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    for (const int frames : {64, 256}) {
        benchmark::RegisterBenchmark("kro/demo-graph", ours)
            ->Arg(frames)
            ->Iterations(1)
            ->Unit(benchmark::kSecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark("jack_simple_client", jackSimpleClient)
            ->Arg(frames)
            ->Iterations(1)
            ->Unit(benchmark::kSecond)
            ->UseRealTime();
    }
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
