// MIDI through this system's endpoints beside a plain JACK client doing the
// same, on a private JACK server with the dummy backend (48 kHz, 256 frames):
// - kro/virtual-out-to-in: a KROMIDIVirtualOutput joined to a
//   KROMIDIVirtualInput; the host sends three-byte notes as fast as the
//   output takes them, the input reassembles them and hands them to a
//   receiver.
// - jack-client/out-to-in: one JACK client whose output port is joined to its
//   own input port; its process callback writes as many notes as the port
//   buffer takes and counts what comes back.
// Each runs flat out (argument 0) and paced at 1000 messages per second, where
// the latency is that of one message rather than of a full queue.
// Counters: messages_per_second (received), and latency_frames and
// latency_frames_max: frames from a message's arrival at the input port to
// its receiver callback (for the plain client, to the process callback that
// reads it). The table at the end gives the ratio of the rates, ours / the
// plain client. Each iteration runs KRO_MIDI_BENCH_SECONDS (default 3).
#include <benchmark/benchmark.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "KROBenchmarkSupport.h"
#include "KROJACKMIDIBackend.h"
#include "KROJACKTestServer.h"
#include "KROMIDIMessage.h"
#include "KROMIDIVirtualInput.h"
#include "KROMIDIVirtualOutput.h"

namespace {

constexpr double kRate = 48000.0;

double runSeconds() {
    const char* text = std::getenv("KRO_MIDI_BENCH_SECONDS");
    const double seconds = text ? std::atof(text) : 0.0;
    return seconds > 0.0 ? seconds : 3.0;
}

struct Figures {
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> latencySum{0};
    std::atomic<std::uint64_t> latencyMost{0};

    void add(double latencyFrames) {
        const auto frames = std::uint64_t(std::max(latencyFrames, 0.0) + 0.5);
        received.fetch_add(1);
        latencySum.fetch_add(frames);
        std::uint64_t most = latencyMost.load();
        while (frames > most && !latencyMost.compare_exchange_weak(most, frames)) {
        }
    }
    void report(benchmark::State& state, double seconds) const {
        const auto count = double(received.load());
        state.counters["messages_per_second"] = count / seconds;
        state.counters["latency_frames"] = count > 0 ? double(latencySum.load()) / count : 0.0;
        state.counters["latency_frames_max"] = double(latencyMost.load());
    }
};

class Counter : public KROMIDIReceiver {
public:
    explicit Counter(Figures& figures) : figures_(figures) {}
    void midiInput(KROMIDIEndpoint&, const std::shared_ptr<KROMIDIMessage>& message) override {
        figures_.add((KROMIDIMessage::currentTime() - message->timestamp()) * kRate);
    }

private:
    Figures& figures_;
};

bool startServer(KROJACKTestServer& server, benchmark::State& state) {
    if (!server.start(256)) {
        state.SkipWithError("jackd did not start (scripts/install-deps installs jackd2)");
        return false;
    }
    return true;
}

void joinPorts(const std::string& from, const std::string& to) {
    jack_status_t status{};
    if (jack_client_t* client = jack_client_open("kro-bench-wiring", JackNoStartServer, &status)) {
        jack_connect(client, from.c_str(), to.c_str());
        jack_client_close(client);
    }
}

void ours(benchmark::State& state) {
    KROJACKTestServer server;
    if (!startServer(server, state)) {
        return;
    }
    auto backend = std::make_shared<KROJACKMIDIBackend>();
    KROMIDIBackend::setSharedBackend(backend);
    Figures figures;
    double seconds = 0.0;
    {
        auto output = KROMIDIVirtualEndpoint::endpointWithName<KROMIDIVirtualOutput>("bench out");
        auto input = KROMIDIVirtualEndpoint::endpointWithName<KROMIDIVirtualInput>("bench in");
        std::string outName;
        std::string inName;
        if (!output || !input || backend->portName(output->endpointID(), outName) != 0 ||
            backend->portName(input->endpointID(), inName) != 0) {
            state.SkipWithError("the virtual endpoints were not made");
            return;
        }
        joinPorts(outName, inName);
        Counter counter(figures);
        input->addReceiver(&counter);
        auto note = KROMIDIMessage::messageWithData(KROData{0x90, 0x3C, 0x64}, 0.0);
        for (auto _ : state) {
            const auto start = std::chrono::steady_clock::now();
            const auto end = start + std::chrono::duration<double>(runSeconds());
            const auto pace = state.range(0) > 0
                                  ? std::chrono::duration<double>(1.0 / double(state.range(0)))
                                  : std::chrono::duration<double>(0.0);
            auto next = start;
            while (std::chrono::steady_clock::now() < end) {
                // A full queue refuses; the next cycle makes room.
                if (!output->sendMessage(note.get(), nullptr)) {
                    std::this_thread::sleep_for(std::chrono::microseconds(500));
                } else if (pace.count() > 0) {
                    next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(pace);
                    std::this_thread::sleep_until(next);
                }
            }
            seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        input->removeReceiver(&counter);
    }
    figures.report(state, seconds);
    KROMIDIBackend::setSharedBackend(nullptr);
}

// The plain client: everything happens in its process callback.
struct PlainClient {
    jack_client_t* client = nullptr;
    jack_port_t* out = nullptr;
    jack_port_t* in = nullptr;
    std::atomic<bool> sending{false};
    // Messages per cycle when paced (0: as many as fit), and the fraction owed.
    double perCycle = 0.0;
    double owed = 0.0;
    Figures figures;

    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<PlainClient*>(argument);
        const jack_nframes_t cycleStart = jack_last_frame_time(self.client);
        void* in = jack_port_get_buffer(self.in, frames);
        const jack_nframes_t now = jack_frame_time(self.client);
        for (std::uint32_t index = 0; index < jack_midi_get_event_count(in); ++index) {
            jack_midi_event_t event{};
            if (jack_midi_event_get(&event, in, index) == 0 && self.sending.load()) {
                self.figures.add(double(std::int32_t(now - (cycleStart + event.time))));
            }
        }
        void* out = jack_port_get_buffer(self.out, frames);
        jack_midi_clear_buffer(out);
        const jack_midi_data_t note[] = {0x90, 0x3C, 0x64};
        if (!self.sending.load()) {
            return 0;
        }
        if (self.perCycle <= 0.0) {
            while (jack_midi_event_write(out, 0, note, sizeof note) == 0) {
            }
            return 0;
        }
        self.owed += self.perCycle;
        for (; self.owed >= 1.0; self.owed -= 1.0) {
            jack_midi_event_write(out, 0, note, sizeof note);
        }
        return 0;
    }
};

void jackClient(benchmark::State& state) {
    KROJACKTestServer server;
    if (!startServer(server, state)) {
        return;
    }
    PlainClient plain;
    jack_status_t status{};
    plain.client = jack_client_open("kro-bench-plain", JackNoStartServer, &status);
    if (!plain.client) {
        state.SkipWithError("the plain client did not open");
        return;
    }
    plain.out =
        jack_port_register(plain.client, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    plain.in = jack_port_register(plain.client, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    plain.perCycle = double(state.range(0)) * jack_get_buffer_size(plain.client) / kRate;
    jack_set_process_callback(plain.client, PlainClient::process, &plain);
    jack_activate(plain.client);
    jack_connect(plain.client, jack_port_name(plain.out), jack_port_name(plain.in));
    double seconds = 0.0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        plain.sending.store(true);
        std::this_thread::sleep_for(std::chrono::duration<double>(runSeconds()));
        plain.sending.store(false);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    jack_client_close(plain.client);
    plain.figures.report(state, seconds);
}

class RatioReporter : public KROCounterReporter {
public:
    RatioReporter() : KROCounterReporter("messages_per_second") {}

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-10s %18s %26s %8s\n", "pace", "messages/s, ours",
                    "messages/s, plain client", "ratio");
        for (const char* pace : {"0", "1000"}) {
            const double mine = figure(std::string("kro/virtual-out-to-in/") + pace);
            const double theirs = figure(std::string("jack-client/out-to-in/") + pace);
            std::printf("%-10s %18.0f %26.0f %8.3f\n", pace, mine, theirs,
                        theirs > 0 ? mine / theirs : 0.0);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("kro/virtual-out-to-in", ours)
        ->Arg(0)
        ->Arg(1000)
        ->Iterations(1)
        ->Unit(benchmark::kSecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("jack-client/out-to-in", jackClient)
        ->Arg(0)
        ->Arg(1000)
        ->Iterations(1)
        ->Unit(benchmark::kSecond)
        ->UseRealTime();
    RatioReporter reporter;
    return KRORunBenchmarks(argc, argv, reporter);
}
