#include "KROEventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

constexpr std::uint32_t readEvents = EPOLLIN | EPOLLRDHUP;
constexpr std::uint32_t writeEvents = EPOLLOUT;
// Marks the wake-up descriptor among the sources' numbers, which start at 1.
constexpr std::uint64_t wakeupID = 0;
constexpr int batchSize = 64;

std::uint32_t eventsOf(KROEventLoopCallbackType type) {
    return type == KROEventLoopCallbackType::read ? readEvents : writeEvents;
}

} // namespace

KROEventLoop::~KROEventLoop() {
    if (epoll_ >= 0) {
        ::close(epoll_);
    }
    if (wakeup_ >= 0) {
        ::close(wakeup_);
    }
}

std::shared_ptr<KROEventLoop> KROEventLoop::current() {
    thread_local std::shared_ptr<KROEventLoop> loop;
    if (!loop) {
        auto made = std::make_shared<KROEventLoop>();
        if (made->init()) {
            loop = made;
        }
    }
    return loop;
}

bool KROEventLoop::init(KROErrorPtr* error) {
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    wakeup_ = epoll_ < 0 ? -1 : ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeupID;
    if (wakeup_ < 0 || ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeup_, &event) != 0) {
        if (error) {
            *error =
                KROError::errorWithCode(errno, KROLocalizedString("KROEventLoop_action_creating"));
        }
        return false;
    }
    return true;
}

KROEventLoop::SourceID KROEventLoop::addSocket(int socket, KROEventLoopCallback callback,
                                               KROErrorPtr* error) {
    const SourceID id = nextSource_++;
    epoll_event event{};
    event.events = readEvents;
    event.data.u64 = id;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) != 0) {
        if (error) {
            *error = KROError::errorWithCode(
                errno, KROLocalizedString("KROEventLoop_action_addingSocket"));
        }
        return 0;
    }
    sources_[id] =
        std::make_shared<Source>(Source{socket, std::move(callback), readEvents, readEvents});
    return id;
}

void KROEventLoop::removeSource(SourceID id) {
    const auto found = sources_.find(id);
    if (found == sources_.end()) {
        return;
    }
    if (found->second->registered != 0) {
        ::epoll_ctl(epoll_, EPOLL_CTL_DEL, found->second->socket, nullptr);
    }
    sources_.erase(found);
}

// Changes reach epoll lazily, before the next wait: a write callback that
// asks for the next write readiness at once costs no system call.
void KROEventLoop::enableCallbacks(SourceID id, KROEventLoopCallbackType type) {
    const auto found = sources_.find(id);
    if (found != sources_.end()) {
        found->second->wanted |= eventsOf(type);
    }
}

void KROEventLoop::disableCallbacks(SourceID id, KROEventLoopCallbackType type) {
    const auto found = sources_.find(id);
    if (found != sources_.end()) {
        found->second->wanted &= ~eventsOf(type);
    }
}

// A source that wants nothing leaves epoll altogether, since epoll reports a
// hang-up even to an empty interest and the loop would spin on it.
void KROEventLoop::syncRegistrations() {
    for (auto& [id, source] : sources_) {
        if (source->wanted == source->registered) {
            continue;
        }
        epoll_event event{};
        event.events = source->wanted;
        event.data.u64 = id;
        const int operation = source->registered == 0 ? EPOLL_CTL_ADD
                              : source->wanted == 0   ? EPOLL_CTL_DEL
                                                      : EPOLL_CTL_MOD;
        ::epoll_ctl(epoll_, operation, source->socket, &event);
        source->registered = source->wanted;
    }
}

int KROEventLoop::runOnce(int timeoutMilliseconds) {
    syncRegistrations();
    epoll_event events[batchSize];
    const int count = ::epoll_wait(epoll_, events, batchSize, timeoutMilliseconds);
    int callbacks = 0;
    for (int index = 0; index < count; ++index) {
        if (events[index].data.u64 == wakeupID) {
            std::uint64_t value = 0;
            (void)!::read(wakeup_, &value, sizeof value);
            continue;
        }
        const SourceID id = events[index].data.u64;
        const auto found = sources_.find(id);
        if (found == sources_.end()) {
            continue;
        }
        // Kept alive through the callbacks, which may remove their own source.
        const auto source = found->second;
        const std::uint32_t ready = events[index].events;
        // A hang-up or an error is news for whichever side listens: the read
        // or write that follows reports it.
        const bool failed = (ready & (EPOLLHUP | EPOLLERR)) != 0;
        if ((ready & readEvents || failed) && (source->wanted & readEvents) != 0) {
            source->callback(KROEventLoopCallbackType::read);
            ++callbacks;
        }
        if ((ready & writeEvents || failed) && (source->wanted & writeEvents) != 0 &&
            sources_.count(id) != 0) {
            // Write readiness is single-shot: the callback asks again.
            source->wanted &= ~writeEvents;
            source->callback(KROEventLoopCallbackType::write);
            ++callbacks;
        }
    }
    return callbacks;
}

void KROEventLoop::run() {
    while (!stopping_.exchange(false, std::memory_order_acq_rel)) {
        runOnce(-1);
    }
}

void KROEventLoop::stop() {
    stopping_.store(true, std::memory_order_release);
    const std::uint64_t one = 1;
    (void)!::write(wakeup_, &one, sizeof one);
}
