// Waiting in tests for what another thread does: a condition that becomes
// true, and notifications counted as they are posted.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "KRONotificationCenter.h"

// Polls the condition until it holds or the time is up; its last answer.
inline bool KROEventually(const std::function<bool()>& condition,
                          std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// Counts the notifications of one name on the default center while it lives.
struct KRONotificationCount {
    explicit KRONotificationCount(const std::string& name)
        : token(KRONotificationCenter::defaultCenter().addObserver(
              name, [this](const KRONotification&) { ++count; })) {}
    ~KRONotificationCount() { KRONotificationCenter::defaultCenter().removeObserver(token); }
    KRONotificationCount(const KRONotificationCount&) = delete;
    KRONotificationCount& operator=(const KRONotificationCount&) = delete;

    std::atomic<int> count{0};
    KRONotificationCenter::Token token;
};
