// A serial queue: one worker thread of its own runs the tasks handed to it,
// one at a time, in the order they came. It is the one queue of the library:
// the hinge hands upstream renders to one, and so do the disk threads and the
// database.
//
// Two ways in. async(task, context, payload) copies a small trivially
// copyable payload into a ring of slots made at construction: it allocates
// nothing, holds a short lock and never waits for the worker, so the render
// thread may use it; a full ring refuses the task. async(function) and sync
// take any callable; they may allocate and, when the ring is full, wait for
// room, so they belong to the other threads.
//
// A queue of high priority asks for SCHED_FIFO for its worker, below the
// audio device's threads and above every ordinary one; where the system
// refuses (EPERM for an ordinary user) the worker runs at normal priority.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

class KROSerialQueue {
public:
    enum class Priority { normal, high };

    // A task of the allocation-free way: the context given to async and the
    // queue's copy of the payload.
    using Task = void (*)(void* context, const void* payload);

    static constexpr std::size_t payloadCapacity = 64;
    static constexpr std::size_t defaultCapacity = 64;

    // Starts the worker. The label names the queue; the thread bears as much
    // of its last dotted component as the system allows (15 characters).
    explicit KROSerialQueue(std::string label, Priority priority = Priority::normal,
                            std::size_t capacity = defaultCapacity);
    // Runs the tasks still queued, then ends the worker.
    ~KROSerialQueue();
    KROSerialQueue(const KROSerialQueue&) = delete;
    KROSerialQueue& operator=(const KROSerialQueue&) = delete;

    const std::string& label() const { return label_; }
    // Whether the worker runs at the raised priority it asked for.
    bool hasRaisedPriority() const;

    // Any thread, the render thread included: false, with nothing queued,
    // when the ring is full.
    template <typename Payload> bool async(Task task, void* context, const Payload& payload) {
        static_assert(std::is_trivially_copyable_v<Payload>);
        static_assert(sizeof(Payload) <= payloadCapacity);
        return enqueue(task, context, &payload, sizeof(Payload), false);
    }
    // Not the render thread.
    void async(std::function<void()> function);
    // Runs the function on the worker and returns when it has run; every task
    // queued before it has run too. Called from a task of this queue, it runs
    // the function at once.
    void sync(const std::function<void()>& function);

private:
    struct Slot {
        Task task = nullptr;
        void* context = nullptr;
        alignas(std::max_align_t) unsigned char payload[payloadCapacity];
    };

    bool enqueue(Task task, void* context, const void* payload, std::size_t size, bool wait);
    void run();
    void raisePriority();

    const std::string label_;
    const Priority priority_;
    std::vector<Slot> slots_;
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    bool quit_ = false;
    bool raised_ = false;
    mutable std::mutex lock_;
    std::condition_variable wake_;
    std::condition_variable room_;
    std::thread worker_;
};
