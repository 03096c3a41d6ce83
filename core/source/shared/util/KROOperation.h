// A job that its host may cancel from another thread; the worker polls
// isCancelled between steps.
#pragma once

#include <atomic>

class KROOperation {
public:
    bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }

private:
    std::atomic<bool> cancelled_{false};
};
