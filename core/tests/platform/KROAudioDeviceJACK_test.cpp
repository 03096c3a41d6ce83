// The device layer on JACK, each test beside a private jackd with the dummy
// backend (2 capture and 2 playback ports, 48 kHz, 256 frames), and a sound
// card played by a second client where a signal must be measured.
#include <gtest/gtest.h>
#include <jack/jack.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
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

#if defined(__SANITIZE_ADDRESS__)
// libjack opens its metadata database (Berkeley DB) in each client, and libdb
// leaks on its error path when servers come and go: not this library's memory.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libdb-5.3.so\n";
}
#endif

namespace {

using namespace std::chrono_literals;
using Backend = KROAudioDeviceBackend;
using Head = KROOSXHardwareAudioProcessor;

class KROAudioDeviceJACK : public KROJACKServerTest {};

// A sound card made of a JACK client: it owns physical capture and playback
// ports, as a card's driver does, so the device layer lists it as a device.
// It records what reaches its first playback port. Once asked to send, its
// capture ports send JACK's frame clock itself, each sample the frame time at
// which it leaves (exact in a float for the first 349 s of a server), so that
// each block that comes back tells how many frames it travelled.
class LoopDevice {
public:
    static constexpr const char* name = "kro-test-loop";

    // Registers the ports and activates; keeps the first recordFrames frames.
    explicit LoopDevice(std::size_t recordFrames) : recorded_(recordFrames) {
        jack_status_t status{};
        client_ = jack_client_open(name, JackNoStartServer, &status);
        const auto physical = JackPortIsPhysical | JackPortIsTerminal;
        for (int channel = 0; client_ && channel < 2; ++channel) {
            const std::string number = std::to_string(channel + 1);
            capture_[channel] =
                jack_port_register(client_, ("capture_" + number).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                   JackPortIsOutput | physical, 0);
            playback_[channel] =
                jack_port_register(client_, ("playback_" + number).c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                   JackPortIsInput | physical, 0);
        }
        open_ = client_ && capture_[1] && playback_[1] &&
                jack_set_process_callback(client_, process, this) == 0 &&
                jack_activate(client_) == 0;
    }
    ~LoopDevice() {
        if (client_) {
            jack_client_close(client_);
        }
    }

    bool isOpen() const { return open_; }
    void startSending() { sending_.store(true); }
    std::vector<float> recorded() const {
        return {recorded_.begin(), recorded_.begin() + std::ptrdiff_t(recordedCount_.load())};
    }
    // For each block that came back, in order, the frames it travelled; -1
    // when the two channels brought back different frames.
    std::vector<std::int64_t> delays() const {
        return {delays_.begin(), delays_.begin() + std::ptrdiff_t(delayCount_.load())};
    }

private:
    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<LoopDevice*>(argument);
        const jack_nframes_t now = jack_last_frame_time(self.client_);
        const auto* left = static_cast<float*>(jack_port_get_buffer(self.playback_[0], frames));
        const auto* right = static_cast<float*>(jack_port_get_buffer(self.playback_[1], frames));
        const std::size_t recorded = self.recordedCount_.load();
        const std::size_t count = std::min<std::size_t>(frames, self.recorded_.size() - recorded);
        std::memcpy(self.recorded_.data() + recorded, left, count * sizeof(float));
        self.recordedCount_.store(recorded + count);
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
    std::vector<float> recorded_;
    std::atomic<std::size_t> recordedCount_{0};
    std::array<std::int64_t, 1024> delays_{};
    std::atomic<std::size_t> delayCount_{0};
};

// The JACK layer with a watch on the callback it runs (the last registered),
// on JACK's process thread. The first call arms the allocation guard for that
// thread and leaves it armed, so that every later allocation there counts: in
// the head, the graph, the JACK layer and libjack's own cycle. Around each
// call it counts the voluntary context switches that a lock, a sleep or file
// access would cause.
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

// Whether the condition comes to hold within the timeout.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

// Counts the notifications of one name, posted on any thread.
struct NotificationCount {
    explicit NotificationCount(const std::string& name)
        : token(KRONotificationCenter::defaultCenter().addObserver(
              name, [this](const KRONotification&) { ++count; })) {}
    ~NotificationCount() { KRONotificationCenter::defaultCenter().removeObserver(token); }
    std::atomic<int> count{0};
    KRONotificationCenter::Token token;
};

// The median period between rising zero crossings, each placed between its
// two samples; the median keeps a block that the server dropped from moving
// the result.
double frequencyByZeroCrossings(const std::vector<float>& samples, double rate) {
    std::vector<double> crossings;
    std::vector<double> periods;
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0.0f && samples[i] >= 0.0f) {
            crossings.push_back(double(i - 1) - samples[i - 1] / (samples[i] - samples[i - 1]));
        }
        if (crossings.size() > periods.size() + 1) {
            periods.push_back(crossings.back() - crossings[crossings.size() - 2]);
        }
    }
    const auto middle = periods.begin() + std::ptrdiff_t(periods.size() / 2);
    std::nth_element(periods.begin(), middle, periods.end());
    return periods.empty() ? 0.0 : rate / *middle;
}

std::shared_ptr<KROAudioDevice> loopDevice() {
    return KROAudioDevice::deviceWithName(LoopDevice::name);
}

} // namespace

TEST_F(KROAudioDeviceJACK, TheServersPhysicalClientIsTheOnlyDeviceAndAnswersForBothDirections) {
    const auto devices = KROAudioDevice::devices();
    ASSERT_EQ(devices.size(), 1u);
    const KROAudioDevice& device = *devices.front();
    for (const auto& same :
         {KROAudioDevice::defaultOutputDevice(), KROAudioDevice::defaultInputDevice(),
          KROAudioDevice::systemOutputDevice(), KROAudioDevice::deviceWithUID("jack:system"),
          KROAudioDevice::deviceWithName("system"), KROAudioDevice::inputDevices().at(0)}) {
        EXPECT_TRUE(same && same->isEqual(device));
    }
    EXPECT_EQ(KROAudioDevice::deviceWithName("no such device"), nullptr);
    EXPECT_FALSE(KROAudioDevice::deviceWithID(999)->isValid());
    for (const std::uint32_t scope : {Backend::scopeInput, Backend::scopeOutput}) {
        EXPECT_EQ(device.channelTitlesForScope(scope)->size(), 2u);
        EXPECT_EQ(device.bufferFramesForScope(scope), 256u);
        EXPECT_EQ(device.safetyOffsetForScope(scope), 0u);
        EXPECT_EQ(device.bufferFrameSizeRangeForScope(scope).location, 16u);
        EXPECT_EQ(device.bufferFrameSizeRangeForScope(scope).length, 8192u - 16u);
    }
    // The server's rate is not a client's to change; JACK has no
    // configuration application, no data sources and no exclusive use.
    KROErrorPtr error;
    EXPECT_EQ(device.availableSampleRates(), std::vector<double>{48000.0});
    EXPECT_TRUE(KROAudioDevice::deviceWithID(device.deviceID())->setSampleRate(48000));
    EXPECT_FALSE(KROAudioDevice::deviceWithID(device.deviceID())->setSampleRate(44100, &error));
    EXPECT_EQ(error ? error->code() : 0, Backend::unsupportedOperation);
    EXPECT_FALSE(device.configurationApplicationIdentifier().has_value());
    EXPECT_TRUE(device.inputSources().empty());
    EXPECT_EQ(device.exclusivity(), 0);
}

// The host never sets the notice up: the first device operation does. Only a
// device that comes or goes is a change; this process's own ports, which come
// and go with every start and stop, are not.
TEST_F(KROAudioDeviceJACK, DevicesChangedIsPostedWhenADeviceComesOrGoesAndOnlyThen) {
    ASSERT_EQ(KROAudioDevice::devices().size(), 1u);
    NotificationCount changes("KROAudioDeviceDevicesChanged");
    {
        LoopDevice card(0);
        ASSERT_TRUE(card.isOpen());
        EXPECT_TRUE(eventually([&] { return changes.count == 1; }, 10s)) << "a device came";
        const auto devices = KROAudioDevice::devices();
        ASSERT_EQ(devices.size(), 2u);
        EXPECT_EQ(devices[1]->title(), LoopDevice::name);
        EXPECT_TRUE(devices[1]->hasPhysicalInputs() && devices[1]->hasPhysicalOutputs());
    }
    EXPECT_TRUE(eventually([&] { return changes.count == 2; }, 10s)) << "a device went";
    const auto stream = exampleStream();
    ASSERT_TRUE(stream && stream->initialize() && stream->start());
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(stream->stop() && stream->uninitialize());
    EXPECT_FALSE(eventually([&] { return changes.count > 2; }, 300ms)) << "own ports";
    // A server that goes away while playing is noticed, and the stream
    // still stops without a hang.
    ASSERT_TRUE(stream->initialize() && stream->start());
    const auto device = processorOf<Head>(*stream, "output")->device();
    server_.stop();
    EXPECT_TRUE(eventually([&] { return !device->isValid(); }, 10s));
    EXPECT_TRUE(eventually([&] { return changes.count == 3; }, 10s)) << "the server went";
    EXPECT_TRUE(stream->stop() && stream->uninitialize());
}

// The example's 1 kHz sine at full scale reaches the device it is given; a
// new buffer size rebuilds the running graph at that size.
TEST_F(KROAudioDeviceJACK, TheHeadPlaysOnTheDeviceItIsGivenAndFollowsItsBufferSize) {
    LoopDevice card(48000 * 3);
    const auto stream = exampleStream();
    ASSERT_TRUE(card.isOpen() && stream);
    const auto head = processorOf<Head>(*stream, "output");
    ASSERT_TRUE(head->setDevice(loopDevice()));
    ASSERT_TRUE(stream->initialize() && stream->start());
    std::this_thread::sleep_for(2s);
    const KROAudioDeviceIOStatistics statistics = head->statistics();
    const std::vector<float> samples = card.recorded();
    ASSERT_GT(samples.size(), 48000u * 3 / 2);
    EXPECT_NEAR(frequencyByZeroCrossings(samples, 48000.0), 1000.0, 0.5);
    double sum = 0.0;
    for (std::size_t i = samples.size() / 2; i < samples.size(); ++i) {
        sum += double(samples[i]) * samples[i];
    }
    EXPECT_NEAR(std::sqrt(sum / double(samples.size() - samples.size() / 2)), M_SQRT1_2, 0.01);
    EXPECT_GT(processorOf<KROLevelMeterAudioProcessor>(*stream, "meter")->level(), 0.5f);
    // 375 blocks in 2 s; a busy machine makes the server skip cycles, but a
    // head called for fewer than half of them is this code's fault.
    EXPECT_GT(statistics.callbacks, 375u / 2);
    EXPECT_LT(statistics.averageLoad, 0.5);

    NotificationCount rebuilt("KROAudioDeviceSampleRateChanged");
    ASSERT_TRUE(head->device()->setOutputBufferFrames(128));
    ASSERT_TRUE(eventually([&] { return rebuilt.count == 1; }, 10s));
    EXPECT_EQ(head->bufferFrames(), 128u);
    EXPECT_TRUE(head->isRunning());
    EXPECT_EQ(stream->processorWithIdentifier("meter")->inputConnection()->maxFrames(), 128u);
    const std::uint64_t before = head->statistics().callbacks;
    EXPECT_TRUE(eventually([&] { return head->statistics().callbacks > before; }, 1s));
    EXPECT_TRUE(stream->stop());
}

// The card's frame clock leaves it, passes the input head, the playthrough
// and the render head, and comes back to the card.
TEST_F(KROAudioDeviceJACK, APlaythroughDelaysWhatTheDeviceCapturesByItsLatency) {
    LoopDevice card(0);
    const auto stream = playthroughStream();
    ASSERT_TRUE(card.isOpen() && stream);
    for (const char* head : {"capture", "playback"}) {
        ASSERT_TRUE(processorOf<Head>(*stream, head)->setDevice(loopDevice()));
    }
    ASSERT_TRUE(stream->initialize());
    const auto through = processorOf<KROAudioPlaythrough>(*stream, "through");
    // Input safety offset 0 + 256 frames, output safety offset 0 + 256 frames.
    EXPECT_EQ(through->latency(), 512u);
    through->setEnabled(true);
    ASSERT_TRUE(stream->start());
    // The heads join their ports one by one after they start; the clock is
    // sent once all are joined.
    std::this_thread::sleep_for(300ms);
    card.startSending();
    std::this_thread::sleep_for(2s);
    EXPECT_TRUE(stream->stop());

    // The render side sees the first stored block a block later at the
    // earliest, and that distance adds to the latency. Nothing corrects the
    // distance between the clocks, and the ring holds four blocks: where the
    // two heads first ran further apart than the ring (a slow, instrumented
    // build), the read lands on the same slot a ring later; a block that the
    // server dropped leaves the ring's older contents in place, which come
    // out a ring late. Either way the delay moves only by whole rings.
    const std::int64_t expected = std::int64_t(through->latency()) + through->firstRenderFrame() -
                                  through->firstStoredFrame();
    const std::int64_t ring = 4 * 256;
    const std::int64_t withinRing = (expected - 1) % ring + 1;
    const std::vector<std::int64_t> delays = card.delays();
    ASSERT_GE(delays.size(), 100u);
    for (const std::int64_t delay : delays) {
        EXPECT_EQ((delay - expected) % ring, 0) << "delay " << delay << ", not " << expected;
    }
    EXPECT_GE(std::count(delays.begin(), delays.end(), withinRing),
              std::ptrdiff_t(delays.size() * 3 / 4))
        << "expected " << withinRing << " frames";
}

// The head's process thread watched for 30 s at 256 frames. What would make
// this code drop a block is tested always: an allocation, a wait (a voluntary
// context switch), or work that takes a fair part of the period. No xrun and
// no block over a quarter of the period are asked for whenever the machine
// itself kept real-time deadlines all along; where it did not (a loaded
// virtual machine, no SCHED_FIFO), the xruns are the machine's.
TEST_F(KROAudioDeviceJACK, ThirtySecondsAt256FramesDropNoBlock) {
    const bool realtime = KRORunCommand("chrt -f 1 true").status == 0;
    server_.stop();
    ASSERT_TRUE(server_.start(256, realtime));
    const auto watched = std::make_shared<WatchedBackend>();
    Backend::setSharedBackend(watched);
    const auto stream = exampleStream();
    ASSERT_TRUE(stream && stream->initialize() && stream->start());
    const auto head = processorOf<Head>(*stream, "output");
    // Joining the graph makes the server's first cycles late; counting starts
    // once the stream runs.
    std::this_thread::sleep_for(500ms);
    const std::uint64_t xrunsBefore = head->statistics().xruns;
    // cyclictest beside it: a thread pinned to each processor under SCHED_FIFO
    // at the lowest priority, below JACK's, wakes every millisecond; a wake-up
    // later than a quarter period (1333 us) is the machine's stall. Printed:
    // the number of such wake-ups, and the latest in microseconds.
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
