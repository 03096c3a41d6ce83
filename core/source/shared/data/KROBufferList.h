// Buffer lists. A KROBufferList is a list of equally long byte buffers with one
// fixed capacity, laid out as the platform's AudioBufferList record so that the
// same memory can be handed to a callback or a converter without copying.
// Single-owner work buffer: no lock, one thread at a time.
//
// Operations are named by their first keyword, overloads where the types tell
// them apart. One name joins its keywords because C++ cannot tell it apart from
// KROAudioBufferList's clearRange:ofChannel::
//   clearRange:ofBufferAtIndex:  ->  clearRangeOfBufferAtIndex(range, index)
// In every copy the receiver is the destination and the argument the source.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioBufferListRecord.h"
#include "KROError.h"
#include "KRORange.h"

class KROBufferList : public KROObject {
    KRO_DECLARE_CLASS(KROBufferList)

public:
    // Use initWithNumberOfBuffers or initWithBufferList before anything else.
    KROBufferList() = default;
    KROBufferList(const KROBufferList&) = delete;
    KROBufferList& operator=(const KROBufferList&) = delete;
    ~KROBufferList() override;

    // An owned list of count buffers of capacity bytes each, all zero, with
    // length equal to capacity.
    bool initWithNumberOfBuffers(std::uint32_t count, std::uint64_t capacity,
                                 KROErrorPtr* error = nullptr);
    // Wraps a foreign record without copying or owning it.
    bool initWithBufferList(AudioBufferList* list, KROErrorPtr* error = nullptr);

    static std::shared_ptr<KROBufferList>
    bufferListWithNumberOfBuffers(std::uint32_t count, std::uint64_t capacity,
                                  KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROBufferList> bufferListWithBufferList(AudioBufferList* list,
                                                                   KROErrorPtr* error = nullptr);

    // Always a plain KROBufferList, whatever the receiver's class, so a copy of
    // an audio list has no frame operations; its length is its capacity, the
    // receiver's length copied in. None when the copy fails.
    std::shared_ptr<KROBufferList> copy() const;

    std::string description() const override;

    void clear();
    // On this class the range is in bytes; KROAudioBufferList reads it in frames.
    virtual void clearRange(NSLongRange range);
    void clearBufferAtIndex(std::uint32_t index);
    // The range is intersected with the current length; the index is not checked.
    void clearRangeOfBufferAtIndex(NSLongRange range, std::uint32_t index);

    // Same buffer count and same length required.
    bool copyBufferList(const KROBufferList& source, KROErrorPtr* error = nullptr);
    // The same byte range of every buffer; same buffer count required. Stops at
    // the first failure, leaving the buffers done so far changed.
    bool copyRange(NSLongRange range, const KROBufferList& source, std::uint64_t position,
                   KROErrorPtr* error = nullptr);
    // One whole buffer; same length required.
    bool copyBufferAtIndex(std::uint32_t sourceIndex, const KROBufferList& source,
                           std::uint32_t destinationIndex, KROErrorPtr* error = nullptr);
    // The primitive copy; all other copies end here. Both limits are the
    // current lengths, not the capacities; overlap inside one buffer is not
    // handled.
    bool copyRange(NSLongRange range, std::uint32_t sourceIndex, const KROBufferList& source,
                   std::uint64_t position, std::uint32_t destinationIndex,
                   KROErrorPtr* error = nullptr);

    std::uint32_t numberOfBuffers() const;
    // mData of that buffer; none at or past the count.
    void* bufferAtIndex(std::uint32_t index);
    const void* bufferAtIndex(std::uint32_t index) const;

    // Buffer 0's current byte length.
    std::uint64_t length() const;
    // The length is stored in 32 bits in every buffer; above the capacity fails
    // and changes nothing.
    bool setLength(std::uint64_t length, KROErrorPtr* error = nullptr);

    AudioBufferList* audioBufferList() { return bufferList_; }
    const AudioBufferList* audioBufferList() const { return bufferList_; }
    std::uint64_t capacity() const { return capacity_; }
    NSLongRange range() const { return range_; }
    void setRange(NSLongRange range) { range_ = range; }

    // Replaces the allocation of owned memory (the record and each buffer,
    // zeroed, calloc's contract) so that a test can fail it and reach codes 3
    // and 4. Null restores the library's own allocation.
    using Allocator = void* (*)(std::size_t count, std::size_t size);
    static void setAllocatorForTesting(Allocator allocator);

private:
    void freeOwnedMemory();
    bool allocateBuffers(std::uint32_t count, std::uint64_t capacity, KROErrorPtr* error);

    AudioBufferList* bufferList_ = nullptr;
    std::uint64_t capacity_ = 0;
    bool freeWhenDone_ = false;
    NSLongRange range_;
};
