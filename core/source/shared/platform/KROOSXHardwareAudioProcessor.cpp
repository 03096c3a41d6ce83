#include "KROOSXHardwareAudioProcessor.h"

#include <algorithm>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioDevice.h"
#include "KROAudioStream.h"
#include "KROClassRegistry.h"
#include "KRONotificationCenter.h"

KRO_REGISTER_CLASS(KROOSXHardwareAudioProcessor, KROHeadAudioProcessor)

namespace {

using Backend = KROAudioDeviceBackend;

// Sample time from the device's timestamp, cut to a whole number; host time
// as given, as every head stamps its render info.
void stamp(KROAudioStreamRenderInfo& info, const KROAudioDeviceTimestamp& timestamp) {
    info.setHostTime(timestamp.hostTime);
    info.setSampleTime(timestamp.sampleTime);
}

} // namespace

KROOSXHardwareAudioProcessor::~KROOSXHardwareAudioProcessor() {
    if (procID_ != 0) {
        uninitialize();
    }
}

bool KROOSXHardwareAudioProcessor::setDevice(std::shared_ptr<KROAudioDevice> device,
                                             KROErrorPtr* error) {
    const std::lock_guard guard(setUpLock_);
    if ((device_ && device && device_->isEqual(*device)) || (!device_ && !device)) {
        return true;
    }
    if (isInitialized()) {
        return KROFail<KROAudioProcessorError>(error, 1,
                                               "KROOSXHardwareAudioProcessor_action_setDevice");
    }
    device_ = std::move(device);
    // The head as the object when it is shared, as every head of a stream is.
    KRONotificationCenter::defaultCenter().postNotification(
        "KROOSXHardwareAudioProcessorAudioDeviceDidChange", weak_from_this().lock());
    return true;
}

bool KROOSXHardwareAudioProcessor::initializeForRender(KROErrorPtr* error) {
    const std::lock_guard guard(setUpLock_);
    if (!device_) {
        auto device = KROAudioDevice::defaultOutputDevice(error);
        if (!device || !setDevice(device, error)) {
            return false;
        }
    }
    if (!device_->isValid()) {
        return KROFailWithFormat<KROOSXHardwareAudioProcessorError>(
            error, 1, "KROAudioProcessor_action_initializeForRender", className());
    }
    return initializeForScope(Backend::scopeOutput, error);
}

bool KROOSXHardwareAudioProcessor::initializeForInput(KROErrorPtr* error) {
    const std::lock_guard guard(setUpLock_);
    if (!device_) {
        auto device = KROAudioDevice::defaultInputDevice(error);
        if (!device || !setDevice(device, error)) {
            return false;
        }
    }
    if (!device_->isValid()) {
        return KROFailWithFormat<KROOSXHardwareAudioProcessorError>(
            error, 1, "KROAudioProcessor_action_initializeForInput", className());
    }
    return initializeForScope(Backend::scopeInput, error);
}

bool KROOSXHardwareAudioProcessor::initializeForScope(std::uint32_t scope, KROErrorPtr* error) {
    const std::uint64_t channels = device_->numberOfChannelsForScope(scope, error);
    const std::uint64_t frames = device_->bufferFramesForScope(scope, error);
    if (channels == KROAudioDevice::notFound || frames == KROAudioDevice::notFound) {
        return false;
    }
    buffer_ = KROAudioBufferList::bufferListWithChannels(std::uint32_t(channels), frames, error);
    if (!buffer_ || !buffer_->setFrames(frames, error)) {
        buffer_.reset();
        return false;
    }
    if (!registerCallback(scope, error)) {
        buffer_.reset();
        return false;
    }
    KROAudioConnection* connection =
        scope == Backend::scopeOutput ? inputConnection() : outputConnection();
    if (connection) {
        connection->setSampleRate(device_->sampleRate());
        connection->setNumberOfChannels(channels);
        connection->setMaxFrames(frames);
    }
    return true;
}

bool KROOSXHardwareAudioProcessor::registerCallback(std::uint32_t scope, KROErrorPtr* error) {
    backend_ = Backend::sharedBackend();
    const KROAudioDeviceIOProc proc = scope == Backend::scopeOutput ? renderProc : inputProc;
    if (const Backend::Status status = backend_->createIOProc(
            device_->deviceID(), scope, buffer_->numberOfChannels(), proc, this, procID_)) {
        procID_ = 0;
        backend_.reset();
        return KROFail<KROAudioDeviceError>(error, status,
                                            "KROAudioDevice_action_assigningCallback");
    }
    // The listener holds the head weakly: a notice that arrives while the
    // head goes away does nothing.
    const std::weak_ptr<KROObject> weakSelf = weak_from_this();
    listenerToken_ =
        backend_->addSampleRateListener(device_->deviceID(), [weakSelf](std::uint32_t deviceID) {
            if (const auto self =
                    std::dynamic_pointer_cast<KROOSXHardwareAudioProcessor>(weakSelf.lock())) {
                self->sampleRateNotice(deviceID);
            }
        });
    return true;
}

bool KROOSXHardwareAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    const std::lock_guard guard(setUpLock_);
    if (backend_) {
        // The callback goes first: once it is destroyed nothing reads the
        // buffer any more.
        if (isRunning()) {
            backend_->stop(procID_);
            setRunning(false);
        }
        backend_->removeListener(listenerToken_);
        backend_->destroyIOProc(procID_);
        backend_.reset();
    }
    procID_ = 0;
    listenerToken_ = 0;
    buffer_.reset();
    return true;
}

bool KROOSXHardwareAudioProcessor::reset(KROErrorPtr* /*error*/) {
    return true;
}

bool KROOSXHardwareAudioProcessor::start(KROErrorPtr* error) {
    const std::lock_guard guard(setUpLock_);
    if (isRunning()) {
        return true;
    }
    const Backend::Status status = backend_ ? backend_->start(procID_) : Backend::notRunning;
    if (status != 0) {
        return KROFail<KROAudioDeviceError>(error, status, "KROAudioDevice_action_starting");
    }
    setRunning(true);
    return true;
}

bool KROOSXHardwareAudioProcessor::stop(KROErrorPtr* /*error*/) {
    const std::lock_guard guard(setUpLock_);
    if (isRunning()) {
        if (backend_) {
            backend_->stop(procID_);
        }
        setRunning(false);
    }
    return true;
}

std::uint64_t KROOSXHardwareAudioProcessor::bufferFrames() const {
    const std::lock_guard guard(setUpLock_);
    return buffer_ ? buffer_->frames() : 0;
}

KROAudioDeviceIOStatistics KROOSXHardwareAudioProcessor::statistics() const {
    const std::lock_guard guard(setUpLock_);
    return backend_ ? backend_->statistics(procID_) : KROAudioDeviceIOStatistics{};
}

void KROOSXHardwareAudioProcessor::sampleRateNotice(std::uint32_t deviceID) {
    if (!device_ || device_->deviceID() != deviceID) {
        return;
    }
    deviceSampleRateChanged();
    KRONotificationCenter::defaultCenter().postNotification(
        "KROAudioDeviceSampleRateChanged",
        std::static_pointer_cast<KROObject>(KROAudioDevice::deviceWithID(deviceID)));
}

void KROOSXHardwareAudioProcessor::deviceSampleRateChanged() {
    const std::lock_guard guard(setUpLock_);
    KROAudioStream* const owner = stream();
    if (!isInitialized() || !owner) {
        return;
    }
    // The whole graph is rebuilt at the new format, on this thread, with no
    // error out-argument: no caller waits on the listener's thread to hear
    // of a failure.
    const bool wasRunning = isRunning();
    owner->stop();
    owner->uninitialize();
    owner->initialize();
    if (wasRunning) {
        owner->start();
    }
}

void KROOSXHardwareAudioProcessor::renderAudioToBuffer(KROAudioDeviceBuffer* buffers,
                                                       std::size_t numberOfBuffers,
                                                       std::uint32_t frames,
                                                       const KROAudioDeviceTimestamp& timestamp) {
    KROAudioStreamRenderInfo& renderInfo = *info();
    stamp(renderInfo, timestamp);
    // The frame count is the buffer's, fixed at initialisation.
    if (KROAudioInputBus* const bus = inputBus()) {
        bus->render(*buffer_, renderInfo);
    }
    const std::uint64_t count = std::min<std::uint64_t>(frames, buffer_->frames());
    std::uint32_t channel = 0;
    for (std::size_t b = 0; b < numberOfBuffers; ++b) {
        const KROAudioDeviceBuffer& device = buffers[b];
        for (std::uint32_t k = 0; k < device.numberOfChannels; ++k, ++channel) {
            const float* source = buffer_->channel(channel);
            if (!source) {
                continue;
            }
            // Added, not copied: what other clients wrote stays.
            float* target = device.data + k;
            for (std::uint64_t i = 0; i < count; ++i) {
                target[i * device.numberOfChannels] += source[i];
            }
        }
    }
}

void KROOSXHardwareAudioProcessor::inputWithBuffer(KROAudioDeviceBuffer* buffers,
                                                   std::size_t numberOfBuffers,
                                                   std::uint32_t frames,
                                                   const KROAudioDeviceTimestamp& timestamp) {
    KROAudioStreamRenderInfo& renderInfo = *info();
    stamp(renderInfo, timestamp);
    buffer_->clear();
    const std::uint64_t count = std::min<std::uint64_t>(frames, buffer_->frames());
    std::uint32_t channel = 0;
    for (std::size_t b = 0; b < numberOfBuffers; ++b) {
        const KROAudioDeviceBuffer& device = buffers[b];
        for (std::uint32_t k = 0; k < device.numberOfChannels; ++k, ++channel) {
            float* target = buffer_->channel(channel);
            if (!target) {
                continue;
            }
            const float* source = device.data + k;
            for (std::uint64_t i = 0; i < count; ++i) {
                target[i] += source[i * device.numberOfChannels];
            }
        }
    }
    if (KROAudioOutputBus* const bus = outputBus()) {
        bus->input(*buffer_, renderInfo);
    }
}

void KROOSXHardwareAudioProcessor::renderProc(void* context, KROAudioDeviceBuffer* buffers,
                                              std::size_t numberOfBuffers, std::uint32_t frames,
                                              const KROAudioDeviceTimestamp& timestamp) {
    static_cast<KROOSXHardwareAudioProcessor*>(context)->renderAudioToBuffer(
        buffers, numberOfBuffers, frames, timestamp);
}

void KROOSXHardwareAudioProcessor::inputProc(void* context, KROAudioDeviceBuffer* buffers,
                                             std::size_t numberOfBuffers, std::uint32_t frames,
                                             const KROAudioDeviceTimestamp& timestamp) {
    static_cast<KROOSXHardwareAudioProcessor*>(context)->inputWithBuffer(buffers, numberOfBuffers,
                                                                         frames, timestamp);
}
