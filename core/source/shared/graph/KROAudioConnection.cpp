#include "KROAudioConnection.h"

#include "KROAudioBufferList.h"
#include "KROAudioBus.h"
#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

KRO_REGISTER_CLASS(KROAudioConnection, KROObject)

KROAudioConnection::~KROAudioConnection() {
    if (KROAudioInputBus* const bus = inputBus(); bus && bus->connection() == this) {
        bus->setConnection(nullptr);
    }
    if (KROAudioOutputBus* const bus = outputBus(); bus && bus->connection() == this) {
        bus->setConnection(nullptr);
    }
}

void KROAudioConnection::setActive(bool active) {
    if (active_.load(std::memory_order_relaxed) == active) {
        return;
    }
    std::lock_guard guard(activeLock_);
    active_.store(active, std::memory_order_relaxed);
}

void KROAudioConnection::conformToConnection(const KROAudioConnection* connection) {
    setSampleRate(connection ? connection->sampleRate() : 0.0);
    setNumberOfChannels(connection ? connection->numberOfChannels() : 0);
    setMaxFrames(connection ? connection->maxFrames() : 0);
}

void KROAudioConnection::clear() {
    conformToConnection(nullptr);
}

bool KROAudioConnection::passes(const KROAudioBufferList& buffer) const {
    return buffer.numberOfChannels() == numberOfChannels() && buffer.frames() <= maxFrames();
}

void KROAudioConnection::render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    std::lock_guard guard(activeLock_);
    if (!active_.load(std::memory_order_relaxed)) {
        buffer.clear();
        return;
    }
    // A format mismatch leaves the buffer exactly as it came: not rendered,
    // not cleared. An open end does nothing either.
    if (passes(buffer)) {
        if (KROAudioOutputBus* const bus = outputBus()) {
            bus->render(buffer, info);
        }
    }
}

void KROAudioConnection::input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    std::lock_guard guard(activeLock_);
    // Unlike the pull path an inactive connection leaves the buffer alone.
    if (active_.load(std::memory_order_relaxed) && passes(buffer)) {
        if (KROAudioInputBus* const bus = inputBus()) {
            bus->input(buffer, info);
        }
    }
}

std::string KROAudioConnection::description() const {
    return KROStringWithFormatArguments("%@ %@: %g Hz, %llu channels, %llu frames", className(),
                                        identifier_, sampleRate(), numberOfChannels(), maxFrames());
}
