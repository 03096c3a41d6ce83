#include "KROConductorAudioProcessor.h"

#include <algorithm>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"
#include "KROSampleFrames.h"

KRO_REGISTER_CLASS(KROConductorAudioProcessor, KROAudioProcessor)

namespace {

// Frame arithmetic that wraps instead of overflowing: a playhead run to the
// end of the 64-bit range must not make the render undefined.
std::int64_t movedBy(std::int64_t frame, std::uint64_t count, bool backward) {
    const auto start = static_cast<std::uint64_t>(frame);
    return static_cast<std::int64_t>(backward ? start - count : start + count);
}

} // namespace

KROConductorAudioProcessor::KROConductorAudioProcessor() {
    conductorInfo_.setConductor(this);
}

bool KROConductorAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    const KROAudioConnection* const output = outputConnection();
    const double rate = output ? output->sampleRate() : 0.0;
    if (rate != currentSampleRate()) {
        const double seconds = location();
        currentSampleRate_.store(rate, std::memory_order_relaxed);
        setLocation(seconds);
    }
    if (KROAudioConnection* const input = inputConnection()) {
        input->conformToConnection(output);
    }
    renderBuffer_ = KROAudioBufferList::bufferListWithChannels(
        static_cast<std::uint32_t>(output ? output->numberOfChannels() : 0),
        output ? output->maxFrames() : 0);
    return true;
}

bool KROConductorAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    renderBuffer_.reset();
    return true;
}

double KROConductorAudioProcessor::location() const {
    const double rate = currentSampleRate();
    return rate == 0.0 ? 0.0 : static_cast<double>(currentSampleFrame()) / rate;
}

void KROConductorAudioProcessor::setLocation(double seconds) {
    const std::lock_guard guard(runLock_);
    const std::int64_t frame = KROFrameForSeconds(seconds, currentSampleRate());
    currentSampleFrame_.store(frame, std::memory_order_relaxed);
    conductorInfo_.setSampleTime(frame);
}

void KROConductorAudioProcessor::start() {
    infoRunning_.store(true, std::memory_order_relaxed);
    running_.store(true, std::memory_order_relaxed);
}

void KROConductorAudioProcessor::stop() {
    if (!isRunning()) {
        return;
    }
    const std::lock_guard guard(runLock_);
    running_.store(false, std::memory_order_relaxed);
    infoRunning_.store(false, std::memory_order_relaxed);
    conductorInfo_.setRunning(false);
}

void KROConductorAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                        KROAudioStreamRenderInfo& info) {
    const std::lock_guard run(runLock_);
    // Only the host time comes from the head: upstream keeps the conductor's
    // clock, real-time whatever the head says.
    conductorInfo_.setHostTime(info.hostTime());
    conductorInfo_.setRunning(infoRunning_.load(std::memory_order_relaxed));
    if (!isRunning()) {
        // The transport stands; upstream decides for itself what to render.
        if (KROAudioInputBus* const input = inputBus()) {
            input->render(buffer, conductorInfo_);
        }
        return;
    }
    const KROAudioConnection* const output = outputConnection();
    const double rate = output ? output->sampleRate() : 0.0;
    buffer.clear();
    const std::uint64_t frames = buffer.frames();
    std::uint64_t done = 0;
    // At least one pass: a request of no frames stops the transport.
    do {
        const std::int64_t playhead = currentSampleFrame();
        const bool reverse = isReverse();
        std::int64_t next = playhead;
        {
            const std::lock_guard pass(landmarksLock_);
            const Selection selection = selectLandmark(reverse, playhead, frames - done, rate);
            std::uint64_t count = frames - done;
            // A landmark with only an action does not cut the piece: its
            // action comes at the piece's end.
            if (selection.landmark && selection.landmark->hasFlagForDirection(reverse)) {
                count = std::min(count, static_cast<std::uint64_t>(selection.distance));
            }
            if (count != 0) {
                next = renderPiece(buffer, done, count, playhead, reverse);
                done += count;
            }
            if (selection.landmark) {
                next = applyLandmark(*selection.landmark, reverse, next, rate);
            }
        }
        // A pass that did not move the playhead stops the transport: a stop
        // landmark, a jump back to where the piece began, no frames asked.
        if (next == currentSampleFrame()) {
            stoppedByItself();
            return;
        }
        currentSampleFrame_.store(next, std::memory_order_relaxed);
    } while (done < frames);
}

KROConductorAudioProcessor::Selection
KROConductorAudioProcessor::selectLandmark(bool reverse, std::int64_t playhead, std::uint64_t reach,
                                           double rate) const {
    // No landmark lies beyond this, so that its frame fits in 64 bits.
    const double limit = 9223372036854775808.0 / rate - 1.0;
    Selection selection;
    std::uint64_t remaining = reach;
    for (const auto& landmark : landmarks_) {
        if (!landmark->isEnabled() ||
            (!landmark->hasFlagForDirection(reverse) && !landmark->hasAction())) {
            continue;
        }
        const std::int64_t frame = KROFrameForSeconds(std::min(landmark->location(), limit), rate);
        std::int64_t distance = 0;
        if (__builtin_sub_overflow(reverse ? playhead : frame, reverse ? frame : playhead,
                                   &distance)) {
            continue;
        }
        // Not above the remainder: of several at one distance the last in the
        // list wins. A landmark at the playhead (distance 0) never fires.
        if (distance > 0 && static_cast<std::uint64_t>(distance) <= remaining) {
            selection = {landmark.get(), distance};
            remaining = static_cast<std::uint64_t>(distance);
        }
    }
    return selection;
}

std::int64_t KROConductorAudioProcessor::renderPiece(KROAudioBufferList& buffer, std::uint64_t done,
                                                     std::uint64_t count, std::int64_t playhead,
                                                     bool reverse) {
    // The piece's lowest frame is its sample time in either direction.
    const std::int64_t next = movedBy(playhead, count, reverse);
    if (!renderBuffer_ || !renderBuffer_->setFrames(count)) {
        return next;
    }
    conductorInfo_.setSampleTime(reverse ? next : playhead);
    conductorInfo_.setReverse(reverse);
    if (KROAudioInputBus* const input = inputBus()) {
        input->render(*renderBuffer_, conductorInfo_);
    }
    if (reverse) {
        renderBuffer_->reverse();
    }
    buffer.copyFrames(NSMakeLongRange(0, count), *renderBuffer_, done);
    return next;
}

std::int64_t KROConductorAudioProcessor::applyLandmark(KROConductorLandmark& landmark, bool reverse,
                                                       std::int64_t next, double rate) {
    landmark.action();
    if (reverse ? landmark.jumpWhenReverse() : landmark.jumpWhenForward()) {
        next = KROFrameForSeconds(landmark.jumpLocation(), rate);
    }
    if (reverse ? landmark.reverseDirectionWhenReverse() : landmark.reverseDirectionWhenForward()) {
        setReverse(!reverse);
    }
    // Stop beats jump: the playhead stays on the landmark.
    if (reverse ? landmark.stopWhenReverse() : landmark.stopWhenForward()) {
        next = KROFrameForSeconds(landmark.location(), rate);
        currentSampleFrame_.store(next, std::memory_order_relaxed);
    }
    return next;
}

void KROConductorAudioProcessor::stoppedByItself() {
    if (!conductorInfo_.isRunning()) {
        return;
    }
    running_.store(false, std::memory_order_relaxed);
    infoRunning_.store(false, std::memory_order_relaxed);
    conductorInfo_.setRunning(false);
    if (KROConductorDelegate* const delegate = this->delegate()) {
        delegate->conductorDidStop(*this);
    }
}

std::shared_ptr<KROConductorLandmark>
KROConductorAudioProcessor::objectInLandmarksAtIndex(std::size_t index) const {
    return index < landmarks_.size() ? landmarks_[index] : nullptr;
}

std::optional<std::size_t>
KROConductorAudioProcessor::indexOfObjectInLandmarks(const KROConductorLandmark& landmark) const {
    for (std::size_t index = 0; index < landmarks_.size(); ++index) {
        if (landmarks_[index].get() == &landmark) {
            return index;
        }
    }
    return std::nullopt;
}

void KROConductorAudioProcessor::insertObjectInLandmarksAtIndex(
    std::shared_ptr<KROConductorLandmark> landmark, std::size_t index) {
    if (!landmark) {
        return;
    }
    const std::lock_guard guard(landmarksLock_);
    index = std::min(index, landmarks_.size());
    landmarks_.insert(landmarks_.begin() + static_cast<std::ptrdiff_t>(index), std::move(landmark));
}

void KROConductorAudioProcessor::insertLandmarksAtIndexes(const Landmarks& landmarks,
                                                          const std::set<std::size_t>& indexes) {
    auto index = indexes.begin();
    for (const auto& landmark : landmarks) {
        if (index == indexes.end()) {
            return;
        }
        insertObjectInLandmarksAtIndex(landmark, *index++);
    }
}

void KROConductorAudioProcessor::removeObjectFromLandmarksAtIndex(std::size_t index) {
    std::shared_ptr<KROConductorLandmark> removed;
    const std::lock_guard guard(landmarksLock_);
    if (index < landmarks_.size()) {
        removed = std::move(landmarks_[index]);
        landmarks_.erase(landmarks_.begin() + static_cast<std::ptrdiff_t>(index));
    }
}

void KROConductorAudioProcessor::removeLandmarksAtIndexes(const std::set<std::size_t>& indexes) {
    for (auto index = indexes.rbegin(); index != indexes.rend(); ++index) {
        removeObjectFromLandmarksAtIndex(*index);
    }
}
