// The device layer on JACK, beside a private jackd with the dummy backend (2
// capture and 2 playback ports, 48 kHz, 256 frames).
#include <gtest/gtest.h>
#include <jack/jack.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <thread>

#include "KROAllocationGuard.h"
#include "KROAudioConnection.h"
#include "KROAudioDevice.h"
#include "KROAudioDeviceTestStreams.h"
#include "KROAudioPlaythrough.h"
#include "KROJACKServerTest.h"
#include "KROLevelMeterAudioProcessor.h"
#include "KRONotificationCenter.h"
#include "KROOSXHardwareAudioProcessor.h"
#include "KROTestCommand.h"
#include "KROTestWaiting.h"

#if defined(__SANITIZE_ADDRESS__)
// libdb, libjack's metadata database, leaks when servers come and go.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libdb-5.3.so\n";
}
#endif

namespace {

using namespace std::chrono_literals;
using Backend = KROAudioDeviceBackend;
using Head = KROOSXHardwareAudioProcessor;

class KROAudioDeviceJACK : public KROJACKServerTest {};

// A sound card: a client with physical ports that sends each sample's frame
// time (exact in a float for 349 s), so each block that comes back tells its delay.
class LoopDevice {
public:
    static constexpr const char* name = "kro-test-loop";

    LoopDevice() {
        jack_status_t status{};
        client_ = jack_client_open(name, JackNoStartServer, &status);
        const auto port = [&](const std::string& portName, unsigned long direction) {
            return jack_port_register(client_, portName.c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                      direction | JackPortIsPhysical | JackPortIsTerminal, 0);
        };
        for (int channel = 0; client_ && channel < 2; ++channel) {
            capture_[channel] = port("capture_" + std::to_string(channel + 1), JackPortIsOutput);
            playback_[channel] = port("playback_" + std::to_string(channel + 1), JackPortIsInput);
        }
        open_ = client_ && capture_[1] && playback_[1] &&
                jack_set_process_callback(client_, process, this) == 0 &&
                jack_set_xrun_callback(client_, xrun, this) == 0 && jack_activate(client_) == 0;
    }
    ~LoopDevice() {
        if (client_) {
            jack_client_close(client_);
        }
    }

    bool isOpen() const { return open_; }
    // The server's xruns as this client was told of them.
    std::uint64_t xruns() const { return xruns_.load(); }
    void startSending() { sending_.store(true); }
    // -1 where the channels differ.
    std::vector<std::int64_t> delays() const {
        return {delays_.begin(), delays_.begin() + std::ptrdiff_t(delayCount_.load())};
    }

private:
    static int xrun(void* argument) {
        ++static_cast<LoopDevice*>(argument)->xruns_;
        return 0;
    }

    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<LoopDevice*>(argument);
        const jack_nframes_t now = jack_last_frame_time(self.client_);
        const auto* left = static_cast<float*>(jack_port_get_buffer(self.playback_[0], frames));
        const auto* right = static_cast<float*>(jack_port_get_buffer(self.playback_[1], frames));
        const std::size_t delays = self.delayCount_.load();
        if (left[0] != 0.0f && delays < self.delays_.size()) {
            self.delays_[delays] = left[0] == right[0] ? now - std::int64_t(left[0]) : -1;
            self.delayCount_.store(delays + 1);
        }
        for (jack_port_t* port : self.capture_) {
            auto* data = static_cast<float*>(jack_port_get_buffer(port, frames));
            for (jack_nframes_t frame = 0; frame < frames; ++frame) {
                data[frame] = self.sending_.load() ? float(now + frame) : 0.0f;
            }
        }
        return 0;
    }

    jack_client_t* client_ = nullptr;
    bool open_ = false;
    std::array<jack_port_t*, 2> capture_{};
    std::array<jack_port_t*, 2> playback_{};
    std::atomic<bool> sending_{false};
    std::array<std::int64_t, 1024> delays_{};
    std::atomic<std::size_t> delayCount_{0};
    std::atomic<std::uint64_t> xruns_{0};
};

// Watches the last callback on JACK's thread: allocations of the whole cycle
// (libjack's included), and voluntary context switches (a lock, a sleep, a file).
class WatchedBackend : public KROJACKAudioDeviceBackend {
public:
    Status createIOProc(DeviceID id, std::uint32_t scope, std::uint32_t channels,
                        KROAudioDeviceIOProc proc, void* context, std::uint64_t& procID) override {
        proc_ = proc;
        context_ = context;
        return KROJACKAudioDeviceBackend::createIOProc(id, scope, channels, &watch, this, procID);
    }

    std::atomic<std::uint64_t> callbacks{0};
    std::atomic<std::uint64_t> allocations{0};
    std::atomic<std::uint64_t> voluntarySwitches{0};

private:
    static std::uint64_t threadVoluntarySwitches() {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return std::uint64_t(usage.ru_nvcsw);
    }

    static void watch(void* argument, KROAudioDeviceBuffer* buffers, std::size_t count,
                      std::uint32_t frames, const KROAudioDeviceTimestamp& timestamp) {
        auto& self = *static_cast<WatchedBackend*>(argument);
        thread_local std::optional<KROAllocationGuard> threadGuard;
        if (!threadGuard) {
            threadGuard.emplace();
        }
        const std::uint64_t switchesBefore = threadVoluntarySwitches();
        self.proc_(self.context_, buffers, count, frames, timestamp);
        self.voluntarySwitches.fetch_add(threadVoluntarySwitches() - switchesBefore);
        self.allocations.store(threadGuard->count());
        self.callbacks.fetch_add(1);
    }

    KROAudioDeviceIOProc proc_ = nullptr;
    void* context_ = nullptr;
};

bool realtimePermitted() {
    return KRORunCommand("chrt -f 1 true").status == 0;
}

std::shared_ptr<KROAudioDevice> loopDevice() {
    return KROAudioDevice::deviceWithName(LoopDevice::name);
}

} // namespace

// The server's physical client is the one device; a device coming or going is
// posted, this process's own ports are not.
TEST_F(KROAudioDeviceJACK, TheDevicesAreTheServersAndAChangeOfThemIsPosted) {
    ASSERT_EQ(KROAudioDevice::devices().size(), 1u);
    const auto device = KROAudioDevice::deviceWithUID("jack:system");
    ASSERT_NE(device, nullptr);
    for (const auto& same :
         {KROAudioDevice::defaultOutputDevice(), KROAudioDevice::defaultInputDevice(),
          KROAudioDevice::systemOutputDevice()}) {
        EXPECT_TRUE(same && same->isEqual(*device));
    }
    EXPECT_EQ(device->availableSampleRates(), std::vector<double>{48000.0});
    EXPECT_TRUE(device->setSampleRate(48000));
    KROErrorPtr error;
    EXPECT_FALSE(device->setSampleRate(44100, &error));
    EXPECT_EQ(error ? error->code() : 0, Backend::unsupportedOperation);
    KRONotificationCount changes("KROAudioDeviceDevicesChanged");
    {
        LoopDevice card;
        ASSERT_TRUE(card.isOpen());
        EXPECT_TRUE(KROEventually([&] { return changes.count == 1; }, 10s)) << "a device came";
        const auto devices = KROAudioDevice::devices();
        ASSERT_EQ(devices.size(), 2u);
        EXPECT_EQ(devices[1]->title(), LoopDevice::name);
        EXPECT_TRUE(devices[1]->hasPhysicalInputs() && devices[1]->hasPhysicalOutputs());
    }
    EXPECT_TRUE(KROEventually([&] { return changes.count == 2; }, 10s))
        << "a device went " << changes.count;
    const auto stream = exampleStream();
    ASSERT_TRUE(stream && stream->initialize() && stream->start());
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(stream->stop() && stream->uninitialize());
    EXPECT_FALSE(KROEventually([&] { return changes.count > 2; }, 300ms)) << "own ports";
    // A server that goes away while playing; the stream still stops.
    ASSERT_TRUE(stream->initialize() && stream->start());
    server_.kill();
    EXPECT_TRUE(KROEventually([&] { return !device->isValid(); }, 10s));
    EXPECT_TRUE(KROEventually([&] { return changes.count == 3; }, 10s))
        << "the server went " << changes.count;
    EXPECT_TRUE(stream->stop() && stream->uninitialize());
}

TEST_F(KROAudioDeviceJACK, ANewBufferSizeRebuildsTheRunningGraphAtThatSize) {
    const auto stream = exampleStream();
    ASSERT_TRUE(stream && stream->initialize() && stream->start());
    const auto head = processorOf<Head>(*stream, "output");
    KRONotificationCount rebuilt("KROAudioDeviceSampleRateChanged");
    ASSERT_TRUE(head->device()->setOutputBufferFrames(128));
    ASSERT_TRUE(KROEventually([&] { return rebuilt.count == 1; }, 10s));
    EXPECT_EQ(head->bufferFrames(), 128u);
    EXPECT_TRUE(head->isRunning());
    EXPECT_EQ(stream->processorWithIdentifier("meter")->inputConnection()->maxFrames(), 128u);
    const std::uint64_t before = head->statistics().callbacks;
    EXPECT_TRUE(KROEventually([&] { return head->statistics().callbacks > before; }, 1s));
    EXPECT_TRUE(stream->stop());
}

// The card's frame clock passes both heads and the playthrough bit for bit.
TEST_F(KROAudioDeviceJACK, APlaythroughDelaysWhatTheDeviceCapturesByItsLatency) {
    server_.stop();
    ASSERT_TRUE(server_.start(256, realtimePermitted()));
    LoopDevice card;
    const auto stream = playthroughStream();
    ASSERT_TRUE(card.isOpen() && stream);
    for (const char* head : {"capture", "playback"}) {
        ASSERT_TRUE(processorOf<Head>(*stream, head)->setDevice(loopDevice()));
    }
    ASSERT_TRUE(stream->initialize());
    const auto through = processorOf<KROAudioPlaythrough>(*stream, "through");
    EXPECT_EQ(through->latency(), 512u);
    through->setEnabled(true);
    ASSERT_TRUE(stream->start());
    std::this_thread::sleep_for(300ms);
    card.startSending();
    std::this_thread::sleep_for(2s);
    const std::vector<std::int64_t> delays = card.delays();
    // Xruns are told on JACK's notification thread a while after the cycle
    // that missed, and the device may be told of one its heads are not;
    // stopping makes xruns of its own, so they are counted before it.
    std::this_thread::sleep_for(200ms);
    std::uint64_t xruns = card.xruns();
    for (const char* head : {"capture", "playback"}) {
        xruns += processorOf<Head>(*stream, head)->statistics().xruns;
    }
    EXPECT_TRUE(stream->stop());

    // The heads' first distance adds to the latency, by whole rings of four
    // blocks in a slow build; with xruns, blocks come early or late.
    const std::int64_t expected = std::int64_t(through->latency()) + through->firstRenderFrame() -
                                  through->firstStoredFrame();
    const std::int64_t withinRing = (expected - 1) % 1024 + 1;
    ASSERT_GE(delays.size(), 100u);
    const auto onTime = std::count(delays.begin(), delays.end(), withinRing);
    for (const std::int64_t delay : delays) {
        EXPECT_EQ((delay - expected) % (xruns == 0 ? 1024 : 256), 0) << "delay " << delay;
    }
    EXPECT_TRUE(xruns > 0 || onTime >= std::ptrdiff_t(delays.size() * 3 / 4))
        << onTime << " of " << delays.size() << " blocks came back " << withinRing << " late";
    std::cout << onTime << " of " << delays.size() << " blocks came back " << withinRing
              << " frames late, " << xruns << " xruns\n";
}

// Allocations, waits and load are judged always; xruns and peak load only when
// the machine itself kept real-time deadlines.
TEST_F(KROAudioDeviceJACK, ThirtySecondsAt256FramesDropNoBlock) {
    const bool realtime = realtimePermitted();
    server_.stop();
    ASSERT_TRUE(server_.start(256, realtime));
    const auto watched = std::make_shared<WatchedBackend>();
    Backend::setSharedBackend(watched);
    const auto stream = exampleStream();
    ASSERT_TRUE(stream && stream->initialize() && stream->start());
    const auto head = processorOf<Head>(*stream, "output");
    std::this_thread::sleep_for(500ms);
    const std::uint64_t xrunsBefore = head->statistics().xruns;
    // cyclictest below JACK's priority: wake-ups over a quarter period late, and the worst.
    std::istringstream probe(
        KRORunCommand(
            "cyclictest -q -m -S -p 1 -i 1000 -D 30 -h 1333 --histfile=/dev/stdout | "
            "awk '/Overflows:/ { for (i = 4; i <= NF; ++i) late += $i }"
            " /Max Latencies:/ { for (i = 4; i <= NF; ++i) worst = $i > worst ? $i : worst }"
            " END { print late + 0, worst + 0 }'")
            .output);
    const KROAudioDeviceIOStatistics statistics = head->statistics();
    EXPECT_TRUE(stream->stop());
    std::uint64_t late = 1;
    std::uint64_t worst = 0;
    probe >> late >> worst;
    const std::uint64_t xruns = statistics.xruns - xrunsBefore;
    EXPECT_GT(watched->callbacks.load(), 30 * 48000 / 256 * 9 / 10);
    EXPECT_EQ(watched->allocations.load(), 0u);
    EXPECT_EQ(watched->voluntarySwitches.load(), 0u);
    EXPECT_LT(statistics.averageLoad, 0.05);
    std::cout << xruns << " xruns, load " << statistics.averageLoad << " on average and "
              << statistics.peakLoad << " at peak; cyclictest: " << late
              << " late wake-ups, the latest by " << worst << " us\n";
    if (realtime && worst > 0 && late == 0) {
        EXPECT_EQ(xruns, 0u);
        EXPECT_LT(statistics.peakLoad, 0.25);
    } else {
        std::cout << "xruns not judged: the machine itself missed real-time deadlines\n";
    }
}
