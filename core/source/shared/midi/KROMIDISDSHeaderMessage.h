// The header of a sample dump, 21 bytes: which sample, its bit depth, its
// sample period, its length and loop in words. Numbers of more than 7 bits
// travel as groups of 7 bits, lowest group first. A word is the number of
// 16-bit units that depth-bit samples fill, which is how the loop points of
// a dump are counted.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROMIDIUniversalMessage.h"

class KROAudioLabel;

class KROMIDISDSHeaderMessage : public KROMIDIUniversalMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSHeaderMessage)

    // Non-real-time, sub-ID 1, no loop (0x7F) and the end of exclusive.
    bool init() override;

    // count bytes, each the next 7 bits of value, lowest first.
    static void getPackedBytes(std::uint8_t* bytes, std::size_t count, std::uint32_t value);
    // The 7 low bits of each byte, the first byte lowest.
    static std::uint32_t unpackBytes(const std::uint8_t* bytes, std::size_t count);

    // ceil(depth x frame / 16) in 32-bit float, at most 0x1FFFFF, the most
    // three groups hold; 0 with no depth.
    std::uint32_t wordForFrame(std::uint32_t frame) const;
    // word x 16 / depth in 32-bit integers; 0 with no depth.
    std::uint32_t frameForWord(std::uint32_t word) const;

    std::uint32_t sampleNumber() const { return packedAt(4, 2); }
    void setSampleNumber(std::uint32_t number) { setPackedAt(4, 2, number); }
    std::uint8_t depth() const { return byteAt(6); }
    void setDepth(std::uint8_t depth) { setByteAt(6, sevenBits(depth)); }
    // The length in words, as the header counts it.
    std::uint32_t frames() const { return packedAt(10, 3); }
    void setFrames(std::uint32_t frames) { setPackedAt(10, 3, frames); }
    // Samples per second from the period in nanoseconds, in whole numbers
    // both ways: 44100 stores 22675 ns and reads back 44101. 0 for a period
    // or rate of 0.
    std::uint32_t rate() const;
    void setRate(std::uint32_t rate);

    // A "loop" label in seconds with "loopType" "forward" or "backward";
    // none when the header says no loop (0x7F).
    std::shared_ptr<KROAudioLabel> loop() const;
    // With none, the loop spans the whole length and the loop type stays.
    void setLoop(const KROAudioLabel* loop);

    // "sampleNumber: %d, depth: %d, rate: %d, frames: %d"
    std::string description() const override;

private:
    std::uint32_t packedAt(std::size_t index, std::size_t count) const;
    void setPackedAt(std::size_t index, std::size_t count, std::uint32_t value);
};
