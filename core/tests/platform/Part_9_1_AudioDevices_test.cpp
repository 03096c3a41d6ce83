// Part 9.1: audio devices on JACK. The JACK tests run against a private
// jackd with the dummy backend that each fixture starts and kills; the edge
// cases that no JACK server can show run on a device layer of fixed answers.
// An alarm ends the program rather than let a test hang.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <iostream>
#include <iterator>
#include <mutex>
#include <thread>

#include "KROAllocationGuard.h"
#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioDevice.h"
#include "KROAudioDeviceSource.h"
#include "KROAudioPlaythrough.h"
#include "KROAudioStream.h"
#include "KROJACKServerTest.h"
#include "KROJACKTestCapture.h"
#include "KROJACKTestLoopDevice.h"
#include "KROJACKTestServer.h"
#include "KROJACKWatchedAudioDeviceBackend.h"
#include "KROLevelMeterAudioProcessor.h"
#include "KROLocalizedString.h"
#include "KRONotificationCenter.h"
#include "KROOSXHardwareAudioProcessor.h"
#include "KROSchedulingProbe.h"
#include "KROTestAudioDeviceBackend.h"

#if defined(__SANITIZE_ADDRESS__)
// libjack opens its metadata database (Berkeley DB, shared by every server of
// the user) in each client; when the tests' servers come and go in parallel,
// libdb leaks on the error path. That is not this library's memory.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libdb-5.3.so\n";
}
#endif

namespace {

using Backend = KROAudioDeviceBackend;
constexpr unsigned watchdogSeconds = KROJACKServerTest::watchdogSeconds;

std::filesystem::path exampleDescription() {
    return std::filesystem::path(KRO_SOURCE_DIR) / "examples" / "sine-to-level-meter.plist";
}

// The example stream: sine -> meter -> device head.
std::shared_ptr<KROAudioStream> exampleStream(KROErrorPtr* error = nullptr) {
    auto stream = std::make_shared<KROAudioStream>();
    return stream->initWithDescriptionFile(exampleDescription(), error) ? stream : nullptr;
}

KROOSXHardwareAudioProcessor* deviceHead(const KROAudioStream& stream) {
    return dynamic_cast<KROOSXHardwareAudioProcessor*>(stream.renderHeadProcessor().get());
}

// Waits for a notification with the name, at most timeout.
class NotificationWaiter {
public:
    explicit NotificationWaiter(const std::string& name) {
        token_ = KRONotificationCenter::defaultCenter().addObserver(
            name, [this](const KRONotification&) {
                const std::lock_guard guard(lock_);
                ++count_;
                arrived_.notify_all();
            });
    }
    ~NotificationWaiter() { KRONotificationCenter::defaultCenter().removeObserver(token_); }
    bool wait(std::chrono::milliseconds timeout) {
        std::unique_lock guard(lock_);
        return arrived_.wait_for(guard, timeout, [this] { return count_ > 0; });
    }

private:
    KRONotificationCenter::Token token_ = 0;
    std::mutex lock_;
    std::condition_variable arrived_;
    int count_ = 0;
};

// Frequency from the median period between rising zero crossings, each
// placed between its two samples by linear interpolation. The median keeps a
// block that the server dropped or repeated (an xrun) from moving the result.
double frequencyByZeroCrossings(const std::vector<float>& samples, double rate) {
    std::vector<double> crossings;
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0.0f && samples[i] >= 0.0f) {
            const double fraction = double(-samples[i - 1]) / double(samples[i] - samples[i - 1]);
            crossings.push_back(double(i - 1) + fraction);
        }
    }
    if (crossings.size() < 3) {
        return 0.0;
    }
    std::vector<double> periods;
    for (std::size_t i = 1; i < crossings.size(); ++i) {
        periods.push_back(crossings[i] - crossings[i - 1]);
    }
    std::nth_element(periods.begin(), periods.begin() + std::ptrdiff_t(periods.size() / 2),
                     periods.end());
    return rate / periods[periods.size() / 2];
}

double rms(const std::vector<float>& samples, std::size_t from) {
    double sum = 0.0;
    for (std::size_t i = from; i < samples.size(); ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return samples.size() > from ? std::sqrt(sum / double(samples.size() - from)) : 0.0;
}

// capture (input head) -> through (playthrough) -> playback (render head).
KROPropertyList playthroughDescription() {
    const auto entry = [](const char* className, const char* identifier, const char* flag) {
        KROPropertyList processor = KROPropertyList::dictionary();
        processor.setObjectForKey("class", className);
        processor.setObjectForKey("identifier", identifier);
        if (flag) {
            processor.setObjectForKey(flag, true);
        }
        return processor;
    };
    const auto join = [](const char* identifier, const char* from, const char* to) {
        KROPropertyList connection = KROPropertyList::dictionary();
        connection.setObjectForKey("identifier", identifier);
        connection.setObjectForKey("input", from);
        connection.setObjectForKey("output", to);
        return connection;
    };
    KROPropertyList description = KROPropertyList::dictionary();
    description.setObjectForKey(
        "processors",
        KROPropertyList::Array{entry("KROHardwareAudioProcessor", "capture", "isInputHead"),
                               entry("KROAudioPlaythrough", "through", nullptr),
                               entry("KROHardwareAudioProcessor", "playback", "isRenderHead")});
    description.setObjectForKey("connections",
                                KROPropertyList::Array{join("in", "capture", "through"),
                                                       join("out", "through", "playback")});
    return description;
}

class Part_9_1_JACK : public KROJACKServerTest {};

class Part_9_1 : public ::testing::Test {
protected:
    void SetUp() override {
        backend_ = std::make_shared<KROTestAudioDeviceBackend>();
        Backend::setSharedBackend(backend_);
    }
    void TearDown() override { Backend::setSharedBackend(nullptr); }

    std::shared_ptr<KROTestAudioDeviceBackend> backend_;
};

} // namespace

// Devices on a JACK server.

TEST_F(Part_9_1_JACK, ListsTheServersPhysicalClientAsADevice) {
    KROErrorPtr error;
    const auto devices = KROAudioDevice::devices(&error);
    ASSERT_EQ(error, nullptr);
    ASSERT_EQ(devices.size(), 1u);
    const auto& device = devices.front();
    EXPECT_EQ(device->title(), "system");
    EXPECT_EQ(device->UID(), "jack:system");
    EXPECT_TRUE(device->isValid());
    EXPECT_TRUE(device->hasPhysicalInputs());
    EXPECT_TRUE(device->hasPhysicalOutputs());
    EXPECT_EQ(device->numberOfOutputChannels(), 2u);
    EXPECT_EQ(device->numberOfInputChannels(), 2u);
    EXPECT_EQ(device->sampleRate(), 48000.0);
    EXPECT_EQ(device->availableSampleRates(), std::vector<double>{48000.0});
    EXPECT_EQ(device->outputBufferFrames(), 256u);
    EXPECT_EQ(device->outputSafetyOffset(), 0u);
    const auto titles = device->outputChannelTitles();
    ASSERT_TRUE(titles.has_value());
    EXPECT_EQ(titles->size(), 2u);
    EXPECT_FALSE(titles->front().empty());
    EXPECT_TRUE(KROAudioDevice::defaultOutputDevice()->isEqual(*device));
    EXPECT_TRUE(KROAudioDevice::deviceWithUID("jack:system")->isEqual(*device));
    EXPECT_EQ(KROAudioDevice::inputDevices().size(), 1u);
    EXPECT_EQ(KROAudioDevice::outputDevices().size(), 1u);
}

TEST_F(Part_9_1_JACK, TheServersDeviceAnswersEveryQuestionOfBothDirections) {
    const auto device = KROAudioDevice::defaultOutputDevice();
    ASSERT_NE(device, nullptr);
    EXPECT_TRUE(KROAudioDevice::defaultInputDevice()->isEqual(*device));
    EXPECT_TRUE(KROAudioDevice::systemOutputDevice()->isEqual(*device));
    EXPECT_EQ(device->inputBufferFrames(), 256u);
    EXPECT_EQ(device->inputSafetyOffset(), 0u);
    const NSLongRange range = device->outputBufferFrameSizeRange();
    EXPECT_EQ(range.location, 16u);
    EXPECT_EQ(range.length, 8192u - 16u);
    EXPECT_EQ(device->inputBufferFrameSizeRange().location, 16u);
    const auto inputTitles = device->inputChannelTitles();
    ASSERT_TRUE(inputTitles.has_value());
    EXPECT_EQ(inputTitles->size(), 2u);
    EXPECT_EQ(device->titleOfInputChannel(0), inputTitles->front());
    // JACK has no configuration application, no data sources and no
    // exclusive use: the reads fail or are empty, as on a device without them.
    KROErrorPtr error;
    EXPECT_FALSE(device->configurationApplicationIdentifier(&error).has_value());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "KROAudioDeviceErrorDomain");
    EXPECT_TRUE(device->inputSources().empty());
    EXPECT_EQ(device->exclusivity(), 0);
    EXPECT_FALSE(device->setIsExclusive(true));
}

TEST_F(Part_9_1_JACK, SetDeviceStoresTheDeviceAndPostsDidChange) {
    const auto head = std::make_shared<KROOSXHardwareAudioProcessor>();
    ASSERT_TRUE(head->init());
    KROJACKTestLoopDevice card(8192);
    ASSERT_TRUE(card.open());
    const auto device = KROAudioDevice::deviceWithName(KROJACKTestLoopDevice::name);
    ASSERT_NE(device, nullptr);
    NotificationWaiter changed("KROOSXHardwareAudioProcessorAudioDeviceDidChange");
    EXPECT_TRUE(head->setDevice(device));
    EXPECT_TRUE(changed.wait(std::chrono::milliseconds(0)));
    EXPECT_TRUE(head->device()->isEqual(*device));
    NotificationWaiter unchanged("KROOSXHardwareAudioProcessorAudioDeviceDidChange");
    EXPECT_TRUE(head->setDevice(KROAudioDevice::deviceWithID(device->deviceID())));
    EXPECT_FALSE(unchanged.wait(std::chrono::milliseconds(0)));
}

// The host never sets up the notice: the first device operation does.
TEST_F(Part_9_1_JACK, ASoundCardThatAppearsPostsDevicesChangedAndJoinsTheList) {
    EXPECT_EQ(KROAudioDevice::devices().size(), 1u);
    NotificationWaiter changed("KROAudioDeviceDevicesChanged");
    KROJACKTestLoopDevice card(8192);
    ASSERT_TRUE(card.open());
    ASSERT_TRUE(changed.wait(std::chrono::seconds(10)));
    const auto devices = KROAudioDevice::devices();
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[1]->title(), KROJACKTestLoopDevice::name);
    EXPECT_TRUE(devices[1]->hasPhysicalInputs());
    EXPECT_TRUE(devices[1]->hasPhysicalOutputs());
}

TEST_F(Part_9_1_JACK, RendersA1kHzSineThroughTheHeadCapturedByASecondClient) {
    KROErrorPtr error;
    const auto stream = exampleStream(&error);
    ASSERT_NE(stream, nullptr) << (error ? error->description() : "");
    ASSERT_NE(deviceHead(*stream), nullptr);
    ASSERT_TRUE(stream->initialize(&error)) << (error ? error->description() : "");
    ASSERT_TRUE(stream->start(&error)) << (error ? error->description() : "");

    KROJACKTestCapture capture(48000 * 3);
    const std::string headPort = KROJACKTestCapture::firstPort("kro-.*-out-.*:out_1");
    ASSERT_FALSE(headPort.empty());
    ASSERT_TRUE(capture.open(headPort));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const KROAudioDeviceIOStatistics statistics = deviceHead(*stream)->statistics();
    ASSERT_TRUE(stream->stop(&error));

    const std::vector<float> samples = capture.samples();
    ASSERT_GT(samples.size(), 48000u * 3 / 2);
    EXPECT_NEAR(frequencyByZeroCrossings(samples, 48000.0), 1000.0, 0.5);
    EXPECT_NEAR(rms(samples, 4800), 1.0 / std::sqrt(2.0), 0.01);
    EXPECT_GT(statistics.callbacks, 300u);
    // Xruns of a non-real-time dummy server on a shared machine follow the
    // machine's load, not this code, so they are reported and not tested;
    // the head's own share of the block period is.
    EXPECT_LT(statistics.averageLoad, 0.5);
    std::cout << "callbacks " << statistics.callbacks << ", xruns " << statistics.xruns
              << ", DSP load average " << statistics.averageLoad << ", peak " << statistics.peakLoad
              << "\n";
    const auto meter = std::dynamic_pointer_cast<KROLevelMeterAudioProcessor>(
        stream->processorWithIdentifier("meter"));
    ASSERT_NE(meter, nullptr);
    EXPECT_GT(meter->level(), 0.5f);
}

TEST_F(Part_9_1_JACK, TheRenderCallbackAllocatesNothing) {
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    KROOSXHardwareAudioProcessor* head = deviceHead(*stream);
    ASSERT_NE(head, nullptr);
    // The device's memory as the layer hands it over: two mono buffers.
    std::vector<float> left(256);
    std::vector<float> right(256);
    KROAudioDeviceBuffer buffers[2] = {{left.data(), 1}, {right.data(), 1}};
    head->renderAudioToBuffer(buffers, 2, 256, {1000, 0});
    for (int block = 1; block < 8; ++block) {
        KRO_EXPECT_NO_ALLOCATION(head->renderAudioToBuffer(
            buffers, 2, 256, {std::uint64_t(1000 + block), std::int64_t(block) * 256}));
    }
    EXPECT_GT(*std::max_element(left.begin(), left.end()), 0.5f);
    EXPECT_EQ(head->info()->sampleTime(), 7 * 256);
}

TEST_F(Part_9_1_JACK, OutputIsAddedIntoTheDevicesMemoryAtItsStride) {
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    KROOSXHardwareAudioProcessor* head = deviceHead(*stream);
    // One interleaved buffer of two channels that already holds 0.25.
    std::vector<float> memory(512, 0.25f);
    KROAudioDeviceBuffer buffer{memory.data(), 2};
    head->renderAudioToBuffer(&buffer, 1, 256, {0, 0});
    // The sine starts at phase 0: frame 0 is 0 on both channels, plus 0.25.
    EXPECT_FLOAT_EQ(memory[0], 0.25f);
    EXPECT_FLOAT_EQ(memory[1], 0.25f);
    const float expected = 0.25f + float(std::sin(1000.0 * 2 * M_PI * 12 / 48000.0));
    EXPECT_NEAR(memory[2 * 12], expected, 1e-5);
    EXPECT_NEAR(memory[2 * 12 + 1], expected, 1e-5);
}

TEST_F(Part_9_1_JACK, ChangingTheBufferSizeWhileRunningRebuildsTheGraph) {
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    ASSERT_TRUE(stream->start());
    KROOSXHardwareAudioProcessor* head = deviceHead(*stream);
    EXPECT_EQ(head->bufferFrames(), 256u);
    NotificationWaiter rebuilt("KROAudioDeviceSampleRateChanged");
    KROErrorPtr error;
    ASSERT_TRUE(head->device()->setOutputBufferFrames(128, &error))
        << (error ? error->description() : "");
    ASSERT_TRUE(rebuilt.wait(std::chrono::seconds(10)));
    EXPECT_EQ(head->bufferFrames(), 128u);
    EXPECT_TRUE(head->isRunning());
    EXPECT_EQ(stream->processorWithIdentifier("meter")->inputConnection()->maxFrames(), 128u);
    const std::uint64_t before = head->statistics().callbacks;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_GT(head->statistics().callbacks, before);
    EXPECT_TRUE(stream->stop());
}

TEST_F(Part_9_1_JACK, TheSampleRateOfTheServerCannotBeChanged) {
    const auto device = KROAudioDevice::defaultOutputDevice();
    ASSERT_NE(device, nullptr);
    EXPECT_TRUE(device->setSampleRate(48000));
    KROErrorPtr error;
    EXPECT_FALSE(device->setSampleRate(44100, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), Backend::unsupportedOperation);
    EXPECT_EQ(error->domain(), "KROAudioDeviceErrorDomain");
}

TEST_F(Part_9_1_JACK, SetDeviceIsRefusedWhileInitialized) {
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    KROOSXHardwareAudioProcessor* head = deviceHead(*stream);
    const auto same = KROAudioDevice::deviceWithID(head->device()->deviceID());
    EXPECT_TRUE(head->setDevice(same));
    KROErrorPtr error;
    EXPECT_FALSE(head->setDevice(KROAudioDevice::deviceWithID(999), &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 1);
    EXPECT_EQ(error->domain(), "KROAudioProcessorErrorDomain");
}

TEST_F(Part_9_1_JACK, AnUnknownDeviceNameFindsNoDevice) {
    EXPECT_EQ(KROAudioDevice::deviceWithName("no such device"), nullptr);
    EXPECT_NE(KROAudioDevice::deviceWithName("system"), nullptr);
    EXPECT_EQ(KROAudioDevice::deviceWithUID("jack:none"), nullptr);
    EXPECT_EQ(KROAudioDevice::deviceWithID(0), nullptr);
    EXPECT_FALSE(KROAudioDevice::deviceWithID(999)->isValid());
}

// This process's own ports come and go with every start and stop; the
// device list does not change, so no notice is posted.
TEST_F(Part_9_1_JACK, PlayingRegistersPortsWithoutPostingDevicesChanged) {
    ASSERT_EQ(KROAudioDevice::devices().size(), 1u);
    NotificationWaiter changed("KROAudioDeviceDevicesChanged");
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    ASSERT_TRUE(stream->start());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(stream->stop());
    EXPECT_TRUE(stream->uninitialize());
    EXPECT_FALSE(changed.wait(std::chrono::milliseconds(300)));
}

TEST_F(Part_9_1_JACK, AServerThatGoesAwayWhilePlayingIsNoticedWithoutAHang) {
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    ASSERT_TRUE(stream->start());
    KROOSXHardwareAudioProcessor* head = deviceHead(*stream);
    const auto device = head->device();
    NotificationWaiter gone("KROAudioDeviceDevicesChanged");
    server_.stop();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (device->isValid() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_FALSE(device->isValid());
    EXPECT_TRUE(gone.wait(std::chrono::seconds(10)));
    EXPECT_TRUE(stream->stop());
    EXPECT_TRUE(stream->uninitialize());
}

TEST_F(Part_9_1_JACK, PlaythroughDelaysWhatTheDeviceCapturesByTheLatencyOfAlgorithm10) {
    KROJACKTestLoopDevice card(8192);
    ASSERT_TRUE(card.open());
    const auto device = KROAudioDevice::deviceWithName(KROJACKTestLoopDevice::name);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->numberOfInputChannels(), 2u);
    EXPECT_EQ(device->numberOfOutputChannels(), 2u);

    KROAudioStream stream;
    KROErrorPtr error;
    ASSERT_TRUE(stream.initWithDescription(playthroughDescription(), &error))
        << (error ? error->description() : "");
    for (const char* head : {"capture", "playback"}) {
        auto* hardware =
            dynamic_cast<KROOSXHardwareAudioProcessor*>(stream.processorWithIdentifier(head).get());
        ASSERT_NE(hardware, nullptr);
        ASSERT_TRUE(hardware->setDevice(device));
    }
    ASSERT_TRUE(stream.initialize(&error)) << (error ? error->description() : "");
    const auto through =
        std::dynamic_pointer_cast<KROAudioPlaythrough>(stream.processorWithIdentifier("through"));
    ASSERT_NE(through, nullptr);
    // Input safety offset 0 + 256 frames, output safety offset 0 + 256 frames.
    EXPECT_EQ(through->latency(), 512u);
    through->setEnabled(true);
    ASSERT_TRUE(stream.start(&error)) << (error ? error->description() : "");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    card.startSending();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_TRUE(stream.stop());

    // The output follows the input at latency frames from the moment both
    // clocks were seen; the render side sees the first stored block one
    // block later at the earliest, and that distance adds to the delay.
    ASSERT_NE(through->firstStoredFrame(), -1);
    ASSERT_NE(through->firstRenderFrame(), -1);
    const std::int64_t expected = std::int64_t(through->latency()) + through->firstRenderFrame() -
                                  through->firstStoredFrame();
    const std::vector<std::uint32_t> sent = card.sent();
    const std::vector<std::uint32_t> received = card.received();
    ASSERT_GE(sent.size(), 5u);
    ASSERT_GE(received.size(), 5u);
    // The ring holds four blocks, the Part's margin, and nothing corrects the
    // distance between the clocks: where the two heads first ran further
    // apart than the ring (a slow, instrumented build), the read lands on the
    // same slot a ring length later. A block that the server dropped (an
    // xrun) leaves the ring's older contents in place, which come out one
    // ring length late. Either way the delay only moves by ring lengths.
    const std::int64_t ringFrames = 4 * 256;
    std::int64_t withinRing = expected;
    while (withinRing > ringFrames) {
        withinRing -= ringFrames;
    }
    std::size_t onTime = 0;
    for (const std::uint32_t arrival : received) {
        const auto earlier = std::upper_bound(sent.begin(), sent.end(), arrival);
        ASSERT_NE(earlier, sent.begin()) << "an impulse came back before any was sent";
        const std::int64_t delay = std::int64_t(arrival - *std::prev(earlier));
        onTime += delay == withinRing ? 1 : 0;
        EXPECT_EQ((delay - expected) % ringFrames, 0)
            << "delay " << delay << " frames, expected " << expected;
    }
    EXPECT_GE(onTime, received.size() * 3 / 4) << "expected a delay of " << withinRing << " frames";
    EXPECT_TRUE(card.channelsAgreed());
    std::cout << "playthrough: latency " << through->latency() << " frames, first render "
              << through->firstRenderFrame() - through->firstStoredFrame()
              << " frames after the first store: " << onTime << " of " << received.size()
              << " impulses came back " << withinRing << " frames after they were sent\n";
}

// The JACK process thread of the head, watched for 30 s at 256 frames. What
// would make this code drop a block is tested always: an allocation, a wait
// (a voluntary context switch), or work that comes near the period. Zero
// xruns is tested whenever the machine itself kept real-time deadlines all
// along; where it did not (a loaded virtual machine, no SCHED_FIFO), the
// xruns are the machine's and are reported with the probe's figures.
TEST(Part_9_1_Xruns, ThirtySecondsAt256FramesDropNoBlock) {
    alarm(watchdogSeconds);
    constexpr unsigned frames = 256;
    constexpr double periodNanoseconds = frames / 48000.0 * 1e9;
    KROJACKTestServer server;
    server.setRealtime(KROSchedulingProbe::realtimePermitted());
    ASSERT_TRUE(server.start(frames)) << "jackd did not start";
    const auto backend =
        std::make_shared<KROJACKWatchedAudioDeviceBackend>(std::uint64_t(periodNanoseconds / 4));
    Backend::setSharedBackend(backend);

    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(stream->initialize());
    ASSERT_TRUE(stream->start());
    KROOSXHardwareAudioProcessor* head = deviceHead(*stream);
    // Joining the graph makes the server's first cycles late; counting
    // starts once the stream runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::uint64_t xrunsBefore = head->statistics().xruns;
    const std::uint64_t slowBefore = backend->figures().slowBlocks;
    KROSchedulingProbe probe(std::uint64_t(periodNanoseconds / 4));
    probe.start();
    std::this_thread::sleep_for(std::chrono::seconds(30));
    probe.stop();
    const KROJACKWatchedAudioDeviceBackend::Figures figures = backend->figures();
    const KROAudioDeviceIOStatistics statistics = head->statistics();
    EXPECT_TRUE(stream->stop());
    server.stop();
    alarm(0);

    const std::uint64_t xruns = statistics.xruns - xrunsBefore;
    const std::uint64_t slowBlocks = figures.slowBlocks - slowBefore;
    const double averageCPU = double(figures.totalCPUNanoseconds) / double(figures.callbacks);
    EXPECT_GT(figures.callbacks, 30 * 48000 / frames * 9 / 10);
    EXPECT_EQ(figures.allocations, 0u);
    EXPECT_EQ(figures.voluntarySwitches, 0u);
    EXPECT_LT(averageCPU, periodNanoseconds / 20);
    // A block that took a quarter of the period is the host's stall, which
    // the probe saw too, or this code's; there may be no more of them than
    // the machine's own stalls.
    EXPECT_LE(slowBlocks, probe.lateWakeups());
    std::cout << figures.callbacks << " blocks of " << frames << " frames: " << xruns
              << " xruns; CPU per block " << averageCPU / 1e3 << " us on average, " << slowBlocks
              << " blocks over a quarter period, longest "
              << double(figures.longestCPUNanoseconds) / 1e6 << " ms. The machine woke a"
              << (probe.realtime() ? " real-time" : "n ordinary (no SCHED_FIFO here)")
              << " thread late " << probe.lateWakeups() << " times, at worst by "
              << probe.worstMilliseconds() << " ms\n";
    if (probe.machineKeptTime()) {
        EXPECT_EQ(xruns, 0u);
    } else {
        std::cout << "xruns not judged: the machine itself missed real-time deadlines\n";
    }
}

TEST(Part_9_1_NoServer, NoJACKServerGivesAClearErrorAndNoHang) {
    alarm(watchdogSeconds);
    setenv("JACK_DEFAULT_SERVER", KROJACKTestServer::uniqueName().c_str(), 1);
    Backend::setSharedBackend(std::make_shared<KROJACKAudioDeviceBackend>());
    const auto started = std::chrono::steady_clock::now();
    KROErrorPtr error;
    EXPECT_TRUE(KROAudioDevice::devices(&error).empty());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), Backend::notRunning);
    EXPECT_NE(error->description().find("no audio server is running"), std::string::npos)
        << error->description();

    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    error.reset();
    EXPECT_FALSE(stream->initialize(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), Backend::notRunning);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    Backend::setSharedBackend(nullptr);
    alarm(0);
}

// Edge cases worth testing.

TEST_F(Part_9_1, ADeviceWithARangeOf8000To96000Reports11025UpTo96000FromTheFixedListAndNo8000) {
    backend_->rateRanges = {{8000, 96000}};
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    EXPECT_EQ(device->availableSampleRates(),
              (std::vector<double>{11025, 12000, 22050, 24000, 44100, 48000, 88200, 96000}));
}

TEST_F(Part_9_1, ADeviceWithTheSingleRate44100AsARangeOfEqualBoundsReports44100) {
    backend_->rateRanges = {{44100, 44100}};
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    EXPECT_EQ(device->availableSampleRates(), std::vector<double>{44100});
}

TEST_F(Part_9_1, AChannelWithNoNameReadsAsTheDefaultWordFollowedByTheNumberFrom1) {
    backend_->outputLayout = {3};
    backend_->channelNames = {{1, "Left"}, {2, ""}};
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    EXPECT_EQ(device->outputChannelTitles(),
              (std::vector<std::string>{"Left", "Channel 2", "Channel 3"}));
    EXPECT_EQ(device->titleOfOutputChannel(0), "Left");
}

TEST_F(Part_9_1, NumberOfChannelsForScopeSumsOverSeveralBuffers) {
    backend_->outputLayout = {2, 1, 4};
    backend_->inputLayout = {};
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    EXPECT_EQ(device->numberOfOutputChannels(), 7u);
    EXPECT_EQ(device->numberOfInputChannels(), 0u);
    EXPECT_FALSE(device->hasPhysicalInputs());
}

namespace {

// A playthrough between two connections: the input side of 'inputChannels'
// channels, the render side of 'outputChannels'.
struct PlaythroughRig {
    PlaythroughRig(std::uint64_t inputChannels, std::uint64_t outputChannels) {
        playthrough->init();
        in.setNumberOfChannels(inputChannels);
        in.setMaxFrames(64);
        out.setNumberOfChannels(outputChannels);
        out.setMaxFrames(64);
        stream.init();
        stream.connectInputBus(*playthrough->inputBus(), in);
        stream.connectOutputBus(*playthrough->outputBus(), out);
    }
    KROAudioStream stream;
    std::shared_ptr<KROAudioPlaythrough> playthrough = std::make_shared<KROAudioPlaythrough>();
    KROAudioConnection in;
    KROAudioConnection out;
};

} // namespace

TEST_F(Part_9_1, PlaythroughDisabledRendersSilenceEnabledBeforeAnyInputItRendersSilence) {
    PlaythroughRig rig(2, 2);
    ASSERT_TRUE(rig.playthrough->initializeForInput());
    ASSERT_TRUE(rig.playthrough->initializeForRender());
    auto block = KROAudioBufferList::bufferListWithChannels(2, 64);
    block->setFrames(64);
    KROAudioStreamRenderInfo info;

    // Disabled: input is ignored and render is silence.
    block->scale(0.0f);
    for (std::uint64_t i = 0; i < 64; ++i) {
        block->setValue(1.0f, i, 0);
        block->setValue(1.0f, i, 1);
    }
    rig.playthrough->input(*block, *rig.playthrough->inputBus(), info);
    rig.playthrough->render(*block, *rig.playthrough->outputBus(), info);
    EXPECT_EQ(block->magnitude(), 0.0f);

    // Enabled, nothing stored yet: silence.
    rig.playthrough->setEnabled(true);
    for (std::uint64_t i = 0; i < 64; ++i) {
        block->setValue(1.0f, i, 0);
    }
    rig.playthrough->render(*block, *rig.playthrough->outputBus(), info);
    EXPECT_EQ(block->magnitude(), 0.0f);
    EXPECT_EQ(rig.playthrough->firstStoredFrame(), -1);
}

TEST_F(Part_9_1, PlaythroughRendersWhatWasStoredFromTheFirstRenderOn) {
    PlaythroughRig rig(1, 1);
    ASSERT_TRUE(rig.playthrough->initializeForInput());
    ASSERT_TRUE(rig.playthrough->initializeForRender());
    EXPECT_EQ(rig.playthrough->latency(), 0u);
    rig.playthrough->setEnabled(true);
    auto block = KROAudioBufferList::bufferListWithChannels(1, 64);
    block->setFrames(64);
    for (std::uint64_t i = 0; i < 64; ++i) {
        block->setValue(float(i + 1), i);
    }
    KROAudioStreamRenderInfo inputInfo;
    inputInfo.setSampleTime(1000);
    rig.playthrough->input(*block, *rig.playthrough->inputBus(), inputInfo);
    EXPECT_EQ(rig.playthrough->firstStoredFrame(), 1000);

    auto out = KROAudioBufferList::bufferListWithChannels(1, 64);
    out->setFrames(64);
    KROAudioStreamRenderInfo renderInfo;
    renderInfo.setSampleTime(77);
    KRO_EXPECT_NO_ALLOCATION(
        rig.playthrough->render(*out, *rig.playthrough->outputBus(), renderInfo));
    EXPECT_EQ(rig.playthrough->firstRenderFrame(), 77);
    EXPECT_EQ(out->valueAtFrame(0), 1.0f);
    EXPECT_EQ(out->valueAtFrame(63), 64.0f);
}

// Algorithms 7, 10 and 6 through both heads: the input head reads the
// device's interleaved memory at its stride, the playthrough delays it by
// latency frames (64 + 64 on the fixed layer), and the render head adds it
// into the device's memory at its stride.
TEST_F(Part_9_1, TheInputHeadReadsAtTheStrideAndThePlaythroughHandsItToTheRenderHead) {
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(playthroughDescription()));
    ASSERT_TRUE(stream.initialize());
    auto* capture = dynamic_cast<KROOSXHardwareAudioProcessor*>(
        stream.processorWithIdentifier("capture").get());
    auto* playback = dynamic_cast<KROOSXHardwareAudioProcessor*>(
        stream.processorWithIdentifier("playback").get());
    const auto through =
        std::dynamic_pointer_cast<KROAudioPlaythrough>(stream.processorWithIdentifier("through"));
    ASSERT_TRUE(capture && playback && through);
    EXPECT_EQ(through->latency(), 128u);
    through->setEnabled(true);
    // Two blocks of input, left i + 1 and right -(i + 1), interleaved.
    for (const std::int64_t at : {0, 64}) {
        std::vector<float> memory(128);
        for (std::size_t i = 0; i < 64; ++i) {
            memory[2 * i] = float(at) + float(i + 1);
            memory[2 * i + 1] = -(float(at) + float(i + 1));
        }
        KROAudioDeviceBuffer buffer{memory.data(), 2};
        KRO_EXPECT_NO_ALLOCATION(capture->inputWithBuffer(&buffer, 1, 64, {0, at}));
    }
    EXPECT_EQ(through->firstStoredFrame(), 0);
    // The first render reads 128 frames before the first stored one, the
    // second 64 frames before it: silence; the third reads frame 0 on.
    std::vector<float> output(128);
    for (const std::int64_t at : {5000, 5064, 5128}) {
        std::fill(output.begin(), output.end(), 0.5f);
        KROAudioDeviceBuffer buffer{output.data(), 2};
        KRO_EXPECT_NO_ALLOCATION(playback->renderAudioToBuffer(&buffer, 1, 64, {0, at}));
        if (at < 5128) {
            EXPECT_EQ(*std::max_element(output.begin(), output.end()), 0.5f);
        }
    }
    EXPECT_EQ(through->firstRenderFrame(), 5000);
    EXPECT_EQ(output[0], 1.5f);
    EXPECT_EQ(output[1], -0.5f);
    EXPECT_EQ(output[2 * 63], 64.5f);
    EXPECT_EQ(output[2 * 63 + 1], -63.5f);
}

TEST_F(Part_9_1, ADifferentChannelCountOnTheTwoSidesOfAPlaythroughFailsAtTheSecondInitialisation) {
    PlaythroughRig rig(2, 1);
    ASSERT_TRUE(rig.playthrough->initializeForInput());
    KROErrorPtr error;
    EXPECT_FALSE(rig.playthrough->initializeForRender(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 1);
    EXPECT_EQ(error->domain(), "KROAudioPlaythroughErrorDomain");
    EXPECT_NE(error->description().find("KROAudioPlaythrough"), std::string::npos);
}

// The device head in descriptions.

TEST_F(Part_9_1, KROHardwareAudioProcessorInADescriptionGivesTheDeviceHead) {
    const auto stream = exampleStream();
    ASSERT_NE(stream, nullptr);
    ASSERT_NE(deviceHead(*stream), nullptr);
    EXPECT_EQ(stream->renderHeadProcessor()->className(), "KROOSXHardwareAudioProcessor");
    ASSERT_TRUE(stream->initialize());
    EXPECT_EQ(deviceHead(*stream)->bufferFrames(), 64u);
    EXPECT_EQ(stream->processorWithIdentifier("meter")->inputConnection()->sampleRate(), 44100.0);
    EXPECT_EQ(stream->processorWithIdentifier("meter")->inputConnection()->numberOfChannels(), 2u);
}

TEST_F(Part_9_1, ADescriptionWhoseHeadIsNotADeviceHeadGivesNoDeviceHead) {
    KROPropertyList head = KROPropertyList::dictionary();
    head.setObjectForKey("class", "KROHeadAudioProcessor");
    head.setObjectForKey("identifier", "output");
    head.setObjectForKey("isRenderHead", true);
    KROPropertyList description = KROPropertyList::dictionary();
    description.setObjectForKey("processors", KROPropertyList::Array{head});
    description.setObjectForKey("connections", KROPropertyList::Array{});
    KROAudioStream stream;
    ASSERT_TRUE(stream.initWithDescription(description));
    ASSERT_NE(stream.renderHeadProcessor(), nullptr);
    EXPECT_EQ(deviceHead(stream), nullptr);
}

TEST_F(Part_9_1, AnInitializeOfAnInvalidDeviceFailsWithTheClassName) {
    const auto head = std::make_shared<KROOSXHardwareAudioProcessor>();
    ASSERT_TRUE(head->init());
    struct DeadBackend : KROTestAudioDeviceBackend {
        Status sampleRate(DeviceID, double&) override { return badDevice; }
    };
    Backend::setSharedBackend(std::make_shared<DeadBackend>());
    KROErrorPtr error;
    EXPECT_FALSE(head->initializeForRender(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "KROOSXHardwareAudioProcessorErrorDomain");
    EXPECT_NE(error->description().find("KROOSXHardwareAudioProcessor"), std::string::npos);
}

TEST_F(Part_9_1, ExclusivityIsUnknownWhereTheLayerHasNoExclusiveUse) {
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    EXPECT_EQ(device->exclusivity(), 0);
    EXPECT_FALSE(device->setIsExclusive(true));
}

TEST_F(Part_9_1, ExclusivityFollowsAlgorithm3InEveryState) {
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    backend_->hogPID = -1;
    EXPECT_EQ(device->exclusivity(), 1);
    // Free and not wanted: true, nothing written.
    EXPECT_TRUE(device->setIsExclusive(false));
    EXPECT_EQ(backend_->hogWrites, 0);
    // Free and wanted: written once, now held by this process.
    EXPECT_TRUE(device->setIsExclusive(true));
    EXPECT_EQ(backend_->hogWrites, 1);
    EXPECT_EQ(device->exclusivity(), 2);
    // Held and wanted: true, nothing written.
    EXPECT_TRUE(device->setIsExclusive(true));
    EXPECT_EQ(backend_->hogWrites, 1);
    // Held and given up: written again, the property toggles back.
    EXPECT_TRUE(device->setIsExclusive(false));
    EXPECT_EQ(backend_->hogWrites, 2);
    EXPECT_EQ(device->exclusivity(), 1);
    // Held by another process: '!hog' with the action of setting exclusivity.
    backend_->hogPID = backend_->otherPID;
    EXPECT_EQ(device->exclusivity(), 3);
    for (const bool wanted : {true, false}) {
        KROErrorPtr error;
        EXPECT_FALSE(device->setIsExclusive(wanted, &error));
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->code(), KROFourCharCode("!hog"));
        EXPECT_EQ(error->domain(), "KROAudioDeviceErrorDomain");
        EXPECT_EQ(error->description().rfind(
                      KROLocalizedString("KROAudioDevice_action_settingExclusivity"), 0),
                  0u)
            << error->description();
    }
    EXPECT_EQ(backend_->hogWrites, 2);
}

TEST_F(Part_9_1, AFailedExclusivityReadIsAnErrorWithTheRetrievingAction) {
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    KROErrorPtr error;
    EXPECT_EQ(device->exclusivity(&error), 0);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), Backend::unknownProperty);
    EXPECT_EQ(error->description().rfind(
                  KROLocalizedString("KROAudioDevice_action_retrievingExclusivity"), 0),
              0u)
        << error->description();
}

TEST_F(Part_9_1, SourcesAreTitledAndTheirEnabledStateReadsAndRewritesTheSelection) {
    backend_->inputSourceNames = {{0x6c696e65, "Line In"}, {0x6d696320, "Microphone"}};
    backend_->selectedInputSources = {0x6d696320};
    const auto device = KROAudioDevice::deviceWithID(KROTestAudioDeviceBackend::deviceID);
    const auto sources = device->inputSources();
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[0]->title(), "Line In");
    EXPECT_EQ(sources[0]->scope(), Backend::scopeInput);
    EXPECT_EQ(sources[0]->description(), "KROAudioDeviceSource: Line In [1818848869]");
    EXPECT_FALSE(sources[0]->enabled());
    EXPECT_TRUE(sources[1]->enabled());
    EXPECT_TRUE(sources[0]->setEnabled(true));
    EXPECT_EQ(backend_->selectedInputSources, (std::vector<std::uint64_t>{0x6d696320, 0x6c696e65}));
    EXPECT_TRUE(sources[1]->setEnabled(false));
    EXPECT_EQ(backend_->selectedInputSources, std::vector<std::uint64_t>{0x6c696e65});
    EXPECT_TRUE(device->outputSources().empty());
}

TEST_F(Part_9_1, ASourceDescribesItselfWithTitleAndNumberAndComparesByItsThreeNumbers) {
    const auto a = KROAudioDeviceSource::sourceWithDevice(7, Backend::scopeInput, 3, "Line In");
    const auto b = KROAudioDeviceSource::sourceWithDevice(7, Backend::scopeInput, 3, "Other");
    const auto c = KROAudioDeviceSource::sourceWithDevice(7, Backend::scopeOutput, 3, "Line In");
    EXPECT_EQ(a->description(), "KROAudioDeviceSource: Line In [3]");
    EXPECT_TRUE(a->isEqual(*b));
    EXPECT_FALSE(a->isEqual(*c));
}
