#include "KRODeque.h"

#include <cstdlib>
#include <limits>
#include <new>

#include "KROLog.h"

namespace {

using Element = KRODeque::deque_el_t;

void selfLink(Element* element) {
    element->prev = element;
    element->next = element;
}

void unlink(Element* element) {
    element->prev->next = element->next;
    element->next->prev = element->prev;
}

// Placing a list's own sentinel after itself, which the pop of an element
// pushed onto the free sentinel does, leaves it as an empty list.
void linkAfter(Element* element, Element* anchor) {
    if (element == anchor) {
        selfLink(element);
        return;
    }
    element->prev = anchor;
    element->next = anchor->next;
    anchor->next->prev = element;
    anchor->next = element;
}

void linkBefore(Element* element, Element* anchor) {
    if (element == anchor) {
        selfLink(element);
        return;
    }
    element->next = anchor;
    element->prev = anchor->prev;
    anchor->prev->next = element;
    anchor->prev = element;
}

std::size_t blockBytes(std::uint64_t count) {
    std::size_t bytes = 0;
    if (count > std::numeric_limits<std::size_t>::max() ||
        __builtin_mul_overflow(static_cast<std::size_t>(count), sizeof(Element), &bytes)) {
        return std::numeric_limits<std::size_t>::max();
    }
    return bytes;
}

} // namespace

KRODeque::~KRODeque() {
    // Every element of every block is destroyed, sentinels included, so that
    // the objects are released whatever state the lists are in.
    for (const Block& block : _alloc_pool) {
        for (std::size_t i = 0; i < block.count; ++i) {
            block.elements[i].~deque_el_t();
        }
        std::free(block.elements);
    }
}

void KRODeque::setBlockAllocator(KRODequeBlockAllocator allocator) {
    allocator_ = std::move(allocator);
}

KRODeque::deque_el_t* KRODeque::allocateBlock(std::uint64_t count) {
    const std::size_t bytes = blockBytes(count);
    void* memory = nullptr;
    if (bytes != std::numeric_limits<std::size_t>::max()) {
        memory = allocator_ ? allocator_(bytes) : std::malloc(bytes);
    }
    if (!memory) {
        KROLog("KRODeque could not allocate %lu bytes", static_cast<unsigned long>(bytes));
        return nullptr;
    }
    auto* elements = static_cast<deque_el_t*>(memory);
    for (std::size_t i = 0; i < count; ++i) {
        new (&elements[i]) deque_el_t{nullptr, nullptr, nullptr};
    }
    _alloc_pool.push_back({elements, static_cast<std::size_t>(count)});
    return elements;
}

bool KRODeque::initWithCapacity(std::uint64_t capacity) {
    if (_deque) {
        return true;
    }
    const std::uint64_t count =
        capacity > std::numeric_limits<std::uint64_t>::max() - 2 ? capacity : capacity + 2;
    deque_el_t* elements = allocateBlock(count);
    if (!elements) {
        return false;
    }
    _deque = &elements[0];
    _free_els = &elements[1];
    selfLink(_deque);
    selfLink(_free_els);
    for (std::uint64_t i = 2; i < count; ++i) {
        linkBefore(&elements[i], _free_els);
    }
    // The Part leaves a capacity of 0 open; doubling it would never grow.
    _current_capacity = capacity > 0 ? capacity : 1;
    return true;
}

void KRODeque::alloc_another_chunk() {
    deque_el_t* elements = allocateBlock(_current_capacity);
    if (!elements) {
        return;
    }
    for (std::uint64_t i = 0; i < _current_capacity; ++i) {
        linkBefore(&elements[i], _free_els);
    }
    if (_current_capacity <= std::numeric_limits<std::uint64_t>::max() / 2) {
        _current_capacity *= 2;
    }
}

KRODeque::deque_el_t* KRODeque::takeFreeElement() {
    if (_free_els->next == _free_els) {
        alloc_another_chunk();
    }
    // After a failed allocation this is the free list's sentinel itself, which
    // the push then uses as an element. Kept: the deque goes on working after a
    // failed allocation, and what it holds is still released with it.
    deque_el_t* element = _free_els->next;
    unlink(element);
    return element;
}

void KRODeque::pushFront(std::shared_ptr<KROObject> object) {
    if (!_deque) {
        return;
    }
    deque_el_t* element = takeFreeElement();
    element->object = std::move(object);
    linkAfter(element, _deque);
}

void KRODeque::pushBack(std::shared_ptr<KROObject> object) {
    if (!_deque) {
        return;
    }
    deque_el_t* element = takeFreeElement();
    element->object = std::move(object);
    linkBefore(element, _deque);
}

std::shared_ptr<KROObject> KRODeque::handOver(deque_el_t* element) {
    unlink(element);
    std::shared_ptr<KROObject> object = std::move(element->object);
    element->object = nullptr;
    linkAfter(element, _free_els);
    return object;
}

std::shared_ptr<KROObject> KRODeque::popFront() {
    if (!_deque || _deque->next == _deque) {
        return nullptr;
    }
    return handOver(_deque->next);
}

std::shared_ptr<KROObject> KRODeque::popBack() {
    if (!_deque || _deque->prev == _deque) {
        return nullptr;
    }
    return handOver(_deque->prev);
}
