// A system exclusive message: 0xF0, a manufacturer ID of one byte, or of
// three when the first is 0, the manufacturer's data and 0xF7.
#pragma once

#include <cstdint>
#include <string>

#include "KROMIDIMessage.h"

class KROMIDISysexMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISysexMessage)

    // Byte 1, or byte 3 + byte 2 x 128 when byte 1 is 0; 0 when the packet
    // is too short to hold the ID (3 bytes, or 4 for a three-byte ID).
    std::uint16_t manufacturerID() const;
    // The bytes between the ID and the end of exclusive: length - 3, or
    // length - 5 for a three-byte ID; never below 0.
    std::int64_t sysexDataLength() const;
    // Byte 2, or byte 4 for a three-byte ID; null when the packet ends before.
    const std::uint8_t* sysexData() const;

    // "%@  (%ld bytes)" with the log name and sysexDataLength.
    std::string logDescription() const override;

private:
    bool hasThreeByteID() const { return holdsBytes(2) && byteAt(1) == 0; }
};
