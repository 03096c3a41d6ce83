#include "KROHingeAudioProcessor.h"

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioRingBufferList.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROHingeAudioProcessor, KROAudioProcessor)

bool KROHingeAudioProcessor::init(KROErrorPtr* error) {
    if (!KROAudioProcessor::init(error)) {
        return false;
    }
    queue_ = std::make_unique<KROSerialQueue>(queueLabel, KROSerialQueue::Priority::high);
    setEnabled(true);
    return true;
}

bool KROHingeAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    const KROAudioConnection* const output = outputConnection();
    if (KROAudioConnection* const input = inputConnection()) {
        input->conformToConnection(output);
    }
    const auto channels = static_cast<std::uint32_t>(output ? output->numberOfChannels() : 0);
    const std::uint64_t maxFrames = output ? output->maxFrames() : 0;
    const std::lock_guard guard(renderBufferLock_);
    renderBuffer_ = KROAudioBufferList::bufferListWithChannels(channels, maxFrames);
    ringBuffer_ = KROAudioRingBufferList::bufferListWithChannels(channels, 2 * maxFrames);
    ringBufferFrame_ = 0;
    return true;
}

bool KROHingeAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    const std::lock_guard guard(renderBufferLock_);
    renderBuffer_.reset();
    ringBuffer_.reset();
    return true;
}

void KROHingeAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                    KROAudioStreamRenderInfo& info) {
    if (!isEnabled() || !info.isRealtime() || !queue_) {
        latency_.store(0, std::memory_order_relaxed);
        if (KROAudioInputBus* const input = inputBus()) {
            input->render(buffer, info);
        }
        return;
    }
    {
        const std::lock_guard guard(renderBufferLock_);
        if (renderBuffer_) {
            renderBuffer_->setFrames(buffer.frames());
        }
    }
    latency_.store(decoupledLatency, std::memory_order_relaxed);
    const Block block{ringBufferFrame_,  info.hostTime(),  info.sampleTime(), info.conductor(),
                      info.isRealtime(), info.isRunning(), info.isReverse()};
    // A full queue drops the block: the worker is far behind, and the frames
    // it would have stored play as the ring holds them.
    queue_->async(renderUpstream, this, block);
    if (ringBuffer_) {
        ringBuffer_->retrieveBuffer(buffer, static_cast<std::int64_t>(ringBufferFrame_));
    } else {
        buffer.clear();
    }
    ringBufferFrame_ += buffer.frames();
}

void KROHingeAudioProcessor::renderUpstream(void* hinge, const void* block) {
    static_cast<KROHingeAudioProcessor*>(hinge)->renderUpstream(*static_cast<const Block*>(block));
}

void KROHingeAudioProcessor::renderUpstream(const Block& block) {
    const std::lock_guard guard(renderBufferLock_);
    if (!renderBuffer_ || !ringBuffer_) {
        return;
    }
    renderInfo_.setHostTime(block.hostTime);
    renderInfo_.setSampleTime(block.sampleTime);
    renderInfo_.setRealtime(block.realtime);
    renderInfo_.setRunning(block.running);
    renderInfo_.setReverse(block.reverse);
    renderInfo_.setConductor(block.conductor);
    if (KROAudioInputBus* const input = inputBus()) {
        input->render(*renderBuffer_, renderInfo_);
    }
    ringBuffer_->storeBuffer(*renderBuffer_, static_cast<std::int64_t>(block.frame + latency()));
}
