#include "KROAudioPlaythrough.h"

#include "KROAudioConnection.h"
#include "KROAudioDevice.h"
#include "KROAudioRingBufferList.h"
#include "KROAudioStream.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROClassRegistry.h"
#include "KROOSXHardwareAudioProcessor.h"

KRO_REGISTER_CLASS(KROAudioPlaythrough, KROIOAudioProcessor)

namespace {

// The ring holds four blocks of the side that allocates it.
constexpr std::uint64_t ringBlocks = 4;

KROAudioDevice* deviceOfHead(const std::shared_ptr<KROHeadAudioProcessor>& head) {
    const auto* device = dynamic_cast<const KROOSXHardwareAudioProcessor*>(head.get());
    return device ? device->device().get() : nullptr;
}

// A figure of the device, 0 when the read fails.
std::uint64_t orZero(std::uint64_t value) {
    return value == KROAudioDevice::notFound ? 0 : value;
}

} // namespace

bool KROAudioPlaythrough::initializeForInput(KROErrorPtr* error) {
    const KROAudioConnection* connection = inputConnection();
    return arrive(connection ? connection->numberOfChannels() : 0,
                  connection ? connection->maxFrames() : 0,
                  "KROAudioProcessor_action_initializeForInput", error);
}

bool KROAudioPlaythrough::initializeForRender(KROErrorPtr* error) {
    const KROAudioConnection* connection = outputConnection();
    return arrive(connection ? connection->numberOfChannels() : 0,
                  connection ? connection->maxFrames() : 0,
                  "KROAudioProcessor_action_initializeForRender", error);
}

bool KROAudioPlaythrough::arrive(std::uint64_t channels, std::uint64_t maxFrames,
                                 const char* action, KROErrorPtr* error) {
    if (!ringBuffer_) {
        ringBuffer_ = KROAudioRingBufferList::bufferListWithChannels(std::uint32_t(channels),
                                                                     ringBlocks * maxFrames, error);
        if (!ringBuffer_) {
            return false;
        }
        ringBuffer_->setFrames(ringBuffer_->frameCapacity());
        firstStoredFrame_.store(-1);
        firstRenderFrame_.store(-1);
        return true;
    }
    if (channels != ringBuffer_->numberOfChannels()) {
        return KROFailWithFormat<KROAudioPlaythroughError>(error, 1, action, className());
    }
    latency_ = computeLatency();
    return true;
}

std::uint64_t KROAudioPlaythrough::computeLatency() const {
    const KROAudioStream* owner = stream();
    if (!owner) {
        return 0;
    }
    std::uint64_t total = 0;
    if (KROAudioDevice* const input = deviceOfHead(owner->inputHeadProcessor())) {
        total += orZero(input->inputSafetyOffset()) + orZero(input->inputBufferFrames());
    }
    if (KROAudioDevice* const output = deviceOfHead(owner->renderHeadProcessor())) {
        total += orZero(output->outputSafetyOffset()) + orZero(output->outputBufferFrames());
    }
    return total;
}

bool KROAudioPlaythrough::uninitialize(KROErrorPtr* /*error*/) {
    ringBuffer_.reset();
    return true;
}

bool KROAudioPlaythrough::reset(KROErrorPtr* /*error*/) {
    if (ringBuffer_) {
        ringBuffer_->clear();
    }
    return true;
}

void KROAudioPlaythrough::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                KROAudioStreamRenderInfo& info) {
    if (!isEnabled() || !ringBuffer_) {
        return;
    }
    ringBuffer_->storeBuffer(buffer, info.sampleTime());
    std::int64_t unset = -1;
    firstStoredFrame_.compare_exchange_strong(unset, info.sampleTime());
}

void KROAudioPlaythrough::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                 KROAudioStreamRenderInfo& info) {
    const std::int64_t stored = firstStoredFrame_.load(std::memory_order_relaxed);
    if (!isEnabled() || stored == -1 || !ringBuffer_) {
        buffer.clear();
        return;
    }
    std::int64_t unset = -1;
    firstRenderFrame_.compare_exchange_strong(unset, info.sampleTime());
    const std::int64_t firstRender = firstRenderFrame_.load(std::memory_order_relaxed);
    ringBuffer_->retrieveBuffer(buffer,
                                info.sampleTime() - firstRender + stored - std::int64_t(latency_));
}
