// The JACK device layer with a watch on its real-time threads, for the tests
// of Part 9.1's "the callbacks allocate nothing" and of blocks never dropped.
//
// Each registered callback runs through a wrapper on JACK's process thread.
// On the first call the wrapper arms the allocation guard for that thread and
// leaves it armed: from then on every allocation on the thread counts, in the
// head, in the graph, in the JACK layer around them and in libjack's own
// cycle. Around each call it also reads the thread's voluntary context
// switches, which a lock, a sleep or file access would cause, and the
// thread's CPU time. On a virtual machine that CPU time also holds the spells
// in which the host did not run the virtual processor, so a single long block
// may be the host's; KROSchedulingProbe tells how often the host did that.
#pragma once

#include <sys/resource.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "KROAllocationGuard.h"
#include "KROJACKAudioDeviceBackend.h"

class KROJACKWatchedAudioDeviceBackend : public KROJACKAudioDeviceBackend {
public:
    struct Figures {
        std::uint64_t callbacks = 0;
        std::uint64_t allocations = 0;
        std::uint64_t voluntarySwitches = 0;
        std::uint64_t totalCPUNanoseconds = 0;
        std::uint64_t longestCPUNanoseconds = 0;
        // Blocks that took more CPU time than the limit given at construction.
        std::uint64_t slowBlocks = 0;
    };

    explicit KROJACKWatchedAudioDeviceBackend(std::uint64_t slowNanoseconds)
        : slowNanoseconds_(slowNanoseconds) {}

    Status createIOProc(DeviceID id, std::uint32_t scope, std::uint32_t channels,
                        KROAudioDeviceIOProc proc, void* context, std::uint64_t& procID) override {
        auto watch = std::make_unique<Watch>();
        watch->proc = proc;
        watch->context = context;
        watch->slowNanoseconds = slowNanoseconds_;
        const Status status = KROJACKAudioDeviceBackend::createIOProc(
            id, scope, channels, &Watch::call, watch.get(), procID);
        if (status == noError) {
            const std::lock_guard guard(lock_);
            // Kept to the end: JACK's thread may still hold the pointer.
            watches_[procID] = std::move(watch);
        }
        return status;
    }

    // What the wrapper saw of every callback so far, summed over all of them.
    Figures figures() const {
        const std::lock_guard guard(lock_);
        Figures sum;
        for (const auto& [procID, watch] : watches_) {
            sum.callbacks += watch->callbacks.load();
            sum.allocations += watch->allocations.load();
            sum.voluntarySwitches += watch->voluntarySwitches.load();
            sum.totalCPUNanoseconds += watch->totalCPUNanoseconds.load();
            sum.slowBlocks += watch->slowBlocks.load();
            sum.longestCPUNanoseconds =
                std::max(sum.longestCPUNanoseconds, watch->longestCPUNanoseconds.load());
        }
        return sum;
    }

private:
    struct Watch {
        KROAudioDeviceIOProc proc = nullptr;
        void* context = nullptr;
        std::uint64_t slowNanoseconds = 0;
        std::atomic<std::uint64_t> callbacks{0};
        std::atomic<std::uint64_t> allocations{0};
        std::atomic<std::uint64_t> voluntarySwitches{0};
        std::atomic<std::uint64_t> totalCPUNanoseconds{0};
        std::atomic<std::uint64_t> longestCPUNanoseconds{0};
        std::atomic<std::uint64_t> slowBlocks{0};

        static std::uint64_t threadCPUNanoseconds() {
            timespec now{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
            return std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
        }
        static std::uint64_t threadVoluntarySwitches() {
            rusage usage{};
            getrusage(RUSAGE_THREAD, &usage);
            return std::uint64_t(usage.ru_nvcsw);
        }

        static void call(void* argument, KROAudioDeviceBuffer* buffers, std::size_t count,
                         std::uint32_t frames, const KROAudioDeviceTimestamp& timestamp) {
            auto& self = *static_cast<Watch*>(argument);
            // Plain storage of the thread; armed once, never disarmed.
            thread_local std::optional<KROAllocationGuard> threadGuard;
            if (!threadGuard) {
                threadGuard.emplace();
            }
            const std::uint64_t switchesBefore = threadVoluntarySwitches();
            const std::uint64_t cpuBefore = threadCPUNanoseconds();
            self.proc(self.context, buffers, count, frames, timestamp);
            const std::uint64_t cpu = threadCPUNanoseconds() - cpuBefore;
            self.voluntarySwitches.fetch_add(threadVoluntarySwitches() - switchesBefore);
            self.totalCPUNanoseconds.fetch_add(cpu);
            self.slowBlocks.fetch_add(cpu > self.slowNanoseconds ? 1 : 0);
            if (cpu > self.longestCPUNanoseconds.load()) {
                self.longestCPUNanoseconds.store(cpu);
            }
            self.allocations.store(threadGuard->count());
            self.callbacks.fetch_add(1);
        }
    };

    std::uint64_t slowNanoseconds_;
    mutable std::mutex lock_;
    std::map<std::uint64_t, std::unique_ptr<Watch>> watches_;
};
