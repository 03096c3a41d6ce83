// Whether the machine itself kept real-time deadlines while a test ran: one
// thread pinned to each processor, under SCHED_FIFO at the lowest priority
// (below JACK's threads, above every ordinary process), wakes at fixed
// deadlines every millisecond and notes how late it woke. A late wake-up of
// such a thread is the machine's doing (a virtual processor the host did not
// run, an interrupt storm), not the program's; the same stall delays JACK.
// This is what cyclictest measures.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

class KROSchedulingProbe {
public:
    explicit KROSchedulingProbe(std::uint64_t lateNanoseconds) : late_(lateNanoseconds) {}
    KROSchedulingProbe(const KROSchedulingProbe&) = delete;
    KROSchedulingProbe& operator=(const KROSchedulingProbe&) = delete;
    ~KROSchedulingProbe() { stop(); }

    // Whether this process may use SCHED_FIFO at all.
    static bool realtimePermitted() {
        bool permitted = false;
        std::thread([&] {
            const sched_param parameter{sched_get_priority_min(SCHED_FIFO)};
            permitted = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter) == 0;
        }).join();
        return permitted;
    }

    void start() {
        const long processors = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
        for (long processor = 0; processor < processors; ++processor) {
            threads_.emplace_back([this, processor] { run(int(processor)); });
        }
    }

    void stop() {
        quit_.store(true);
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

    // Wake-ups later than the limit given at construction, and the latest.
    std::uint64_t lateWakeups() const { return lateWakeups_.load(); }
    double worstMilliseconds() const { return double(worst_.load()) / 1e6; }
    bool realtime() const { return realtime_.load(); }
    bool machineKeptTime() const { return realtime() && lateWakeups() == 0; }

private:
    static std::int64_t nanoseconds(const timespec& time) {
        return std::int64_t(time.tv_sec) * 1000000000 + time.tv_nsec;
    }

    void run(int processor) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(processor, &set);
        pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
        const sched_param parameter{sched_get_priority_min(SCHED_FIFO)};
        if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter) != 0) {
            realtime_.store(false);
        }
        constexpr std::int64_t interval = 1000000;
        timespec deadline{};
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        while (!quit_.load()) {
            deadline.tv_nsec += interval;
            if (deadline.tv_nsec >= 1000000000) {
                deadline.tv_nsec -= 1000000000;
                ++deadline.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            const std::int64_t lateness = nanoseconds(now) - nanoseconds(deadline);
            if (lateness > std::int64_t(late_)) {
                lateWakeups_.fetch_add(1);
            }
            if (lateness > std::int64_t(worst_.load())) {
                worst_.store(std::uint64_t(lateness));
            }
            // After a stall the next deadline starts from now: one stall
            // counts once, not once for every millisecond it lasted.
            if (lateness > interval) {
                deadline = now;
            }
        }
    }

    std::uint64_t late_;
    std::vector<std::thread> threads_;
    std::atomic<bool> quit_{false};
    std::atomic<bool> realtime_{true};
    std::atomic<std::uint64_t> lateWakeups_{0};
    std::atomic<std::uint64_t> worst_{0};
};
