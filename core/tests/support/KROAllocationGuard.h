// Counts the heap allocations of the current thread while a guard lives (every
// malloc family call, so operator new too), to show a render call allocates
// nothing. ThreadSanitizer's hook leaves out aligned_alloc and posix_memalign.
#pragma once

#include <cstddef>

#include <gtest/gtest.h>

class KROAllocationGuard {
public:
    // Arms counting on this thread until destruction; guards may nest.
    KROAllocationGuard();
    ~KROAllocationGuard();
    KROAllocationGuard(const KROAllocationGuard&) = delete;
    KROAllocationGuard& operator=(const KROAllocationGuard&) = delete;

    // Allocations made on this thread since construction.
    std::size_t count() const;

private:
    std::size_t start_;
    bool wasArmed_;
};

// The allocations the work makes on this thread.
template <typename Work> std::size_t KROAllocationsIn(Work work) {
    const KROAllocationGuard guard;
    work();
    return guard.count();
}

// Runs the statement under a guard and expects that it allocated nothing.
#define KRO_EXPECT_NO_ALLOCATION(statement)                                                        \
    EXPECT_EQ(KROAllocationsIn([&] { statement; }), 0u) << "allocations in: " #statement
