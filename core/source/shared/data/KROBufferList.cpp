#include "KROBufferList.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "KROStringWithFormat.h"
#include "KROVectorOps.h"

namespace {

constexpr const char* kActionCreate = "KROBufferList_action_create";
constexpr const char* kActionCopyRange = "KROBufferList_action_copyRange";
constexpr const char* kActionCopyBuffer = "KROBufferList_action_copyBuffer";
constexpr const char* kActionCopyBuffers = "KROBufferList_action_copyBuffers";
constexpr const char* kActionSetLength = "KROBufferList_action_setLength";

std::atomic<KROBufferList::Allocator> allocatorForTesting{nullptr};

// Buffers start on a cache line so that vector loads never straddle two.
constexpr std::size_t kBufferAlignment = 64;

void* allocateRecord(std::size_t size) {
    if (KROBufferList::Allocator allocator = allocatorForTesting.load(std::memory_order_relaxed)) {
        return allocator(1, size);
    }
    return std::calloc(1, size);
}

void* allocateBuffer(std::uint64_t capacity) {
    if (KROBufferList::Allocator allocator = allocatorForTesting.load(std::memory_order_relaxed)) {
        return allocator(1, capacity);
    }
    const std::uint64_t rounded =
        (capacity + kBufferAlignment - 1) / kBufferAlignment * kBufferAlignment;
    if (rounded < capacity) {
        return nullptr;
    }
    void* block = std::aligned_alloc(kBufferAlignment, rounded);
    if (block) {
        std::memset(block, 0, capacity);
    }
    return block;
}

bool fail(KROErrorPtr* error, std::int64_t code, const char* actionKey) {
    return KROFail<KROBufferListError>(error, code, actionKey);
}

// start + length <= limit, without overflow.
bool fitsWithin(std::uint64_t start, std::uint64_t length, std::uint64_t limit) {
    return length <= limit && start <= limit - length;
}

} // namespace

KROBufferList::~KROBufferList() {
    freeOwnedMemory();
}

void KROBufferList::setAllocatorForTesting(Allocator allocator) {
    allocatorForTesting.store(allocator, std::memory_order_relaxed);
}

void KROBufferList::freeOwnedMemory() {
    if (bufferList_ && freeWhenDone_) {
        for (std::uint32_t index = 0; index < bufferList_->mNumberBuffers; ++index) {
            std::free(KROAudioBufferAt(*bufferList_, index).mData);
        }
        std::free(bufferList_);
    }
    bufferList_ = nullptr;
    capacity_ = 0;
    freeWhenDone_ = false;
}

bool KROBufferList::initWithNumberOfBuffers(std::uint32_t count, std::uint64_t capacity,
                                            KROErrorPtr* error) {
    freeOwnedMemory();
    if (count == 0) {
        return fail(error, 1, kActionCreate);
    }
    if (capacity == 0) {
        return fail(error, 2, kActionCreate);
    }
    return allocateBuffers(count, capacity, error);
}

bool KROBufferList::allocateBuffers(std::uint32_t count, std::uint64_t capacity,
                                    KROErrorPtr* error) {
    auto* list = static_cast<AudioBufferList*>(allocateRecord(KROAudioBufferListByteSize(count)));
    if (!list) {
        return fail(error, 3, kActionCreate);
    }
    list->mNumberBuffers = count;
    for (std::uint32_t index = 0; index < count; ++index) {
        KROAudioBufferAt(*list, index).mData = nullptr;
    }
    for (std::uint32_t index = 0; index < count; ++index) {
        AudioBuffer& buffer = KROAudioBufferAt(*list, index);
        buffer.mNumberChannels = 1;
        buffer.mDataByteSize = static_cast<std::uint32_t>(capacity);
        buffer.mData = allocateBuffer(capacity);
        if (!buffer.mData) {
            bufferList_ = list;
            freeWhenDone_ = true;
            freeOwnedMemory();
            return fail(error, 4, kActionCreate);
        }
    }
    bufferList_ = list;
    capacity_ = capacity;
    freeWhenDone_ = true;
    return true;
}

bool KROBufferList::initWithBufferList(AudioBufferList* list, KROErrorPtr* error) {
    freeOwnedMemory();
    if (!list) {
        return fail(error, 5, kActionCreate);
    }
    if (list->mNumberBuffers == 0) {
        return fail(error, 6, kActionCreate);
    }
    const std::uint32_t byteSize = KROAudioBufferAt(*list, 0).mDataByteSize;
    for (std::uint32_t index = 0; index < list->mNumberBuffers; ++index) {
        const AudioBuffer& buffer = KROAudioBufferAt(*list, index);
        if (buffer.mNumberChannels != 1) {
            return fail(error, 7, kActionCreate);
        }
        if (buffer.mDataByteSize != byteSize) {
            return fail(error, 8, kActionCreate);
        }
        if (!buffer.mData) {
            return fail(error, 9, kActionCreate);
        }
    }
    if (byteSize == 0) {
        return fail(error, 10, kActionCreate);
    }
    bufferList_ = list;
    capacity_ = byteSize;
    freeWhenDone_ = false;
    return true;
}

std::shared_ptr<KROBufferList> KROBufferList::bufferListWithNumberOfBuffers(std::uint32_t count,
                                                                            std::uint64_t capacity,
                                                                            KROErrorPtr* error) {
    auto list = std::make_shared<KROBufferList>();
    return list->initWithNumberOfBuffers(count, capacity, error) ? list : nullptr;
}

std::shared_ptr<KROBufferList> KROBufferList::bufferListWithBufferList(AudioBufferList* list,
                                                                       KROErrorPtr* error) {
    auto bufferList = std::make_shared<KROBufferList>();
    return bufferList->initWithBufferList(list, error) ? bufferList : nullptr;
}

std::shared_ptr<KROBufferList> KROBufferList::copy() const {
    auto copy = bufferListWithNumberOfBuffers(numberOfBuffers(), capacity_);
    // The copy keeps length = capacity, not the receiver's length; only the
    // receiver's length is copied and the rest stays zero.
    if (!copy || !copy->copyRange(NSMakeLongRange(0, length()), *this, 0)) {
        return nullptr;
    }
    copy->range_ = range_;
    return copy;
}

std::string KROBufferList::description() const {
    return KROStringWithFormatArguments("KROBufferList: %d buffers, length = %d, maxLength = %lu",
                                        static_cast<std::int32_t>(numberOfBuffers()),
                                        static_cast<std::int32_t>(length()), capacity_);
}

void KROBufferList::clear() {
    for (std::uint32_t index = 0; index < numberOfBuffers(); ++index) {
        clearBufferAtIndex(index);
    }
}

void KROBufferList::clearRange(NSLongRange range) {
    for (std::uint32_t index = 0; index < numberOfBuffers(); ++index) {
        clearRangeOfBufferAtIndex(range, index);
    }
}

void KROBufferList::clearBufferAtIndex(std::uint32_t index) {
    if (void* bytes = bufferAtIndex(index)) {
        kro_clear_bytes(bytes, length());
    }
}

void KROBufferList::clearRangeOfBufferAtIndex(NSLongRange range, std::uint32_t index) {
    auto* bytes = static_cast<std::uint8_t*>(bufferAtIndex(index));
    const NSLongRange inside = NSIntersectionLongRange(range, NSMakeLongRange(0, length()));
    if (bytes && inside.length != 0) {
        kro_clear_bytes(bytes + inside.location, inside.length);
    }
}

bool KROBufferList::copyBufferList(const KROBufferList& source, KROErrorPtr* error) {
    // The copy-range key for the count and the copy-buffer key for the length
    // are swapped on purpose: hosts match these messages and rely on them.
    if (numberOfBuffers() != source.numberOfBuffers()) {
        return fail(error, 11, kActionCopyRange);
    }
    if (length() != source.length()) {
        return fail(error, 12, kActionCopyBuffer);
    }
    const NSLongRange whole = NSMakeLongRange(0, length());
    for (std::uint32_t index = 0; index < numberOfBuffers(); ++index) {
        if (!copyRange(whole, index, source, 0, index, error)) {
            return false;
        }
    }
    return true;
}

bool KROBufferList::copyRange(NSLongRange range, const KROBufferList& source,
                              std::uint64_t position, KROErrorPtr* error) {
    if (numberOfBuffers() != source.numberOfBuffers()) {
        return fail(error, 11, kActionCopyRange);
    }
    for (std::uint32_t index = 0; index < numberOfBuffers(); ++index) {
        if (!copyRange(range, index, source, position, index, error)) {
            return false;
        }
    }
    return true;
}

bool KROBufferList::copyBufferAtIndex(std::uint32_t sourceIndex, const KROBufferList& source,
                                      std::uint32_t destinationIndex, KROErrorPtr* error) {
    if (length() != source.length()) {
        return fail(error, 12, kActionCopyBuffer);
    }
    return copyRange(NSMakeLongRange(0, length()), sourceIndex, source, 0, destinationIndex, error);
}

bool KROBufferList::copyRange(NSLongRange range, std::uint32_t sourceIndex,
                              const KROBufferList& source, std::uint64_t position,
                              std::uint32_t destinationIndex, KROErrorPtr* error) {
    if (destinationIndex >= numberOfBuffers()) {
        return fail(error, 13, kActionCopyBuffers);
    }
    if (sourceIndex >= source.numberOfBuffers()) {
        return fail(error, 14, kActionCopyBuffers);
    }
    if (!fitsWithin(position, range.length, length())) {
        return fail(error, 15, kActionCopyBuffers);
    }
    if (!fitsWithin(range.location, range.length, source.length())) {
        return fail(error, 16, kActionCopyBuffers);
    }
    const auto* from = static_cast<const std::uint8_t*>(source.bufferAtIndex(sourceIndex));
    if (!from) {
        return fail(error, 17, kActionCopyBuffers);
    }
    auto* to = static_cast<std::uint8_t*>(bufferAtIndex(destinationIndex));
    kro_copy_bytes(to + position, from + range.location, range.length);
    return true;
}

std::uint32_t KROBufferList::numberOfBuffers() const {
    return bufferList_ ? bufferList_->mNumberBuffers : 0;
}

void* KROBufferList::bufferAtIndex(std::uint32_t index) {
    return index < numberOfBuffers() ? KROAudioBufferAt(*bufferList_, index).mData : nullptr;
}

const void* KROBufferList::bufferAtIndex(std::uint32_t index) const {
    return index < numberOfBuffers() ? KROAudioBufferAt(*bufferList_, index).mData : nullptr;
}

std::uint64_t KROBufferList::length() const {
    return bufferList_ ? KROAudioBufferAt(*bufferList_, 0).mDataByteSize : 0;
}

bool KROBufferList::setLength(std::uint64_t length, KROErrorPtr* error) {
    if (length > capacity_) {
        // Shares code 17 with the primitive copy on purpose: hosts test for it.
        return fail(error, 17, kActionSetLength);
    }
    for (std::uint32_t index = 0; index < numberOfBuffers(); ++index) {
        KROAudioBufferAt(*bufferList_, index).mDataByteSize = static_cast<std::uint32_t>(length);
    }
    return true;
}
