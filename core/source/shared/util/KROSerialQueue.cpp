#include "KROSerialQueue.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <memory>

namespace {

// The thread name: the last dotted component of the label, cut to the 15
// characters that the system keeps.
std::string threadName(const std::string& label) {
    const std::size_t dot = label.rfind('.');
    const std::string last = dot == std::string::npos ? label : label.substr(dot + 1);
    return last.substr(0, 15);
}

void runBoxedFunction(void* context, const void* /*payload*/) {
    const std::unique_ptr<std::function<void()>> function(
        static_cast<std::function<void()>*>(context));
    (*function)();
}

// What sync waits on, on the caller's stack until the task has run.
struct SyncCall {
    const std::function<void()>* function;
    std::mutex lock;
    std::condition_variable doneChanged;
    bool done = false;
};

void runSyncCall(void* context, const void* /*payload*/) {
    auto* call = static_cast<SyncCall*>(context);
    (*call->function)();
    const std::lock_guard guard(call->lock);
    call->done = true;
    call->doneChanged.notify_all();
}

} // namespace

KROSerialQueue::KROSerialQueue(std::string label, Priority priority, std::size_t capacity)
    : label_(std::move(label)), priority_(priority), slots_(std::max<std::size_t>(capacity, 1)) {
    bool started = false;
    std::condition_variable startedChanged;
    worker_ = std::thread([this, &started, &startedChanged] {
        pthread_setname_np(pthread_self(), threadName(label_).c_str());
        raisePriority();
        {
            // Notified under the lock: the constructor's condition variable
            // dies as soon as it sees the flag.
            const std::lock_guard guard(lock_);
            started = true;
            startedChanged.notify_all();
        }
        run();
    });
    // Waits for the worker to settle its priority, so that hasRaisedPriority
    // answers for good from the start.
    std::unique_lock guard(lock_);
    startedChanged.wait(guard, [&] { return started; });
}

KROSerialQueue::~KROSerialQueue() {
    {
        const std::lock_guard guard(lock_);
        quit_ = true;
    }
    wake_.notify_all();
    worker_.join();
}

void KROSerialQueue::raisePriority() {
    if (priority_ != Priority::high) {
        return;
    }
    // The lowest real-time priority: above every ordinary thread, below the
    // device threads that wait for this queue's results.
    const sched_param parameter{sched_get_priority_min(SCHED_FIFO)};
    const bool raised = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter) == 0;
    const std::lock_guard guard(lock_);
    raised_ = raised;
}

bool KROSerialQueue::hasRaisedPriority() const {
    const std::lock_guard guard(lock_);
    return raised_;
}

bool KROSerialQueue::enqueue(Task task, void* context, const void* payload, std::size_t size,
                             bool wait) {
    {
        std::unique_lock guard(lock_);
        if (count_ == slots_.size()) {
            if (!wait) {
                return false;
            }
            room_.wait(guard, [this] { return count_ < slots_.size(); });
        }
        Slot& slot = slots_[(head_ + count_) % slots_.size()];
        slot.task = task;
        slot.context = context;
        if (size != 0) {
            std::memcpy(slot.payload, payload, size);
        }
        ++count_;
    }
    wake_.notify_one();
    return true;
}

void KROSerialQueue::async(std::function<void()> function) {
    auto* box = new std::function<void()>(std::move(function));
    enqueue(runBoxedFunction, box, nullptr, 0, true);
}

void KROSerialQueue::sync(const std::function<void()>& function) {
    if (std::this_thread::get_id() == worker_.get_id()) {
        function();
        return;
    }
    SyncCall call{&function, {}, {}, false};
    enqueue(runSyncCall, &call, nullptr, 0, true);
    std::unique_lock guard(call.lock);
    call.doneChanged.wait(guard, [&call] { return call.done; });
}

void KROSerialQueue::run() {
    Slot current;
    for (;;) {
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, [this] { return count_ != 0 || quit_; });
            if (count_ == 0) {
                return;
            }
            // Copied out, so that the slot is free again while the task runs.
            current = slots_[head_];
            head_ = (head_ + 1) % slots_.size();
            --count_;
        }
        room_.notify_one();
        current.task(current.context, current.payload);
    }
}
