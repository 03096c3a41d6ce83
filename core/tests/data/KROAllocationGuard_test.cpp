// The guard counts every way to the heap, on its own thread and span only.
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

struct alignas(64) Wide {
    float values[16];
};

} // namespace

TEST(KROAllocationGuard, CountsEveryKindOfAllocationInItsSpan) {
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
        allocateOneInt();
        KROAllocationGuard guard;
        cases[row].second();
        {
            KROAllocationGuard inner;
            allocateOneInt();
            EXPECT_EQ(inner.count(), 1u);
        }
        EXPECT_EQ(guard.count(), cases[row].first + 1) << row;
    }
    EXPECT_NONFATAL_FAILURE(KRO_EXPECT_NO_ALLOCATION(allocateOneInt()), "allocateOneInt");
    volatile int value = 1;
    KRO_EXPECT_NO_ALLOCATION(value = value + 1);
}

TEST(KROAllocationGuard, CountsOnlyItsOwnThread) {
    std::atomic<int> stage{0};
    const auto waitFor = [&](int value) {
        while (stage.load() != value) {
            std::this_thread::yield();
        }
    };
    std::size_t otherCount = 99;
    std::thread other([&] {
        waitFor(1);
        for (int i = 0; i < 10; ++i) {
            allocateOneInt();
        }
        KROAllocationGuard guard;
        stage.store(2);
        waitFor(3);
        otherCount = guard.count();
    });
    {
        KROAllocationGuard guard;
        stage.store(1);
        waitFor(2);
        EXPECT_EQ(guard.count(), 0u);
    }
    allocateOneInt();
    stage.store(3);
    other.join();
    EXPECT_EQ(otherCount, 0u);
}
