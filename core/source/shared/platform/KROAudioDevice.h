// A thin object around one audio device: its number, and the
// questions that can be asked of it. It holds no other state; every answer is
// fetched from the device layer (KROAudioDeviceBackend) when asked for, so
// two objects for the same number are equal and interchangeable.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KROError.h"
#include "KROObject.h"
#include "KRORange.h"

class KROAudioDeviceSource;

class KROAudioDevice : public KROObject {
    KRO_DECLARE_CLASS(KROAudioDevice)

public:
    using Devices = std::vector<std::shared_ptr<KROAudioDevice>>;
    using Sources = std::vector<std::shared_ptr<KROAudioDeviceSource>>;

    // The value of a failed count, size or offset read.
    static constexpr std::uint64_t notFound = 0x7fffffffffffffff;

    // Once for each device layer: listens to the device list and posts
    // "KROAudioDeviceDevicesChanged" with no object on a change.
    static void initialize();

    static Devices devices(KROErrorPtr* error = nullptr);
    static Devices inputDevices(KROErrorPtr* error = nullptr);
    static Devices outputDevices(KROErrorPtr* error = nullptr);
    // Devices in the layer's order with physical inputs when input is true,
    // or physical outputs when output is true.
    static Devices devicesWithInput(bool input, bool output, KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROAudioDevice> defaultInputDevice(KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROAudioDevice> defaultOutputDevice(KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROAudioDevice> systemOutputDevice(KROErrorPtr* error = nullptr);
    // None for 0.
    static std::shared_ptr<KROAudioDevice> deviceWithID(std::uint32_t deviceID);
    static std::shared_ptr<KROAudioDevice> deviceWithUID(const std::string& uid);
    // The device whose title or unique string is the name given, none if
    // there is none (for hosts that let a person name a device).
    static std::shared_ptr<KROAudioDevice> deviceWithName(const std::string& name,
                                                          KROErrorPtr* error = nullptr);

    // False for 0.
    bool initWithDeviceID(std::uint32_t deviceID);

    // sampleRate is not 0: a device that has gone away fails that read.
    bool isValid() const;
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override { return deviceID_; }
    std::string description() const override;

    std::optional<std::string> title(KROErrorPtr* error = nullptr) const;
    std::optional<std::string> UID(KROErrorPtr* error = nullptr) const;
    std::optional<std::string>
    configurationApplicationIdentifier(KROErrorPtr* error = nullptr) const;

    bool hasPhysicalInputs() const;
    bool hasPhysicalOutputs() const;

    Sources inputSources(KROErrorPtr* error = nullptr) const;
    Sources outputSources(KROErrorPtr* error = nullptr) const;
    Sources sourcesForScope(std::uint32_t scope, KROErrorPtr* error = nullptr) const;

    // Each range of equal bounds gives its rate; each other range gives the
    // standard rates from 11025 to 192000 that lie within it, bounds included.
    std::vector<double> availableSampleRates(KROErrorPtr* error = nullptr) const;
    double sampleRate(KROErrorPtr* error = nullptr) const;
    bool setSampleRate(double rate, KROErrorPtr* error = nullptr);

    std::uint64_t numberOfInputChannels(KROErrorPtr* error = nullptr) const;
    std::uint64_t numberOfOutputChannels(KROErrorPtr* error = nullptr) const;
    // The sum of the channels of every buffer of the layout.
    std::uint64_t numberOfChannelsForScope(std::uint32_t scope, KROErrorPtr* error = nullptr) const;

    std::optional<std::vector<std::string>> inputChannelTitles(KROErrorPtr* error = nullptr) const;
    std::optional<std::vector<std::string>> outputChannelTitles(KROErrorPtr* error = nullptr) const;
    std::optional<std::vector<std::string>>
    channelTitlesForScope(std::uint32_t scope, KROErrorPtr* error = nullptr) const;
    // The device's name for the channel, or "Channel n" counting from 1 when it
    // has none or an empty one; channel numbers here count from 0.
    std::string titleOfInputChannel(std::uint64_t channel) const;
    std::string titleOfOutputChannel(std::uint64_t channel) const;
    std::string titleOfChannel(std::uint64_t channel, std::uint32_t scope) const;

    std::uint64_t inputBufferFrames(KROErrorPtr* error = nullptr) const;
    bool setInputBufferFrames(std::uint64_t frames, KROErrorPtr* error = nullptr);
    std::uint64_t outputBufferFrames(KROErrorPtr* error = nullptr) const;
    bool setOutputBufferFrames(std::uint64_t frames, KROErrorPtr* error = nullptr);
    std::uint64_t bufferFramesForScope(std::uint32_t scope, KROErrorPtr* error = nullptr) const;
    bool setBufferFrames(std::uint64_t frames, std::uint32_t scope, KROErrorPtr* error = nullptr);

    // location the minimum, length the maximum minus the minimum.
    NSLongRange inputBufferFrameSizeRange(KROErrorPtr* error = nullptr) const;
    NSLongRange outputBufferFrameSizeRange(KROErrorPtr* error = nullptr) const;
    NSLongRange bufferFrameSizeRangeForScope(std::uint32_t scope,
                                             KROErrorPtr* error = nullptr) const;

    std::uint64_t inputSafetyOffset(KROErrorPtr* error = nullptr) const;
    std::uint64_t outputSafetyOffset(KROErrorPtr* error = nullptr) const;
    std::uint64_t safetyOffsetForScope(std::uint32_t scope, KROErrorPtr* error = nullptr) const;

    // 0 the read failed, 1 free, 2 held by this process, 3 held by another.
    // setIsExclusive writes only when the state must change, and refuses a
    // device held by another process with '!hog'.
    int exclusivity(KROErrorPtr* error = nullptr) const;
    bool setIsExclusive(bool exclusive, KROErrorPtr* error = nullptr);

    std::uint32_t deviceID() const { return deviceID_; }

private:
    std::uint32_t deviceID_ = 0;
};
