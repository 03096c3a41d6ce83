// The deque: both ends, growth by doubling blocks, ownership of what it holds,
// and a failed block that is logged while the deque goes on working.
#include <gtest/gtest.h>

#include <cstdlib>

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

int valueOf(const std::shared_ptr<KROObject>& object) {
    return object ? static_cast<Token&>(*object).value : -1;
}

} // namespace

// Pops past the end give nothing and leave the deque usable; blocks double;
// a push retains, a pop hands over, and closing releases what is still held.
TEST(KRODeque, HoldsItsObjectsAtBothEndsAndGrows) {
    std::weak_ptr<KROObject> held;
    std::shared_ptr<KROObject> popped;
    {
        auto deque = std::make_shared<KRODeque>();
        ASSERT_TRUE(deque->initWithCapacity(2));
        EXPECT_EQ(deque->popFront(), nullptr);
        deque->pushBack(token(2));
        deque->pushFront(token(1));
        deque->pushBack(token(3));
        EXPECT_EQ(deque->currentCapacity(), 4u);
        EXPECT_EQ(valueOf(deque->popBack()), 3);
        EXPECT_EQ(valueOf(deque->popFront()), 1);
        EXPECT_EQ(valueOf(deque->popFront()), 2);
        EXPECT_EQ(deque->popBack(), nullptr);
        for (int i = 0; i < 100; ++i) {
            deque->pushBack(token(i));
        }
        EXPECT_EQ(deque->currentCapacity(), 128u);
        for (int i = 0; i < 99; ++i) {
            EXPECT_EQ(valueOf(deque->popFront()), i);
        }
        held = deque->popBack();
        EXPECT_TRUE(held.expired());
        popped = token(5);
        deque->pushFront(popped);
        EXPECT_EQ(deque->popBack(), popped);
        EXPECT_EQ(popped.use_count(), 1);
        auto kept = token(6);
        held = kept;
        deque->pushBack(std::move(kept));
        EXPECT_FALSE(held.expired());
    }
    EXPECT_TRUE(held.expired());
}

// A failed first block logs its size and gives no deque; a failed later block
// logs and the push takes the free list's sentinel as its element: the deque
// keeps working, and what it holds is still released with it.
TEST(KRODeque, AFailedBlockIsLoggedAndTheDequeGoesOn) {
    std::vector<std::string> log;
    KROSetLogSink([&](const std::string& line) { log.push_back(line); });
    const auto bytes = [](std::size_t elements) {
        return "KRODeque could not allocate " +
               std::to_string(elements * sizeof(KRODeque::deque_el_t)) + " bytes";
    };
    bool failing = true;
    const auto allocator = [&](std::size_t size) { return failing ? nullptr : std::malloc(size); };
    auto refused = std::make_shared<KRODeque>();
    refused->setBlockAllocator(allocator);
    EXPECT_FALSE(refused->init());
    EXPECT_EQ(log, std::vector<std::string>{bytes(258)});
    std::weak_ptr<KROObject> held;
    for (const bool closeWhileHeld : {false, true}) {
        auto deque = std::make_shared<KRODeque>();
        deque->setBlockAllocator(allocator);
        failing = false;
        ASSERT_TRUE(deque->initWithCapacity(1));
        deque->pushBack(token(1));
        failing = true;
        auto object = token(2);
        held = object;
        deque->pushFront(std::move(object));
        EXPECT_EQ(log.back(), bytes(1));
        EXPECT_EQ(deque->currentCapacity(), 1u);
        if (closeWhileHeld) {
            deque->pushBack(token(3));
            deque.reset();
            EXPECT_TRUE(held.expired());
            break;
        }
        EXPECT_EQ(valueOf(deque->popFront()), 2);
        EXPECT_EQ(valueOf(deque->popFront()), 1);
        EXPECT_EQ(deque->popFront(), nullptr);
        failing = false;
        for (int i = 10; i < 14; ++i) {
            deque->pushBack(token(i));
        }
        EXPECT_EQ(deque->currentCapacity(), 4u);
        EXPECT_EQ(valueOf(deque->popFront()), 10);
    }
    KROSetLogSink({});
}
