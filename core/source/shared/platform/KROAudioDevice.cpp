#include "KROAudioDevice.h"

#include <array>
#include <mutex>
#include <unistd.h>

#include "KROAudioDeviceBackend.h"
#include "KROAudioDeviceSource.h"
#include "KROClassRegistry.h"
#include "KRONotificationCenter.h"

KRO_REGISTER_CLASS(KROAudioDevice, KROObject)

namespace {

using Backend = KROAudioDeviceBackend;

// Posts "KROAudioDeviceDevicesChanged" on every change of the layer's device
// list. Once for each device layer: when a host or a test puts another layer
// in place, the listener moves to the new one.
void listenToDevicesOf(const std::shared_ptr<Backend>& current) {
    static std::mutex lock;
    static std::weak_ptr<Backend> listenedTo;
    static Backend::ListenerToken token = 0;
    const std::lock_guard guard(lock);
    const std::shared_ptr<Backend> previous = listenedTo.lock();
    if (previous == current) {
        return;
    }
    if (previous) {
        previous->removeListener(token);
    }
    token = current->addDevicesListener([] {
        KRONotificationCenter::defaultCenter().postNotification("KROAudioDeviceDevicesChanged");
    });
    listenedTo = current;
}

// The layer every device operation asks. The first use sets up the device
// list's notice, so a host gets it without a call of its own. The reference
// lives to the end of the statement that asks, so a backend replaced
// meanwhile stays alive for the call.
std::shared_ptr<Backend> backend() {
    std::shared_ptr<Backend> current = Backend::sharedBackend();
    listenToDevicesOf(current);
    return current;
}

// The failure site for a status of the layer.
bool fail(KROErrorPtr* error, Backend::Status status, std::string_view action) {
    return KROFail<KROAudioDeviceError>(error, status, action);
}

// The rates offered within a range of different bounds; a device that gives a
// range is taken to run at the usual rates inside it, no others.
constexpr std::array<double, 10> standardRates = {11025, 12000, 22050, 24000,  44100,
                                                  48000, 88200, 96000, 176400, 192000};

} // namespace

void KROAudioDevice::initialize() {
    backend();
}

KROAudioDevice::Devices KROAudioDevice::devices(KROErrorPtr* error) {
    return devicesWithInput(true, true, error);
}

KROAudioDevice::Devices KROAudioDevice::inputDevices(KROErrorPtr* error) {
    return devicesWithInput(true, false, error);
}

KROAudioDevice::Devices KROAudioDevice::outputDevices(KROErrorPtr* error) {
    return devicesWithInput(false, true, error);
}

KROAudioDevice::Devices KROAudioDevice::devicesWithInput(bool input, bool output,
                                                         KROErrorPtr* error) {
    std::vector<Backend::DeviceID> ids;
    if (const Backend::Status status = backend()->deviceIDs(ids)) {
        fail(error, status, "KROAudioDevice_action_retrievingDeviceList");
        return {};
    }
    Devices result;
    for (const Backend::DeviceID id : ids) {
        auto device = deviceWithID(id);
        if (device &&
            ((input && device->hasPhysicalInputs()) || (output && device->hasPhysicalOutputs()))) {
            result.push_back(device);
        }
    }
    return result;
}

namespace {

std::shared_ptr<KROAudioDevice> defaultDevice(std::uint32_t scope, std::string_view action,
                                              KROErrorPtr* error) {
    Backend::DeviceID id = 0;
    if (const Backend::Status status = backend()->defaultDevice(scope, id)) {
        fail(error, status, action);
        return nullptr;
    }
    return KROAudioDevice::deviceWithID(id);
}

} // namespace

std::shared_ptr<KROAudioDevice> KROAudioDevice::defaultInputDevice(KROErrorPtr* error) {
    return defaultDevice(Backend::scopeInput, "KROAudioDevice_action_retrievingDefaultInput",
                         error);
}

std::shared_ptr<KROAudioDevice> KROAudioDevice::defaultOutputDevice(KROErrorPtr* error) {
    return defaultDevice(Backend::scopeOutput, "KROAudioDevice_action_retrievingDefaultOutput",
                         error);
}

std::shared_ptr<KROAudioDevice> KROAudioDevice::systemOutputDevice(KROErrorPtr* error) {
    return defaultDevice(Backend::scopeSystemOutput, "KROAudioDevice_action_retrievingSystemOutput",
                         error);
}

std::shared_ptr<KROAudioDevice> KROAudioDevice::deviceWithID(std::uint32_t deviceID) {
    auto device = std::make_shared<KROAudioDevice>();
    return device->initWithDeviceID(deviceID) ? device : nullptr;
}

std::shared_ptr<KROAudioDevice> KROAudioDevice::deviceWithUID(const std::string& uid) {
    for (const auto& device : devices()) {
        if (device->UID() == uid) {
            return device;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioDevice> KROAudioDevice::deviceWithName(const std::string& name,
                                                               KROErrorPtr* error) {
    for (const auto& device : devices(error)) {
        if (device->title() == name || device->UID() == name) {
            return device;
        }
    }
    return nullptr;
}

bool KROAudioDevice::initWithDeviceID(std::uint32_t deviceID) {
    deviceID_ = deviceID;
    return deviceID != 0;
}

bool KROAudioDevice::isValid() const {
    return sampleRate() != 0.0;
}

bool KROAudioDevice::isEqual(const KROObject& other) const {
    const auto* device = dynamic_cast<const KROAudioDevice*>(&other);
    return device && device->deviceID_ == deviceID_;
}

std::string KROAudioDevice::description() const {
    return "KROAudioDevice: " + title().value_or("?") + " [" + std::to_string(deviceID_) + "]";
}

std::optional<std::string> KROAudioDevice::title(KROErrorPtr* error) const {
    std::string text;
    if (const Backend::Status status = backend()->name(deviceID_, text)) {
        fail(error, status, "KROAudioDevice_action_retrievingName");
        return std::nullopt;
    }
    return text;
}

std::optional<std::string> KROAudioDevice::UID(KROErrorPtr* error) const {
    std::string text;
    if (const Backend::Status status = backend()->uid(deviceID_, text)) {
        fail(error, status, "KROAudioDevice_action_retrievingUID");
        return std::nullopt;
    }
    return text;
}

std::optional<std::string>
KROAudioDevice::configurationApplicationIdentifier(KROErrorPtr* error) const {
    std::string text;
    if (const Backend::Status status = backend()->configurationApplication(deviceID_, text)) {
        fail(error, status, "KROAudioDevice_action_retrievingConfigurationApplicationIdentifier");
        return std::nullopt;
    }
    return text;
}

bool KROAudioDevice::hasPhysicalInputs() const {
    std::vector<std::uint32_t> layout;
    return backend()->streamLayout(deviceID_, Backend::scopeInput, layout) == 0 && !layout.empty();
}

bool KROAudioDevice::hasPhysicalOutputs() const {
    std::vector<std::uint32_t> layout;
    return backend()->streamLayout(deviceID_, Backend::scopeOutput, layout) == 0 && !layout.empty();
}

KROAudioDevice::Sources KROAudioDevice::inputSources(KROErrorPtr* error) const {
    return sourcesForScope(Backend::scopeInput, error);
}

KROAudioDevice::Sources KROAudioDevice::outputSources(KROErrorPtr* error) const {
    return sourcesForScope(Backend::scopeOutput, error);
}

KROAudioDevice::Sources KROAudioDevice::sourcesForScope(std::uint32_t scope,
                                                        KROErrorPtr* error) const {
    std::vector<std::uint64_t> ids;
    if (const Backend::Status status = backend()->sourceIDs(deviceID_, scope, ids)) {
        fail(error, status, "KROAudioDevice_action_retrievingSources");
        return {};
    }
    Sources sources;
    for (const std::uint64_t id : ids) {
        std::string sourceTitle;
        if (const Backend::Status status =
                backend()->sourceName(deviceID_, scope, id, sourceTitle)) {
            fail(error, status, "KROAudioDevice_action_retrievingSources");
            return {};
        }
        sources.push_back(
            KROAudioDeviceSource::sourceWithDevice(deviceID_, scope, id, sourceTitle));
    }
    return sources;
}

std::vector<double> KROAudioDevice::availableSampleRates(KROErrorPtr* error) const {
    std::vector<std::pair<double, double>> ranges;
    if (const Backend::Status status = backend()->sampleRateRanges(deviceID_, ranges)) {
        fail(error, status, "KROAudioDevice_action_retrievingSampleRates");
        return {};
    }
    // In the order of the ranges, neither sorted nor merged: hosts show the
    // list as the device gives it.
    std::vector<double> rates;
    for (const auto& [minimum, maximum] : ranges) {
        if (minimum == maximum) {
            rates.push_back(minimum);
            continue;
        }
        for (const double rate : standardRates) {
            if (rate >= minimum && rate <= maximum) {
                rates.push_back(rate);
            }
        }
    }
    return rates;
}

double KROAudioDevice::sampleRate(KROErrorPtr* error) const {
    double rate = 0.0;
    if (const Backend::Status status = backend()->sampleRate(deviceID_, rate)) {
        fail(error, status, "KROAudioDevice_action_retrievingSampleRate");
        return 0.0;
    }
    return rate;
}

bool KROAudioDevice::setSampleRate(double rate, KROErrorPtr* error) {
    if (const Backend::Status status = backend()->setSampleRate(deviceID_, rate)) {
        return fail(error, status, "KROAudioDevice_action_settingSampleRate");
    }
    return true;
}

std::uint64_t KROAudioDevice::numberOfInputChannels(KROErrorPtr* error) const {
    return numberOfChannelsForScope(Backend::scopeInput, error);
}

std::uint64_t KROAudioDevice::numberOfOutputChannels(KROErrorPtr* error) const {
    return numberOfChannelsForScope(Backend::scopeOutput, error);
}

std::uint64_t KROAudioDevice::numberOfChannelsForScope(std::uint32_t scope,
                                                       KROErrorPtr* error) const {
    std::vector<std::uint32_t> layout;
    if (const Backend::Status status = backend()->streamLayout(deviceID_, scope, layout)) {
        fail(error, status, "KROAudioDevice_action_retrievingStreamConfiguration");
        return notFound;
    }
    std::uint64_t channels = 0;
    for (const std::uint32_t count : layout) {
        channels += count;
    }
    return channels;
}

std::optional<std::vector<std::string>>
KROAudioDevice::inputChannelTitles(KROErrorPtr* error) const {
    return channelTitlesForScope(Backend::scopeInput, error);
}

std::optional<std::vector<std::string>>
KROAudioDevice::outputChannelTitles(KROErrorPtr* error) const {
    return channelTitlesForScope(Backend::scopeOutput, error);
}

std::optional<std::vector<std::string>>
KROAudioDevice::channelTitlesForScope(std::uint32_t scope, KROErrorPtr* error) const {
    const std::uint64_t channels = numberOfChannelsForScope(scope, error);
    if (channels == notFound) {
        return std::nullopt;
    }
    std::vector<std::string> titles;
    for (std::uint64_t channel = 0; channel < channels; ++channel) {
        titles.push_back(titleOfChannel(channel, scope));
    }
    return titles;
}

std::string KROAudioDevice::titleOfInputChannel(std::uint64_t channel) const {
    return titleOfChannel(channel, Backend::scopeInput);
}

std::string KROAudioDevice::titleOfOutputChannel(std::uint64_t channel) const {
    return titleOfChannel(channel, Backend::scopeOutput);
}

std::string KROAudioDevice::titleOfChannel(std::uint64_t channel, std::uint32_t scope) const {
    std::string name;
    if (backend()->channelName(deviceID_, scope, std::uint32_t(channel + 1), name) == 0 &&
        !name.empty()) {
        return name;
    }
    return KROStringWithFormatArguments("%@ %ld",
                                        KROLocalizedString("KROAudioDevice_defaultChannelName"),
                                        std::int64_t(channel + 1));
}

std::uint64_t KROAudioDevice::inputBufferFrames(KROErrorPtr* error) const {
    return bufferFramesForScope(Backend::scopeInput, error);
}

bool KROAudioDevice::setInputBufferFrames(std::uint64_t frames, KROErrorPtr* error) {
    return setBufferFrames(frames, Backend::scopeInput, error);
}

std::uint64_t KROAudioDevice::outputBufferFrames(KROErrorPtr* error) const {
    return bufferFramesForScope(Backend::scopeOutput, error);
}

bool KROAudioDevice::setOutputBufferFrames(std::uint64_t frames, KROErrorPtr* error) {
    return setBufferFrames(frames, Backend::scopeOutput, error);
}

std::uint64_t KROAudioDevice::bufferFramesForScope(std::uint32_t scope, KROErrorPtr* error) const {
    std::uint32_t frames = 0;
    if (const Backend::Status status = backend()->bufferFrames(deviceID_, scope, frames)) {
        fail(error, status, "KROAudioDevice_action_retrievingBufferFrames");
        return notFound;
    }
    return frames;
}

bool KROAudioDevice::setBufferFrames(std::uint64_t frames, std::uint32_t scope,
                                     KROErrorPtr* error) {
    if (const Backend::Status status =
            backend()->setBufferFrames(deviceID_, scope, std::uint32_t(frames))) {
        return fail(error, status, "KROAudioDevice_action_settingBufferFrames");
    }
    return true;
}

NSLongRange KROAudioDevice::inputBufferFrameSizeRange(KROErrorPtr* error) const {
    return bufferFrameSizeRangeForScope(Backend::scopeInput, error);
}

NSLongRange KROAudioDevice::outputBufferFrameSizeRange(KROErrorPtr* error) const {
    return bufferFrameSizeRangeForScope(Backend::scopeOutput, error);
}

NSLongRange KROAudioDevice::bufferFrameSizeRangeForScope(std::uint32_t scope,
                                                         KROErrorPtr* error) const {
    std::uint32_t minimum = 0;
    std::uint32_t maximum = 0;
    if (const Backend::Status status =
            backend()->bufferFrameRange(deviceID_, scope, minimum, maximum)) {
        fail(error, status, "KROAudioDevice_action_retrievingBufferFrames");
        return {notFound, 0};
    }
    return {minimum, std::uint64_t(maximum) - minimum};
}

std::uint64_t KROAudioDevice::inputSafetyOffset(KROErrorPtr* error) const {
    return safetyOffsetForScope(Backend::scopeInput, error);
}

std::uint64_t KROAudioDevice::outputSafetyOffset(KROErrorPtr* error) const {
    return safetyOffsetForScope(Backend::scopeOutput, error);
}

std::uint64_t KROAudioDevice::safetyOffsetForScope(std::uint32_t scope, KROErrorPtr* error) const {
    std::uint32_t frames = 0;
    if (const Backend::Status status = backend()->safetyOffset(deviceID_, scope, frames)) {
        fail(error, status, "KROAudioDevice_action_retrievingSafetyOffset");
        return notFound;
    }
    return frames;
}

int KROAudioDevice::exclusivity(KROErrorPtr* error) const {
    std::int64_t pid = 0;
    if (const Backend::Status status = backend()->hogMode(deviceID_, pid)) {
        fail(error, status, "KROAudioDevice_action_retrievingExclusivity");
        return 0;
    }
    if (pid == -1) {
        return 1;
    }
    return pid == getpid() ? 2 : 3;
}

bool KROAudioDevice::setIsExclusive(bool exclusive, KROErrorPtr* error) {
    const int state = exclusivity(error);
    if (state == 0) {
        return false;
    }
    if ((state == 1 && !exclusive) || (state == 2 && exclusive)) {
        return true;
    }
    if (state == 3) {
        return fail(error, KROFourCharCode("!hog"), "KROAudioDevice_action_settingExclusivity");
    }
    // The property toggles: writing it takes or gives up the device.
    if (const Backend::Status status = backend()->toggleHogMode(deviceID_)) {
        return fail(error, status, "KROAudioDevice_action_settingExclusivity");
    }
    return true;
}
