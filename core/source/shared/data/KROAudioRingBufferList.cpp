#include "KROAudioRingBufferList.h"

#include <algorithm>

std::shared_ptr<KROAudioRingBufferList>
KROAudioRingBufferList::bufferListWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                                               KROErrorPtr* error) {
    auto ring = std::make_shared<KROAudioRingBufferList>();
    return ring->initWithChannels(channels, frameCapacity, error) ? ring : nullptr;
}

template <typename Transfer>
void KROAudioRingBufferList::forEachPiece(std::uint64_t otherFrames, std::int64_t frame,
                                          Transfer transfer) const {
    const std::uint64_t ringFrames = frames();
    if (otherFrames > ringFrames || ringFrames == 0) {
        return;
    }
    // The true modulo, as "add the ring length while negative, then reduce".
    const auto signedRingFrames = static_cast<std::int64_t>(ringFrames);
    std::int64_t start = frame % signedRingFrames;
    if (start < 0) {
        start += signedRingFrames;
    }
    auto position = static_cast<std::uint64_t>(start);
    std::uint64_t done = 0;
    do {
        const std::uint64_t count = std::min(otherFrames - done, ringFrames - position);
        transfer(position, done, count);
        position += count;
        if (position == ringFrames) {
            position = 0;
        }
        done += count;
    } while (done < otherFrames);
}

void KROAudioRingBufferList::storeBuffer(const KROAudioBufferList& buffer, std::int64_t frame) {
    if (buffer.numberOfChannels() != numberOfChannels()) {
        return;
    }
    forEachPiece(buffer.frames(), frame,
                 [&](std::uint64_t position, std::uint64_t done, std::uint64_t count) {
                     copyFrames(NSMakeLongRange(done, count), buffer, position);
                 });
}

void KROAudioRingBufferList::storeChannel(std::uint32_t sourceChannel,
                                          const KROAudioBufferList& buffer,
                                          std::uint32_t ringChannel, std::int64_t frame) {
    forEachPiece(buffer.frames(), frame,
                 [&](std::uint64_t position, std::uint64_t done, std::uint64_t count) {
                     copyFrames(NSMakeLongRange(done, count), sourceChannel, buffer, position,
                                ringChannel);
                 });
}

void KROAudioRingBufferList::retrieveBuffer(KROAudioBufferList& buffer, std::int64_t frame) const {
    if (buffer.numberOfChannels() != numberOfChannels()) {
        return;
    }
    forEachPiece(buffer.frames(), frame,
                 [&](std::uint64_t position, std::uint64_t done, std::uint64_t count) {
                     buffer.copyFrames(NSMakeLongRange(position, count), *this, done);
                 });
}

void KROAudioRingBufferList::retrieveChannel(std::uint32_t ringChannel,
                                             std::uint32_t destinationChannel,
                                             KROAudioBufferList& buffer, std::int64_t frame) const {
    forEachPiece(buffer.frames(), frame,
                 [&](std::uint64_t position, std::uint64_t done, std::uint64_t count) {
                     buffer.copyFrames(NSMakeLongRange(position, count), ringChannel, *this, done,
                                       destinationChannel);
                 });
}
