// The head that drives a graph from a device's callbacks. A description names
// "KROHardwareAudioProcessor" and receives this class, registered under the
// exact name "KROOSXHardwareAudioProcessor" that stored descriptions use.
// One buffer and one callback serve one direction: a render head plays to the
// device's outputs, an input head reads its inputs.
//
// The device layer calls renderAudioToBuffer or inputWithBuffer on its
// real-time thread; they allocate nothing, take no lock and log nothing.
// Set-up calls and the rebuild after a rate or buffer-size change
// (deviceSampleRateChanged, on the layer's notice thread) are serialized by
// one lock of the head.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "KROAudioDeviceBackend.h"
#include "KROHeadAudioProcessor.h"

class KROAudioBufferList;
class KROAudioDevice;

class KROOSXHardwareAudioProcessor : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROOSXHardwareAudioProcessor)

public:
    KROOSXHardwareAudioProcessor() = default;
    ~KROOSXHardwareAudioProcessor() override;

    const std::shared_ptr<KROAudioDevice>& device() const { return device_; }
    // Refused while initialized, with KROAudioProcessorError 1; posts
    // "KROOSXHardwareAudioProcessorAudioDeviceDidChange" on a change.
    bool setDevice(std::shared_ptr<KROAudioDevice> device, KROErrorPtr* error = nullptr);

    // Rebuilds the stream at the device's new format: stop, uninitialize,
    // initialize, and start again when it was running.
    void deviceSampleRateChanged();

    // From the device's callback. Render adds the head's buffer into the
    // device's interleaved memory, input clears the buffer and adds the
    // device's memory into it; both at the stride of each device buffer.
    void renderAudioToBuffer(KROAudioDeviceBuffer* buffers, std::size_t numberOfBuffers,
                             std::uint32_t frames, const KROAudioDeviceTimestamp& timestamp);
    void inputWithBuffer(KROAudioDeviceBuffer* buffers, std::size_t numberOfBuffers,
                         std::uint32_t frames, const KROAudioDeviceTimestamp& timestamp);

    // Bind to the default device when none is set, fail with
    // KROOSXHardwareAudioProcessorError 1 for a device that has gone away,
    // then make the buffer, register the callback and the rate listener, and
    // give the connection the device's rate, channels and block size.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    bool reset(KROErrorPtr* error = nullptr) override;
    // start fails with the layer's status; stop always succeeds.
    bool start(KROErrorPtr* error = nullptr) override;
    bool stop(KROErrorPtr* error = nullptr) override;

    // The frames of one block, fixed at initialisation; 0 when not
    // initialised.
    std::uint64_t bufferFrames() const;
    // What the device layer measured of this head's callback: the calls, the
    // xruns and the DSP load.
    KROAudioDeviceIOStatistics statistics() const;

private:
    bool initializeForScope(std::uint32_t scope, KROErrorPtr* error);
    bool registerCallback(std::uint32_t scope, KROErrorPtr* error);
    void sampleRateNotice(std::uint32_t deviceID);

    static void renderProc(void* context, KROAudioDeviceBuffer* buffers,
                           std::size_t numberOfBuffers, std::uint32_t frames,
                           const KROAudioDeviceTimestamp& timestamp);
    static void inputProc(void* context, KROAudioDeviceBuffer* buffers, std::size_t numberOfBuffers,
                          std::uint32_t frames, const KROAudioDeviceTimestamp& timestamp);

    std::shared_ptr<KROAudioDevice> device_;
    std::shared_ptr<KROAudioBufferList> buffer_;
    std::uint64_t procID_ = 0;
    // The layer that holds the callback, kept until it is destroyed there.
    std::shared_ptr<KROAudioDeviceBackend> backend_;
    KROAudioDeviceBackend::ListenerToken listenerToken_ = 0;
    mutable std::recursive_mutex setUpLock_;
};
