// The allocation guard of DESIGN.md section 5: counts heap allocations made on
// the current thread while a guard is alive. Every test binary links it.
//
// Counted: operator new and new[] in all their forms (through malloc and the
// aligned allocation below), malloc, calloc, realloc, aligned_alloc,
// posix_memalign, memalign. In a normal build these entry points are replaced
// and forward to glibc's allocator; in a sanitizer build (KRO_SANITIZER_BUILD)
// the sanitizer's allocator keeps them and reports every allocation, malloc
// and operator new alike, to a hook installed here; ThreadSanitizer's runtime
// does not report aligned_alloc and posix_memalign to that hook.
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
