#include "KROOfflineWriterAudioProcessor.h"

#include <algorithm>
#include <cmath>

#include "KROAudioConnection.h"

bool KROOfflineWriterAudioProcessor::prepareRender(KROErrorPtr* error) {
    if (renderFrames_ == 0) {
        renderFrames_ = static_cast<std::uint64_t>(sampleRate_);
    }
    buffer_ = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(numberOfChannels_), renderFrames_, error);
    if (!buffer_) {
        return false;
    }
    if (KROAudioConnection* input = inputConnection()) {
        input->setSampleRate(sampleRate_);
        input->setNumberOfChannels(numberOfChannels_);
        input->setMaxFrames(renderFrames_);
    }
    info()->setRealtime(false);
    info()->setRunning(true);
    info()->setSampleTime(std::llround(range_.location * sampleRate_));
    progress_.store(0.0f, std::memory_order_relaxed);
    return true;
}

bool KROOfflineWriterAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    buffer_.reset();
    return true;
}

bool KROOfflineWriterAudioProcessor::stop(KROErrorPtr* /*error*/) {
    return true;
}

bool KROOfflineWriterAudioProcessor::failAfter(KROErrorPtr* error) {
    abandonWriting(error);
    return false;
}

bool KROOfflineWriterAudioProcessor::start(KROErrorPtr* error) {
    if (!buffer_) {
        return false;
    }
    KROAudioStreamRenderInfo& renderInfo = *info();
    const std::int64_t first = std::llround(range_.location * sampleRate_);
    const std::int64_t end = std::llround((range_.location + range_.length) * sampleRate_);
    const std::int64_t tail = std::llround(sampleRate_ * maximumTailLength_);
    const std::int64_t last = retainTail_ ? end + tail : end;
    const double duration = static_cast<double>(std::llround(sampleRate_ * range_.length));
    for (;;) {
        const std::int64_t time = renderInfo.sampleTime();
        const auto frames = static_cast<std::uint64_t>(
            std::clamp<std::int64_t>(last - time, 0, std::int64_t(buffer_->frameCapacity())));
        if (!buffer_->setFrames(frames, error)) {
            return failAfter(error);
        }
        if (KROAudioInputBus* input = inputBus()) {
            input->render(*buffer_, renderInfo);
        }
        // The tail ends at the first quiet block after the range, which is
        // not stored; a block that starts exactly at the end still is.
        if (retainTail_ && time > end && buffer_->magnitude() <= minimumTailLevel_) {
            break;
        }
        if (!storeBlock(*buffer_, error)) {
            return failAfter(error);
        }
        renderInfo.setSampleTime(time + std::int64_t(frames));
        progress_.store(std::min(1.0f, float(renderInfo.sampleTime() - first) / float(duration)),
                        std::memory_order_relaxed);
        if (renderInfo.sampleTime() >= last) {
            break;
        }
        if (operation_ && operation_->isCancelled()) {
            storeCancelError(error);
            return failAfter(error);
        }
    }
    if (retainTail_) {
        range_.length = static_cast<double>(renderInfo.sampleTime()) / sampleRate_;
    }
    return finishWriting(error);
}
