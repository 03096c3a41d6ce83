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
template <typename T> void escape(T* pointer) {
    asm volatile("" : : "g"(pointer) : "memory");
}

void allocateOneInt() {
    int* value = new int(7);
    escape(value);
    delete value;
}

void waitFor(const std::atomic<int>& stage, int value) {
    while (stage.load() != value) {
        std::this_thread::yield();
    }
}

} // namespace

TEST(KROAllocationGuard, CountsEveryKindOfAllocation) {
    struct alignas(64) Wide {
        float values[16];
    };
    struct Case {
        const char* what;
        std::function<void()> allocate;
        std::size_t count;
    };
    const Case cases[] = {
        {"new", allocateOneInt, 1},
        {"vector",
         [] {
             std::vector<int> v(10);
             escape(v.data());
         },
         1},
        {"string",
         [] {
             std::string s(100, 'x');
             escape(s.data());
         },
         1},
        {"new[] and aligned new",
         [] {
             auto* array = new int[32];
             escape(array);
             delete[] array;
             auto* wide = new Wide;
             escape(wide);
             delete wide;
         },
         2},
        {"malloc",
         [] {
             void* p = std::malloc(16);
             escape(p);
             std::free(p);
         },
         1},
        {"calloc and realloc",
         [] {
             void* p = std::calloc(4, 4);
             escape(p);
             p = std::realloc(p, 64);
             escape(p);
             std::free(p);
         },
         2},
#if !defined(__SANITIZE_THREAD__) // ThreadSanitizer does not report these two to the hook.
        {"aligned_alloc and posix_memalign",
         [] {
             void* p = std::aligned_alloc(64, 128);
             escape(p);
             std::free(p);
             ASSERT_EQ(posix_memalign(&p, 64, 128), 0);
             escape(p);
             std::free(p);
         },
         2},
#endif
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KROAllocationGuard guard;
        c.allocate();
        EXPECT_EQ(guard.count(), c.count);
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
