// The device layer. KROAudioDevice, its sources and the device head ask every
// question of the sound system through this interface, one call for each
// property of a device, so that a layer for another sound system (ALSA) can
// stand under the same operations. The shared backend is JACK; tests may put
// their own in.
//
// Every query answers a status: 0 for success, else a four-character code of
// the platform that passes through as the code of a KROAudioDeviceError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KROAudioStreamBasicDescription.h" // KROFourCharCode

// One of the device's buffers inside a callback: interleaved channels.
struct KROAudioDeviceBuffer {
    float* data = nullptr;
    std::uint32_t numberOfChannels = 0;
};

// The timestamp of a device callback.
struct KROAudioDeviceTimestamp {
    // CLOCK_MONOTONIC in nanoseconds, the clock of the platform.
    std::uint64_t hostTime = 0;
    // Frames since the device started counting.
    std::int64_t sampleTime = 0;
};

// What the layer measured about one registered callback.
struct KROAudioDeviceIOStatistics {
    std::uint64_t callbacks = 0;
    std::uint64_t xruns = 0;
    // Time spent in the callback over the block period, averaged and peak.
    double averageLoad = 0.0;
    double peakLoad = 0.0;
};

// Runs on the device's real-time thread: must not allocate, lock or log.
using KROAudioDeviceIOProc = void (*)(void* context, KROAudioDeviceBuffer* buffers,
                                      std::size_t numberOfBuffers, std::uint32_t frames,
                                      const KROAudioDeviceTimestamp& timestamp);

class KROAudioDeviceBackend {
public:
    using Status = std::int64_t;
    using DeviceID = std::uint32_t;
    using Listener = std::function<void(DeviceID deviceID)>;
    using ListenerToken = std::uint64_t;

    static constexpr std::uint32_t scopeGlobal = KROFourCharCode("glob");
    static constexpr std::uint32_t scopeInput = KROFourCharCode("inpt");
    static constexpr std::uint32_t scopeOutput = KROFourCharCode("outp");
    // The system sounds default, 'sOut'.
    static constexpr std::uint32_t scopeSystemOutput = KROFourCharCode("sOut");

    // Status codes of the layer, those of the Core Audio hardware calls.
    static constexpr Status noError = 0;
    static constexpr Status notRunning = KROFourCharCode("stop");
    static constexpr Status badDevice = KROFourCharCode("!dev");
    static constexpr Status unknownProperty = KROFourCharCode("who?");
    static constexpr Status unsupportedOperation = KROFourCharCode("unop");
    static constexpr Status illegalOperation = KROFourCharCode("nope");

    virtual ~KROAudioDeviceBackend() = default;

    // The backend every device object uses: JACK unless one was set.
    static std::shared_ptr<KROAudioDeviceBackend> sharedBackend();
    // Replaces the shared backend; none goes back to JACK. Set-up only.
    static void setSharedBackend(std::shared_ptr<KROAudioDeviceBackend> backend);

    // 'dev#', 'dIn ', 'dOut', 'sOut'.
    virtual Status deviceIDs(std::vector<DeviceID>& ids) = 0;
    virtual Status defaultDevice(std::uint32_t scope, DeviceID& id) = 0;

    // 'lnam', 'uid ', 'capp'.
    virtual Status name(DeviceID id, std::string& name) = 0;
    virtual Status uid(DeviceID id, std::string& uid) = 0;
    virtual Status configurationApplication(DeviceID id, std::string& identifier);

    // 'slay': the channel count of each of the device's buffers; 'stm#'
    // exists when the layout is not empty.
    virtual Status streamLayout(DeviceID id, std::uint32_t scope,
                                std::vector<std::uint32_t>& channelsPerBuffer) = 0;
    // 'lchn', the element being the channel number from 1.
    virtual Status channelName(DeviceID id, std::uint32_t scope, std::uint32_t element,
                               std::string& name);

    // 'nsr#' as pairs of minimum and maximum, 'nsrt'.
    virtual Status sampleRateRanges(DeviceID id,
                                    std::vector<std::pair<double, double>>& ranges) = 0;
    virtual Status sampleRate(DeviceID id, double& rate) = 0;
    virtual Status setSampleRate(DeviceID id, double rate) = 0;

    // 'fsiz', 'fsz#', 'saft'.
    virtual Status bufferFrames(DeviceID id, std::uint32_t scope, std::uint32_t& frames) = 0;
    virtual Status setBufferFrames(DeviceID id, std::uint32_t scope, std::uint32_t frames) = 0;
    virtual Status bufferFrameRange(DeviceID id, std::uint32_t scope, std::uint32_t& minimum,
                                    std::uint32_t& maximum) = 0;
    virtual Status safetyOffset(DeviceID id, std::uint32_t scope, std::uint32_t& frames);

    // 'oink': the process holding the device, -1 for none. Writing toggles.
    virtual Status hogMode(DeviceID id, std::int64_t& pid);
    virtual Status toggleHogMode(DeviceID id);

    // 'ssc#', 'lscn', 'ssrc'.
    virtual Status sourceIDs(DeviceID id, std::uint32_t scope, std::vector<std::uint64_t>& ids);
    virtual Status sourceName(DeviceID id, std::uint32_t scope, std::uint64_t sourceID,
                              std::string& name);
    virtual Status selectedSources(DeviceID id, std::uint32_t scope,
                                   std::vector<std::uint64_t>& ids);
    virtual Status setSelectedSources(DeviceID id, std::uint32_t scope,
                                      const std::vector<std::uint64_t>& ids);

    // AudioDeviceCreateIOProcID and its kin. channels is the number of
    // channels the callback serves in scope.
    virtual Status createIOProc(DeviceID id, std::uint32_t scope, std::uint32_t channels,
                                KROAudioDeviceIOProc proc, void* context,
                                std::uint64_t& procID) = 0;
    virtual Status destroyIOProc(std::uint64_t procID) = 0;
    virtual Status start(std::uint64_t procID) = 0;
    virtual Status stop(std::uint64_t procID) = 0;
    virtual KROAudioDeviceIOStatistics statistics(std::uint64_t procID) const;

    // Notices. Listeners run on a thread of the layer, never inside a
    // callback of the sound system, and may remove themselves. A rate
    // listener hears changes of the rate and of the buffer size.
    virtual ListenerToken addSampleRateListener(DeviceID id, Listener listener) = 0;
    virtual ListenerToken addDevicesListener(std::function<void()> listener) = 0;
    virtual void removeListener(ListenerToken token) = 0;
};
