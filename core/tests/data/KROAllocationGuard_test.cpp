// The allocation guard counts every way of reaching the heap on its own
// thread, and nothing else.
#include "KROAllocationGuard.h"

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest-spi.h>

namespace {

// Keeps the compiler from removing an allocation whose result is unused.
template <typename T> T* kept(T* pointer) {
    asm volatile("" : : "g"(pointer) : "memory");
    return pointer;
}

void allocateOneInt() {
    delete kept(new int(7));
}

void waitFor(const std::atomic<int>& stage, int value) {
    while (stage.load() != value) {
        std::this_thread::yield();
    }
}

struct alignas(64) Wide {
    float values[16];
};

} // namespace

TEST(KROAllocationGuard, CountsEveryKindOfAllocation) {
    const std::pair<std::size_t, std::function<void()>> cases[] = {
        {1, allocateOneInt},
        {1, [] { kept(std::vector<int>(10).data()); }},
        {1, [] { kept(std::string(100, 'x').data()); }},
        {2, [] { delete[] kept(new int[32]), delete kept(new Wide); }},
        {1, [] { std::free(kept(std::malloc(16))); }},
        {2, [] { std::free(kept(std::realloc(kept(std::calloc(4, 4)), 64))); }},
#if !defined(__SANITIZE_THREAD__) // ThreadSanitizer does not report these two to the hook.
        {2,
         [] {
             void* p = nullptr;
             std::free(kept(std::aligned_alloc(64, 128)));
             std::free(kept(posix_memalign(&p, 64, 128) == 0 ? p : nullptr));
         }},
#endif
    };
    for (std::size_t row = 0; row < std::size(cases); ++row) {
        SCOPED_TRACE(row);
        KROAllocationGuard guard;
        cases[row].second();
        EXPECT_EQ(guard.count(), cases[row].first);
    }
}

TEST(KROAllocationGuard, CountsOnlyItsOwnSpan) {
    allocateOneInt();
    KROAllocationGuard outer;
    EXPECT_EQ(outer.count(), 0u);
    allocateOneInt();
    {
        KROAllocationGuard inner;
        allocateOneInt();
        EXPECT_EQ(inner.count(), 1u);
    }
    allocateOneInt();
    EXPECT_EQ(outer.count(), 3u);
}

// Another thread allocating under this thread's guard counts nothing, and this
// thread allocating under another thread's guard counts nothing there.
TEST(KROAllocationGuard, CountsOnlyItsOwnThread) {
    std::atomic<int> stage{0};
    std::size_t otherCount = 99;
    std::thread other([&] {
        waitFor(stage, 1);
        for (int i = 0; i < 10; ++i) {
            allocateOneInt();
        }
        KROAllocationGuard guard;
        stage.store(2);
        waitFor(stage, 3);
        otherCount = guard.count();
    });
    {
        KROAllocationGuard guard;
        stage.store(1);
        waitFor(stage, 2);
        EXPECT_EQ(guard.count(), 0u);
    }
    allocateOneInt();
    stage.store(3);
    other.join();
    EXPECT_EQ(otherCount, 0u);
}

TEST(KROAllocationGuard, TheExpectationFailsExactlyWhenTheStatementAllocates) {
    volatile int value = 1;
    KRO_EXPECT_NO_ALLOCATION(value = value + 1);
    EXPECT_EQ(value, 2);
    EXPECT_NONFATAL_FAILURE(KRO_EXPECT_NO_ALLOCATION(allocateOneInt()), "allocateOneInt");
}
