#include "KRODelayAudioProcessor.h"

#include <algorithm>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KRODelayAudioProcessor, KROAudioProcessor)

namespace {

// Copies count frames between a block and the ring, the ring side starting
// at ringPosition and split where the ring ends.
template <typename Copy>
void forEachRingPiece(std::uint64_t ringFrames, std::uint64_t ringPosition, std::uint64_t count,
                      Copy copy) {
    std::uint64_t done = 0;
    while (done < count) {
        const std::uint64_t piece = std::min(count - done, ringFrames - ringPosition);
        copy(ringPosition, done, piece);
        done += piece;
        ringPosition = (ringPosition + piece) % ringFrames;
    }
}

} // namespace

void KRODelayAudioProcessor::setFrameDelay(std::uint64_t frames) {
    frameDelay_.store(std::min(frames, maximumFrameDelay_), std::memory_order_relaxed);
}

bool KRODelayAudioProcessor::initializeForRender(KROErrorPtr* error) {
    const KROAudioConnection* const output = outputConnection();
    const auto channels = static_cast<std::uint32_t>(output ? output->numberOfChannels() : 0);
    const std::uint64_t maxFrames = output ? output->maxFrames() : 0;
    delayBuffer_ =
        KROAudioBufferList::bufferListWithChannels(channels, maximumFrameDelay_ + maxFrames, error);
    if (!delayBuffer_) {
        return false;
    }
    readBuffer_ = KROAudioBufferList::bufferListWithChannels(channels, maxFrames, error);
    if (!readBuffer_) {
        return false;
    }
    readCursor_ = 0;
    if (KROAudioConnection* const input = inputConnection()) {
        input->conformToConnection(output);
    }
    return true;
}

bool KRODelayAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    delayBuffer_.reset();
    readBuffer_.reset();
    return true;
}

void KRODelayAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                    KROAudioStreamRenderInfo& info) {
    const std::uint64_t frames = buffer.frames();
    const std::uint64_t ringFrames = delayBuffer_ ? delayBuffer_->frames() : 0;
    if (!readBuffer_ || ringFrames == 0 || frames > ringFrames || !readBuffer_->setFrames(frames)) {
        return;
    }
    if (KROAudioInputBus* const input = inputBus()) {
        input->render(*readBuffer_, info);
    }
    KROAudioBufferList& ring = *delayBuffer_;
    const std::uint64_t write = (frameDelay() + readCursor_) % ringFrames;
    forEachRingPiece(ringFrames, write, frames,
                     [&](std::uint64_t position, std::uint64_t done, std::uint64_t count) {
                         ring.copyFrames(NSMakeLongRange(done, count), *readBuffer_, position);
                     });
    forEachRingPiece(ringFrames, readCursor_, frames,
                     [&](std::uint64_t position, std::uint64_t done, std::uint64_t count) {
                         buffer.copyFrames(NSMakeLongRange(position, count), ring, done);
                     });
    readCursor_ = (readCursor_ + frames) % ringFrames;
}
