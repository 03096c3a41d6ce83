// The deque: both ends, growth, ownership, and a failed block that is logged.
#include <gtest/gtest.h>

#include <cstdlib>
#include <numeric>

#include "KRODeque.h"
#include "KROLog.h"

namespace {

struct Token : KROObject {
    explicit Token(int value) : value(value) {}
    int value;
};

std::shared_ptr<KROObject> token(int value) {
    return std::make_shared<Token>(value);
}

// The values popped from the front until the deque is empty.
std::vector<int> drain(KRODeque& deque) {
    std::vector<int> values;
    while (auto object = deque.popFront()) {
        values.push_back(static_cast<Token&>(*object).value);
    }
    return values;
}

} // namespace

// Pops past the end give nothing; a push retains, a pop hands over, closing releases.
TEST(KRODeque, HoldsItsObjectsAtBothEndsAndGrows) {
    auto deque = std::make_shared<KRODeque>();
    ASSERT_TRUE(deque->initWithCapacity(2));
    EXPECT_EQ(deque->popBack(), nullptr);
    deque->pushBack(token(2));
    deque->pushFront(token(1));
    deque->pushBack(token(3));
    EXPECT_EQ(deque->currentCapacity(), 4u);
    EXPECT_EQ(static_cast<Token&>(*deque->popBack()).value, 3);
    EXPECT_EQ(drain(*deque), (std::vector<int>{1, 2}));
    std::vector<int> hundred(100);
    std::iota(hundred.begin(), hundred.end(), 0);
    for (int value : hundred) {
        deque->pushBack(token(value));
    }
    EXPECT_EQ(deque->currentCapacity(), 128u);
    EXPECT_EQ(drain(*deque), hundred);
    const auto popped = token(5);
    deque->pushFront(popped);
    EXPECT_EQ(deque->popBack(), popped);
    EXPECT_EQ(popped.use_count(), 1);
    deque->pushBack(popped);
    EXPECT_EQ(popped.use_count(), 2);
    deque.reset();
    EXPECT_EQ(popped.use_count(), 1);
}

// A failed first block gives no deque; a failed later block is logged and the
// push takes the free list's sentinel as its element; the deque goes on.
TEST(KRODeque, AFailedBlockIsLoggedAndTheDequeGoesOn) {
    std::vector<std::string> log;
    KROSetLogSink([&](const std::string& line) { log.push_back(line); });
    const auto logged = [](std::size_t elements) {
        return "KRODeque could not allocate " +
               std::to_string(elements * sizeof(KRODeque::deque_el_t)) + " bytes";
    };
    bool failing = true;
    const auto allocator = [&](std::size_t size) { return failing ? nullptr : std::malloc(size); };
    for (int round = 0; round < 3; ++round) {
        auto deque = std::make_shared<KRODeque>();
        deque->setBlockAllocator(allocator);
        failing = round == 0;
        if (!deque->initWithCapacity(round ? 1 : 256)) {
            EXPECT_EQ(log.back(), logged(258));
            continue;
        }
        deque->pushBack(token(1));
        failing = true;
        const auto held = token(2);
        deque->pushFront(held);
        EXPECT_EQ(log.back(), logged(1));
        EXPECT_EQ(deque->currentCapacity(), 1u);
        if (round == 2) {
            deque->pushBack(token(3));
            deque.reset();
            EXPECT_EQ(held.use_count(), 1);
            continue;
        }
        EXPECT_EQ(drain(*deque), (std::vector<int>{2, 1}));
        failing = false;
        for (int i = 10; i < 14; ++i) {
            deque->pushBack(token(i));
        }
        EXPECT_EQ(deque->currentCapacity(), 4u);
        EXPECT_EQ(drain(*deque), (std::vector<int>{10, 11, 12, 13}));
    }
    KROSetLogSink({});
}
