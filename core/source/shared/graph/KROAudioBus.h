// Buses, the ports of a processor. A KROAudioInputBus belongs to
// its destination processor, a KROAudioOutputBus to its source processor;
// both are owned by the processor's bus arrays. The connection is a back
// reference: the stream owns connections. The three classes and the two
// delegate roles are one family and share this file.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "KROAudioBusObserver.h"
#include "KROObject.h"

class KROAudioBufferList;
class KROAudioConnection;
class KROAudioInputBus;
class KROAudioOutputBus;
class KROAudioStreamRenderInfo;

// The role of an input bus's destination: receives pushed audio
// (input:fromBus:info:). KROAudioProcessor acts in it.
class KROAudioInputBusDelegate {
public:
    virtual ~KROAudioInputBusDelegate() = default;
    virtual void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
                       KROAudioStreamRenderInfo& info) = 0;
};

// The role of an output bus's source: fills pulled audio
// (render:forBus:info:). KROAudioProcessor acts in it.
class KROAudioOutputBusDelegate {
public:
    virtual ~KROAudioOutputBusDelegate() = default;
    virtual void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                        KROAudioStreamRenderInfo& info) = 0;
};

class KROAudioBus : public KROObject {
    KRO_DECLARE_CLASS(KROAudioBus)

public:
    KROAudioBus() = default;
    KROAudioBus(const KROAudioBus&) = delete;
    KROAudioBus& operator=(const KROAudioBus&) = delete;
    // Takes targetLock before releasing the target sets, and opens the end
    // of a connection that still names this bus.
    ~KROAudioBus() override;

    const std::string& identifier() const { return identifier_; }
    void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

    KROAudioConnection* connection() const { return connection_.load(std::memory_order_relaxed); }
    void setConnection(KROAudioConnection* connection) {
        connection_.store(connection, std::memory_order_relaxed);
    }

    // Targets are not owned. Adding a target already present,
    // or removing one absent, does nothing. Set-up or host threads.
    void addPreRenderTarget(KROAudioBusObserver* target);
    void removePreRenderTarget(KROAudioBusObserver* target);
    void addPostRenderTarget(KROAudioBusObserver* target);
    void removePostRenderTarget(KROAudioBusObserver* target);
    std::size_t countOfPreRenderTargets() const;
    std::size_t countOfPostRenderTargets() const;

    // The base versions do nothing.
    virtual void input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);
    virtual void render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);

protected:
    // Send willRender or didRender to each target under targetLock. The
    // counts let a bus without targets skip the lock: nothing is called then.
    void notifyPreRenderTargets(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
        if (preRenderTargetCount_.load(std::memory_order_relaxed) != 0) {
            callPreRenderTargets(buffer, info);
        }
    }
    void notifyPostRenderTargets(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
        if (postRenderTargetCount_.load(std::memory_order_relaxed) != 0) {
            callPostRenderTargets(buffer, info);
        }
    }

private:
    using TargetSet = std::vector<KROAudioBusObserver*>;

    void callPreRenderTargets(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);
    void callPostRenderTargets(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info);
    void addTarget(TargetSet& targets, std::atomic<std::size_t>& count,
                   KROAudioBusObserver* target);
    void removeTarget(TargetSet& targets, std::atomic<std::size_t>& count,
                      KROAudioBusObserver* target);

    std::string identifier_;
    std::atomic<KROAudioConnection*> connection_{nullptr};
    TargetSet preRenderTargets_;
    TargetSet postRenderTargets_;
    std::atomic<std::size_t> preRenderTargetCount_{0};
    std::atomic<std::size_t> postRenderTargetCount_{0};
    mutable std::mutex targetLock_;
};

class KROAudioInputBus : public KROAudioBus {
    KRO_DECLARE_CLASS(KROAudioInputBus)

public:
    bool initWithDestination(KROAudioInputBusDelegate* destination);

    KROAudioInputBusDelegate* destination() const {
        return destination_.load(std::memory_order_relaxed);
    }
    void setDestination(KROAudioInputBusDelegate* destination) {
        destination_.store(destination, std::memory_order_relaxed);
    }

    // Hands the buffer to the destination; targets take
    // no part in the push path.
    void input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) override;
    // An unconnected input is silence; otherwise the pre-render targets,
    // the connection's render and the post-render targets, in that order.
    void render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) override;

private:
    std::atomic<KROAudioInputBusDelegate*> destination_{nullptr};
};

class KROAudioOutputBus : public KROAudioBus {
    KRO_DECLARE_CLASS(KROAudioOutputBus)

public:
    bool initWithSource(KROAudioOutputBusDelegate* source);

    KROAudioOutputBusDelegate* source() const { return source_.load(std::memory_order_relaxed); }
    void setSource(KROAudioOutputBusDelegate* source) {
        source_.store(source, std::memory_order_relaxed);
    }

    // On to the connection; unconnected, nothing happens.
    void input(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) override;
    // With no source the buffer is cleared.
    void render(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) override;

private:
    std::atomic<KROAudioOutputBusDelegate*> source_{nullptr};
};
