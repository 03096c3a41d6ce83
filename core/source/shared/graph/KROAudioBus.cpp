#include "KROAudioBus.h"

#include <algorithm>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROAudioBus, KROObject)
KRO_REGISTER_CLASS(KROAudioInputBus, KROAudioBus)
KRO_REGISTER_CLASS(KROAudioOutputBus, KROAudioBus)

KROAudioBus::~KROAudioBus() {
    // A connection outlives its buses when a host keeps it; it must not keep
    // pointing at a bus that is gone.
    if (KROAudioConnection* const connection = this->connection()) {
        if (connection->inputBus() == this) {
            connection->setOutput(nullptr);
        }
        if (connection->outputBus() == this) {
            connection->setInput(nullptr);
        }
    }
    // The lock is taken before the sets go, so no render is calling a
    // target while it is released.
    std::lock_guard guard(targetLock_);
    preRenderTargets_.clear();
    postRenderTargets_.clear();
}

void KROAudioBus::addPreRenderTarget(KROAudioBusObserver* target) {
    addTarget(preRenderTargets_, preRenderTargetCount_, target);
}

void KROAudioBus::removePreRenderTarget(KROAudioBusObserver* target) {
    removeTarget(preRenderTargets_, preRenderTargetCount_, target);
}

void KROAudioBus::addPostRenderTarget(KROAudioBusObserver* target) {
    addTarget(postRenderTargets_, postRenderTargetCount_, target);
}

void KROAudioBus::removePostRenderTarget(KROAudioBusObserver* target) {
    removeTarget(postRenderTargets_, postRenderTargetCount_, target);
}

std::size_t KROAudioBus::countOfPreRenderTargets() const {
    std::lock_guard guard(targetLock_);
    return preRenderTargets_.size();
}

std::size_t KROAudioBus::countOfPostRenderTargets() const {
    std::lock_guard guard(targetLock_);
    return postRenderTargets_.size();
}

// The membership test is made inside the lock, so that two host threads
// adding at once cannot race on the set.
void KROAudioBus::addTarget(TargetSet& targets, std::atomic<std::size_t>& count,
                            KROAudioBusObserver* target) {
    if (!target) {
        return;
    }
    std::lock_guard guard(targetLock_);
    if (std::find(targets.begin(), targets.end(), target) == targets.end()) {
        targets.push_back(target);
        count.store(targets.size(), std::memory_order_relaxed);
    }
}

void KROAudioBus::removeTarget(TargetSet& targets, std::atomic<std::size_t>& count,
                               KROAudioBusObserver* target) {
    std::lock_guard guard(targetLock_);
    const auto found = std::find(targets.begin(), targets.end(), target);
    if (found != targets.end()) {
        targets.erase(found);
        count.store(targets.size(), std::memory_order_relaxed);
    }
}

void KROAudioBus::callPreRenderTargets(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    std::lock_guard guard(targetLock_);
    for (KROAudioBusObserver* target : preRenderTargets_) {
        target->willRender(buffer, *this, info);
    }
}

void KROAudioBus::callPostRenderTargets(KROAudioBufferList& buffer,
                                        KROAudioStreamRenderInfo& info) {
    std::lock_guard guard(targetLock_);
    for (KROAudioBusObserver* target : postRenderTargets_) {
        target->didRender(buffer, *this, info);
    }
}

void KROAudioBus::input(KROAudioBufferList& /*buffer*/, KROAudioStreamRenderInfo& /*info*/) {}

void KROAudioBus::render(KROAudioBufferList& /*buffer*/, KROAudioStreamRenderInfo& /*info*/) {}

bool KROAudioInputBus::initWithDestination(KROAudioInputBusDelegate* destination) {
    setDestination(destination);
    return true;
}

void KROAudioInputBus::input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBusDelegate* const destination = this->destination()) {
        destination->input(buffer, *this, info);
    }
}

void KROAudioInputBus::render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    KROAudioConnection* const connection = this->connection();
    if (!connection) {
        buffer.clear();
        return;
    }
    notifyPreRenderTargets(buffer, info);
    connection->render(buffer, info);
    notifyPostRenderTargets(buffer, info);
}

bool KROAudioOutputBus::initWithSource(KROAudioOutputBusDelegate* source) {
    setSource(source);
    return true;
}

void KROAudioOutputBus::input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    if (KROAudioConnection* const connection = this->connection()) {
        connection->input(buffer, info);
    }
}

void KROAudioOutputBus::render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    KROAudioOutputBusDelegate* const source = this->source();
    if (!source) {
        buffer.clear();
        return;
    }
    notifyPreRenderTargets(buffer, info);
    source->render(buffer, *this, info);
    notifyPostRenderTargets(buffer, info);
}
