// A KROAudioBufferList read as a circular store addressed by an absolute frame
// number. The ring keeps no cursor: the caller carries the frame. The ring's
// length is its current frames. None of the four transfers allocates, locks or
// reports anything; a transfer the ring cannot take is silently skipped.
#pragma once

#include <cstdint>
#include <memory>

#include "KROAudioBufferList.h"

class KROAudioRingBufferList : public KROAudioBufferList {
    KRO_DECLARE_CLASS(KROAudioRingBufferList)

public:
    static std::shared_ptr<KROAudioRingBufferList>
    bufferListWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                           KROErrorPtr* error = nullptr);

    // Writes every channel of buffer at frame; the channel counts must match.
    void storeBuffer(const KROAudioBufferList& buffer, std::int64_t frame);
    // Writes sourceChannel of buffer to ringChannel at frame.
    void storeChannel(std::uint32_t sourceChannel, const KROAudioBufferList& buffer,
                      std::uint32_t ringChannel, std::int64_t frame);
    // Fills every channel of buffer from frame; the channel counts must match.
    void retrieveBuffer(KROAudioBufferList& buffer, std::int64_t frame) const;
    // Fills destinationChannel of buffer from ringChannel at frame.
    void retrieveChannel(std::uint32_t ringChannel, std::uint32_t destinationChannel,
                         KROAudioBufferList& buffer, std::int64_t frame) const;

private:
    // Calls transfer(ring position, other position, count) for the one or two
    // pieces that cover otherFrames frames from frame on.
    template <typename Transfer>
    void forEachPiece(std::uint64_t otherFrames, std::int64_t frame, Transfer transfer) const;
};
