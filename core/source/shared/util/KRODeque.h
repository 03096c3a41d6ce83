// A double-ended queue of objects on chained blocks of elements. Used and free
// elements live on two circular lists, each with a sentinel; every block is
// owned by _alloc_pool and freed only with the deque.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "KROObject.h"

// Allocates the bytes of one block: memory that std::free releases, or null
// on failure. The default is std::malloc; tests inject failures through it.
using KRODequeBlockAllocator = std::function<void*(std::size_t bytes)>;

class KRODeque : public KROObject {
    KRO_DECLARE_CLASS(KRODeque)

public:
    struct deque_el_t {
        deque_el_t* prev;
        deque_el_t* next;
        std::shared_ptr<KROObject> object;
    };

    static constexpr std::uint64_t defaultCapacity = 256;

    KRODeque() = default;
    KRODeque(const KRODeque&) = delete;
    KRODeque& operator=(const KRODeque&) = delete;
    // Releases the objects still held.
    ~KRODeque() override;

    // Used by the next init; call it before init.
    void setBlockAllocator(KRODequeBlockAllocator allocator);

    bool init() { return initWithCapacity(defaultCapacity); }
    // One block of capacity + 2 elements. A failed allocation logs
    // "KRODeque could not allocate %lu bytes" and returns false.
    bool initWithCapacity(std::uint64_t capacity);

    void pushFront(std::shared_ptr<KROObject> object);
    void pushBack(std::shared_ptr<KROObject> object);
    // Null when the deque is empty.
    std::shared_ptr<KROObject> popFront();
    std::shared_ptr<KROObject> popBack();

    // The size of the next block.
    std::uint64_t currentCapacity() const { return _current_capacity; }

private:
    struct Block {
        deque_el_t* elements;
        std::size_t count;
    };

    deque_el_t* allocateBlock(std::uint64_t count);
    void alloc_another_chunk();
    deque_el_t* takeFreeElement();
    std::shared_ptr<KROObject> handOver(deque_el_t* element);

    deque_el_t* _deque = nullptr;
    deque_el_t* _free_els = nullptr;
    std::vector<Block> _alloc_pool;
    std::uint64_t _current_capacity = 0;
    KRODequeBlockAllocator allocator_;
};
