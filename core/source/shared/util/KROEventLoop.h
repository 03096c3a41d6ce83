// The run loop that network pipes live on: a small readiness loop on epoll,
// one per thread. A socket added to it gets read callbacks for as long as data
// is waiting (level-triggered, and re-enabled after each one), and write
// callbacks only on demand: enabling write readiness gives one callback, after
// which the loop turns it off again until the owner asks once more.
//
// epoll rather than Asio: a pipe needs exactly this readiness model (its own
// non-blocking reads and writes, a single-shot write callback), which epoll
// gives in a page of code and no dependency, while Asio's completion model
// would do the reading and writing itself and hide the cursors a pipe keeps.
//
// Everything happens on the thread that runs the loop; only stop() may be
// called from another thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "KROError.h"
#include "KROObject.h"

enum class KROEventLoopCallbackType : int {
    read = 1,
    write = 8,
};

using KROEventLoopCallback = std::function<void(KROEventLoopCallbackType type)>;

class KROEventLoop : public KROObject {
    KRO_DECLARE_CLASS(KROEventLoop)

public:
    using SourceID = std::uint64_t;

    KROEventLoop() = default;
    KROEventLoop(const KROEventLoop&) = delete;
    KROEventLoop& operator=(const KROEventLoop&) = delete;
    ~KROEventLoop() override;

    // The loop of the calling thread, made on first use; null when the
    // system refuses an epoll instance.
    static std::shared_ptr<KROEventLoop> current();

    bool init(KROErrorPtr* error = nullptr);

    // Watches a socket: read callbacks on, write callbacks off. The callback
    // runs on the loop's thread; it may add and remove sources, itself too.
    SourceID addSocket(int socket, KROEventLoopCallback callback, KROErrorPtr* error = nullptr);
    void removeSource(SourceID source);
    void enableCallbacks(SourceID source, KROEventLoopCallbackType type);
    void disableCallbacks(SourceID source, KROEventLoopCallbackType type);

    // Waits up to timeoutMilliseconds (-1: without end) for readiness and
    // runs the callbacks that are due. The number of callbacks run.
    int runOnce(int timeoutMilliseconds);
    // Runs until stop().
    void run();
    void stop();

private:
    struct Source {
        int socket;
        KROEventLoopCallback callback;
        std::uint32_t wanted;     // the callbacks the owner asked for
        std::uint32_t registered; // what epoll watches now
    };

    void dispatch(SourceID id, std::uint32_t events);
    void syncRegistrations();

    int epoll_ = -1;
    int wakeup_ = -1;
    SourceID nextSource_ = 1;
    std::map<SourceID, std::shared_ptr<Source>> sources_;
    std::atomic<bool> stopping_{false};
};
