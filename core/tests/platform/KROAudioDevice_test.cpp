// Devices, sources, the head and the playthrough on a layer of fixed answers
// (what a card reports and JACK never does), driven through their callbacks.
#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <tuple>

#include "KROAllocationGuard.h"
#include "KROAudioConnection.h"
#include "KROAudioDevice.h"
#include "KROAudioDeviceSource.h"
#include "KROAudioDeviceTestStreams.h"
#include "KROAudioPlaythrough.h"
#include "KROLocalizedString.h"
#include "KRONotificationCenter.h"
#include "KROOSXHardwareAudioProcessor.h"

namespace {

using Backend = KROAudioDeviceBackend;
using Head = KROOSXHardwareAudioProcessor;
constexpr std::uint64_t notFound = KROAudioDevice::notFound;

// One device, number 7, at 44.1 kHz and 64 frames; every query can fail.
class TestBackend : public KROAudioDeviceBackend {
public:
    static constexpr DeviceID deviceID = 7;

    Status failure = noError;
    Status callbackFailure = noError;
    std::vector<std::pair<double, double>> rateRanges{{44100, 44100}};
    std::vector<std::uint32_t> inputLayout{2};
    std::vector<std::uint32_t> outputLayout{2};
    // By element, from 1; a channel not here has no name.
    std::map<std::uint32_t, std::string> channelNames;
    // The holder, -1 for none; each write toggles it.
    std::int64_t hogPID = -1;
    int hogWrites = 0;
    std::vector<std::uint64_t> selected;

    Status deviceIDs(std::vector<DeviceID>& ids) override {
        return answer(ids, std::vector<DeviceID>{deviceID});
    }
    Status defaultDevice(std::uint32_t, DeviceID& id) override { return answer(id, deviceID); }
    Status name(DeviceID, std::string& text) override { return answer(text, "Test"); }
    Status uid(DeviceID, std::string& text) override { return answer(text, "test:7"); }
    Status streamLayout(DeviceID, std::uint32_t scope,
                        std::vector<std::uint32_t>& layout) override {
        return answer(layout, scope == scopeInput ? inputLayout : outputLayout);
    }
    Status channelName(DeviceID, std::uint32_t, std::uint32_t element, std::string& text) override {
        const auto found = channelNames.find(element);
        return found == channelNames.end() ? unknownProperty : answer(text, found->second);
    }
    Status sampleRateRanges(DeviceID, std::vector<std::pair<double, double>>& ranges) override {
        return answer(ranges, rateRanges);
    }
    Status sampleRate(DeviceID, double& rate) override { return answer(rate, 44100.0); }
    Status setSampleRate(DeviceID, double) override { return failure; }
    Status bufferFrames(DeviceID, std::uint32_t, std::uint32_t& frames) override {
        return answer(frames, 64u);
    }
    Status setBufferFrames(DeviceID, std::uint32_t, std::uint32_t) override { return failure; }
    Status bufferFrameRange(DeviceID, std::uint32_t, std::uint32_t&, std::uint32_t&) override {
        return failure;
    }
    Status safetyOffset(DeviceID, std::uint32_t scope, std::uint32_t& frames) override {
        return answer(frames, scope == scopeInput ? 3u : 5u);
    }
    Status hogMode(DeviceID, std::int64_t& pid) override { return answer(pid, hogPID); }
    Status toggleHogMode(DeviceID) override {
        ++hogWrites;
        return answer(hogPID, hogPID == -1 ? std::int64_t(getpid()) : -1);
    }
    // Two sources in the input scope, none in the output scope.
    Status sourceIDs(DeviceID, std::uint32_t scope, std::vector<std::uint64_t>& ids) override {
        using IDs = std::vector<std::uint64_t>;
        return answer(ids, scope == scopeInput ? IDs{1, 2} : IDs{});
    }
    Status sourceName(DeviceID, std::uint32_t, std::uint64_t id, std::string& text) override {
        return answer(text, "Source " + std::to_string(id));
    }
    Status selectedSources(DeviceID, std::uint32_t, std::vector<std::uint64_t>& ids) override {
        return answer(ids, selected);
    }
    Status setSelectedSources(DeviceID, std::uint32_t,
                              const std::vector<std::uint64_t>& ids) override {
        return answer(selected, ids);
    }
    Status createIOProc(DeviceID, std::uint32_t, std::uint32_t, KROAudioDeviceIOProc, void*,
                        std::uint64_t& procID) override {
        procID = 1;
        return callbackFailure;
    }
    Status destroyIOProc(std::uint64_t) override { return noError; }
    Status start(std::uint64_t) override { return noError; }
    Status stop(std::uint64_t) override { return noError; }
    ListenerToken addSampleRateListener(DeviceID, Listener) override { return 1; }
    ListenerToken addDevicesListener(std::function<void()>) override { return 2; }
    void removeListener(ListenerToken) override {}

private:
    template <typename Value, typename Given> Status answer(Value& value, const Given& given) {
        value = given;
        return failure;
    }
};

std::shared_ptr<TestBackend> installTestBackend() {
    auto backend = std::make_shared<TestBackend>();
    Backend::setSharedBackend(backend);
    return backend;
}

std::shared_ptr<KROAudioDevice> testDevice() {
    return KROAudioDevice::deviceWithID(TestBackend::deviceID);
}

void expectError(const KROErrorPtr& error, const std::string& domain, std::int64_t code,
                 const std::string& beginning) {
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), domain);
    EXPECT_EQ(error->code(), code);
    EXPECT_EQ(error->description().rfind(beginning, 0), 0u) << error->description();
}

} // namespace

// Each query passes the layer's status on with its own action and a failed value.
TEST(KROAudioDevice, AFailedQueryPassesTheLayersStatusOnWithItsAction) {
    const auto layer = installTestBackend();
    layer->failure = Backend::unknownProperty;
    const auto device = testDevice();
    KROAudioDevice& d = *device;
    const auto source = KROAudioDeviceSource::sourceWithDevice(7, Backend::scopeInput, 1, "Line");
    KROErrorPtr e;
    const auto failed = [&](bool failureAnswered, const std::string& action) {
        SCOPED_TRACE(action);
        EXPECT_TRUE(failureAnswered);
        expectError(e, "KROAudioDeviceErrorDomain", Backend::unknownProperty,
                    KROLocalizedString("KROAudioDevice_action_" + action));
        e.reset();
    };
    failed(KROAudioDevice::devices(&e).empty(), "retrievingDeviceList");
    failed(!KROAudioDevice::defaultInputDevice(&e), "retrievingDefaultInput");
    failed(!KROAudioDevice::defaultOutputDevice(&e), "retrievingDefaultOutput");
    failed(!KROAudioDevice::systemOutputDevice(&e), "retrievingSystemOutput");
    failed(!d.title(&e), "retrievingName");
    failed(!d.UID(&e), "retrievingUID");
    failed(!d.configurationApplicationIdentifier(&e),
           "retrievingConfigurationApplicationIdentifier");
    failed(d.inputSources(&e).empty(), "retrievingSources");
    failed(!source->enabled(&e), "retrievingSources");
    failed(!source->setEnabled(true, &e), "settingSourceEnabled");
    failed(d.availableSampleRates(&e).empty(), "retrievingSampleRates");
    failed(d.sampleRate(&e) == 0.0, "retrievingSampleRate");
    failed(!d.setSampleRate(48000, &e), "settingSampleRate");
    failed(d.numberOfOutputChannels(&e) == notFound, "retrievingStreamConfiguration");
    failed(!d.inputChannelTitles(&e), "retrievingStreamConfiguration");
    failed(d.inputBufferFrames(&e) == notFound, "retrievingBufferFrames");
    failed(d.outputBufferFrameSizeRange(&e).location == notFound, "retrievingBufferFrames");
    failed(!d.setOutputBufferFrames(128, &e), "settingBufferFrames");
    failed(d.outputSafetyOffset(&e) == notFound, "retrievingSafetyOffset");
    failed(d.exclusivity(&e) == 0, "retrievingExclusivity");
    failed(!d.setIsExclusive(true, &e), "retrievingExclusivity");
    EXPECT_FALSE(d.isValid());
}

// A point range gives its rate, a wider one the standard rates within it, in order.
TEST(KROAudioDevice, AvailableSampleRatesComeFromEachRangeInTurn) {
    const std::pair<std::vector<std::pair<double, double>>, std::vector<double>> cases[] = {
        {{{8000, 96000}}, {11025, 12000, 22050, 24000, 44100, 48000, 88200, 96000}},
        {{{48000, 48000}, {22050, 24000}, {8000, 8000}}, {48000, 22050, 24000, 8000}},
        {{{176400, 200000}, {11000, 11025}}, {176400, 192000, 11025}},
    };
    const auto layer = installTestBackend();
    for (const auto& [ranges, rates] : cases) {
        layer->rateRanges = ranges;
        EXPECT_EQ(testDevice()->availableSampleRates(), rates);
    }
}

TEST(KROAudioDevice, ChannelsAreCountedOverEveryBufferAndUnnamedOnesAreNumberedFrom1) {
    const auto layer = installTestBackend();
    layer->outputLayout = {2, 1};
    layer->inputLayout = {};
    layer->channelNames = {{1, "Left"}, {2, ""}};
    const auto device = testDevice();
    EXPECT_EQ(device->outputChannelTitles(),
              (std::vector<std::string>{"Left", "Channel 2", "Channel 3"}));
    EXPECT_EQ(device->numberOfInputChannels(), 0u);
    EXPECT_FALSE(device->hasPhysicalInputs());
    EXPECT_TRUE(device->hasPhysicalOutputs());
}

// The hog property is written only on a change; another holder is refused with '!hog'.
TEST(KROAudioDevice, ExclusivityIsTakenAndGivenUpOnlyWhenItMustChange) {
    const std::int64_t self = getpid();
    // Holder, wanted, state before, result, writes, state after.
    const std::tuple<std::int64_t, bool, int, bool, int, int> cases[] = {
        {-1, false, 1, true, 0, 1},   {-1, true, 1, true, 1, 2}, {self, true, 2, true, 0, 2},
        {self, false, 2, true, 1, 1}, {1, true, 3, false, 0, 3}, {1, false, 3, false, 0, 3},
    };
    for (const auto& [holder, wanted, before, result, writes, after] : cases) {
        SCOPED_TRACE(testing::Message() << "held by " << holder << ", wanted " << wanted);
        const auto layer = installTestBackend();
        layer->hogPID = holder;
        EXPECT_EQ(testDevice()->exclusivity(), before);
        KROErrorPtr error;
        EXPECT_EQ(testDevice()->setIsExclusive(wanted, &error), result);
        EXPECT_EQ(layer->hogWrites, writes);
        EXPECT_EQ(testDevice()->exclusivity(), after);
        if (!result) {
            expectError(error, "KROAudioDeviceErrorDomain", KROFourCharCode("!hog"),
                        "Changing the exclusive use of the audio device");
        }
    }
}

TEST(KROAudioDeviceSource, SourcesAreTitledAndEnablingOneRewritesTheSelection) {
    const auto layer = installTestBackend();
    layer->selected = {2, 3};
    const auto source = testDevice()->inputSources().at(0);
    EXPECT_EQ(source->description(), "KROAudioDeviceSource: Source 1 [1]");
    EXPECT_FALSE(source->enabled());
    EXPECT_TRUE(source->setEnabled(true) && source->enabled());
    EXPECT_EQ(layer->selected, (std::vector<std::uint64_t>{2, 3, 1}));
    EXPECT_TRUE(source->setEnabled(false));
    EXPECT_EQ(layer->selected, (std::vector<std::uint64_t>{2, 3}));
    EXPECT_TRUE(testDevice()->outputSources().empty());
}

TEST(KROOSXHardwareAudioProcessor, EachRefusalReportsItsDomainCodeAndAction) {
    const auto initialize = [](Head& head, KROErrorPtr* error) {
        return head.stream()->initialize(error);
    };
    struct Case {
        const char* what;
        Backend::Status failure;
        Backend::Status callbackFailure;
        std::function<bool(Head&, KROErrorPtr*)> attempt;
        const char* domain;
        std::int64_t code;
        const char* beginning;
    };
    const Case cases[] = {
        {"no default device", Backend::notRunning, 0, initialize, "KROAudioDeviceErrorDomain",
         Backend::notRunning, "Finding the default output device failed because no audio server"},
        {"a device that has gone away", Backend::badDevice, 0,
         [&](Head& head, KROErrorPtr* error) {
             return head.setDevice(testDevice()) && initialize(head, error);
         },
         "KROOSXHardwareAudioProcessorErrorDomain", 1,
         "Preparing a processor of class KROOSXHardwareAudioProcessor for rendering failed "
         "because the audio device is not available."},
        {"a callback the layer refuses", 0, Backend::illegalOperation, initialize,
         "KROAudioDeviceErrorDomain", Backend::illegalOperation, "Connecting to the audio device"},
        {"a start before initialisation", 0, 0,
         [](Head& head, KROErrorPtr* e) { return head.start(e); }, "KROAudioDeviceErrorDomain",
         Backend::notRunning, "Starting the audio device"},
        {"another device while initialised", 0, 0,
         [&](Head& head, KROErrorPtr* error) {
             return initialize(head, error) &&
                    head.setDevice(KROAudioDevice::deviceWithID(8), error);
         },
         "KROAudioProcessorErrorDomain", 1, "Changing the audio device of the device head"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto layer = installTestBackend();
        layer->failure = c.failure;
        layer->callbackFailure = c.callbackFailure;
        const auto stream = exampleStream();
        ASSERT_NE(stream, nullptr);
        KROErrorPtr error;
        EXPECT_FALSE(c.attempt(*processorOf<Head>(*stream, "output"), &error));
        expectError(error, c.domain, c.code, c.beginning);
    }
    const auto layer = installTestBackend();
    layer->outputLayout = {1};
    KROErrorPtr error;
    EXPECT_FALSE(playthroughStream()->initialize(&error));
    expectError(error, "KROAudioPlaythroughErrorDomain", 1,
                "Preparing a processor of class KROAudioPlaythrough for rendering failed because "
                "the input and the output have different numbers of channels.");
}

TEST(KROOSXHardwareAudioProcessor, SetDeviceStoresAChangedDeviceAndPostsDidChange) {
    installTestBackend();
    const auto head = std::make_shared<Head>();
    ASSERT_TRUE(head->init());
    int posted = 0;
    auto& center = KRONotificationCenter::defaultCenter();
    const auto token = center.addObserver("KROOSXHardwareAudioProcessorAudioDeviceDidChange",
                                          [&](const KRONotification&) { ++posted; });
    for (const std::uint32_t id : {7, 7, 8}) {
        EXPECT_TRUE(head->setDevice(KROAudioDevice::deviceWithID(id)));
    }
    center.removeObserver(token);
    EXPECT_EQ(posted, 2);
}

// Input goes out latency frames (offsets 3 + 5, 64 frames a side) after both
// clocks were first seen, added into the device's interleaved memory.
TEST(KROAudioPlaythrough, CarriesInputToOutputLatencyFramesAfterBothClocksAreSeen) {
    installTestBackend();
    const auto stream = playthroughStream();
    ASSERT_TRUE(stream && stream->initialize());
    const auto capture = processorOf<Head>(*stream, "capture");
    const auto playback = processorOf<Head>(*stream, "playback");
    const auto through = processorOf<KROAudioPlaythrough>(*stream, "through");
    EXPECT_EQ(through->outputConnection()->sampleRate(), 44100.0);
    EXPECT_EQ(through->latency(), 136u);
    // Left t + i + 1 and right -(t + i + 1) at sample time t.
    const auto input = [&](std::int64_t time) {
        std::vector<float> memory(128);
        for (std::size_t i = 0; i < 128; ++i) {
            memory[i] = float(time + std::int64_t(i / 2) + 1) * (i % 2 ? -1.0f : 1.0f);
        }
        KROAudioDeviceBuffer buffer{memory.data(), 2};
        KRO_EXPECT_NO_ALLOCATION(capture->inputWithBuffer(&buffer, 1, 64, {0, time}));
    };
    // The device's memory holds 0.5 from other clients, which stays.
    std::vector<float> output(128);
    const auto render = [&](std::int64_t time) {
        std::fill(output.begin(), output.end(), 0.5f);
        KROAudioDeviceBuffer buffer{output.data(), 2};
        KRO_EXPECT_NO_ALLOCATION(playback->renderAudioToBuffer(&buffer, 1, 64, {0, time}));
        return *std::max_element(output.begin(), output.end());
    };
    // Disabled, input is dropped; enabled before any input, it is silence.
    input(-64);
    EXPECT_EQ(render(4936), 0.5f);
    through->setEnabled(true);
    EXPECT_EQ(render(4936), 0.5f);
    // The first two renders read before the first stored frame.
    input(0);
    EXPECT_EQ(render(5000), 0.5f);
    EXPECT_EQ(render(5064), 0.5f);
    input(64);
    render(5128);
    EXPECT_EQ(through->firstStoredFrame(), 0);
    EXPECT_EQ(through->firstRenderFrame(), 5000);
    EXPECT_EQ(std::vector<float>(output.begin() + 14, output.begin() + 18),
              (std::vector<float>{0.5f, 0.5f, 1.5f, -0.5f}));
    EXPECT_EQ(std::vector<float>(output.end() - 2, output.end()),
              (std::vector<float>{56.5f, -55.5f}));
}
