// Counts the heap allocations made on the current thread while a guard is
// alive, so that a test can show that a render call allocates nothing.
// Counted: malloc, calloc, realloc, aligned_alloc, posix_memalign, memalign,
// and operator new in every form, which the C++ library builds on them. In a
// sanitizer build (KRO_SANITIZER_BUILD) the sanitizer's allocator reports
// them to a hook instead; ThreadSanitizer's does not report aligned_alloc and
// posix_memalign there.
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

// Runs the statement under a guard and expects that it allocated nothing.
#define KRO_EXPECT_NO_ALLOCATION(statement)                                                        \
    do {                                                                                           \
        std::size_t kroAllocations_ = 0;                                                           \
        {                                                                                          \
            const KROAllocationGuard kroGuard_;                                                    \
            statement;                                                                             \
            kroAllocations_ = kroGuard_.count();                                                   \
        }                                                                                          \
        EXPECT_EQ(kroAllocations_, 0u) << "allocations in: " #statement;                           \
    } while (false)
