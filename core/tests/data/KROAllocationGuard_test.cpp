// DESIGN.md section 5: the allocation guard counts what it must and nothing else.
#include "KROAllocationGuard.h"

#include <atomic>
#include <cstdlib>
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

} // namespace

TEST(KROAllocationGuard, CountsNewInt) {
    KROAllocationGuard guard;
    allocateOneInt();
    EXPECT_EQ(guard.count(), 1u);
}

TEST(KROAllocationGuard, CountsVectorOfTenInts) {
    KROAllocationGuard guard;
    std::vector<int> values(10);
    escape(values.data());
    EXPECT_EQ(guard.count(), 1u);
}

TEST(KROAllocationGuard, CountsMalloc) {
    KROAllocationGuard guard;
    void* block = std::malloc(16);
    escape(block);
    std::free(block);
    EXPECT_EQ(guard.count(), 1u);
}

TEST(KROAllocationGuard, CountsStringOfHundredCharacters) {
    KROAllocationGuard guard;
    std::string text(100, 'x');
    escape(text.data());
    EXPECT_EQ(guard.count(), 1u);
}

TEST(KROAllocationGuard, CountsArrayAndAlignedNew) {
    struct alignas(64) Wide {
        float values[16];
    };
    KROAllocationGuard guard;
    auto* array = new int[32];
    escape(array);
    delete[] array;
    auto* wide = new Wide;
    escape(wide);
    delete wide;
    EXPECT_EQ(guard.count(), 2u);
}

TEST(KROAllocationGuard, CountsCallocAndRealloc) {
    KROAllocationGuard guard;
    void* zeroed = std::calloc(4, 4);
    escape(zeroed);
    zeroed = std::realloc(zeroed, 64);
    escape(zeroed);
    std::free(zeroed);
    EXPECT_EQ(guard.count(), 2u);
}

TEST(KROAllocationGuard, CountsAlignedAllocAndPosixMemalign) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not report these two to the allocation hook";
#else
    KROAllocationGuard guard;
    void* aligned = std::aligned_alloc(64, 128);
    escape(aligned);
    std::free(aligned);
    void* posixAligned = nullptr;
    ASSERT_EQ(posix_memalign(&posixAligned, 64, 128), 0);
    escape(posixAligned);
    std::free(posixAligned);
    EXPECT_EQ(guard.count(), 2u);
#endif
}

TEST(KROAllocationGuard, DoesNotCountOutsideTheGuard) {
    allocateOneInt();
    {
        KROAllocationGuard guard;
        EXPECT_EQ(guard.count(), 0u);
    }
    allocateOneInt();
    KROAllocationGuard guard;
    EXPECT_EQ(guard.count(), 0u);
}

TEST(KROAllocationGuard, NestedGuardsCountTheirOwnSpan) {
    KROAllocationGuard outer;
    allocateOneInt();
    {
        KROAllocationGuard inner;
        allocateOneInt();
        EXPECT_EQ(inner.count(), 1u);
    }
    allocateOneInt();
    EXPECT_EQ(outer.count(), 3u);
}

TEST(KROAllocationGuard, DoesNotCountAnotherThread) {
    std::atomic<int> stage{0};
    std::thread other([&stage] {
        while (stage.load() != 1) {
            std::this_thread::yield();
        }
        for (int i = 0; i < 10; ++i) {
            allocateOneInt();
        }
        stage.store(2);
    });
    {
        KROAllocationGuard guard;
        stage.store(1);
        while (stage.load() != 2) {
            std::this_thread::yield();
        }
        EXPECT_EQ(guard.count(), 0u);
    }
    other.join();
}

TEST(KROAllocationGuard, AnotherThreadsGuardDoesNotCountThisThread) {
    std::atomic<int> stage{0};
    std::size_t otherCount = 99;
    std::thread other([&] {
        KROAllocationGuard guard;
        stage.store(1);
        while (stage.load() != 2) {
            std::this_thread::yield();
        }
        otherCount = guard.count();
    });
    while (stage.load() != 1) {
        std::this_thread::yield();
    }
    allocateOneInt();
    stage.store(2);
    other.join();
    EXPECT_EQ(otherCount, 0u);
}

TEST(KROAllocationGuard, ExpectNoAllocationPassesForPlainArithmetic) {
    volatile int value = 1;
    KRO_EXPECT_NO_ALLOCATION(value = value + 1);
    EXPECT_EQ(value, 2);
}

TEST(KROAllocationGuard, ExpectNoAllocationFailsWhenTheStatementAllocates) {
    EXPECT_NONFATAL_FAILURE(KRO_EXPECT_NO_ALLOCATION(allocateOneInt()), "allocateOneInt");
}
