// Universal system exclusive messages: byte 1 says real time (0x7F) or not
// (0x7E), byte 2 is the device number (the sysex ID) and byte 3 the sub-ID.
// The time code full frame is the real-time one with sub-IDs 1 and 1.
#pragma once

#include <cstdint>
#include <string>

#include "KROMIDIMessage.h"

class KROMIDIUniversalMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIUniversalMessage)

    bool isRealtime() const { return byteAt(1) == 0x7F; }
    void setIsRealtime(bool realtime) { setByteAt(1, realtime ? 0x7F : 0x7E); }
    std::uint8_t sysexID() const { return byteAt(2); }
    virtual void setSysexID(std::uint8_t sysexID) { setByteAt(2, sevenBits(sysexID)); }

    // "%@  %-3d  %-3d" with the log name, byte 1 and byte 2.
    std::string logDescription() const override;
};

// A full time code position, 10 bytes. Byte 5 holds the rate type in its top
// three bits and the hours in the low five.
class KROMIDIMTCFullFrameMessage : public KROMIDIUniversalMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIMTCFullFrameMessage)

    // The constant bytes (real time, sysex ID 0x7F, sub-IDs 1 and 1, the end
    // of exclusive) are written over given bytes too, so any 10 bytes make a
    // well-formed full frame.
    bool initWithBytes(const std::uint8_t* bytes, std::size_t length, double timestamp) override;

    // 0: 24, 1: 25, 2: 30 drop, 3: 30 frames per second; the setter limits to 3.
    std::uint8_t type() const { return byteAt(5) >> 5; }
    void setType(std::uint8_t type);
    // type while it names a rate (below 4), else kVariableLength as "none".
    std::int64_t rate() const;
    // Ignored from 4 on.
    void setRate(std::int64_t rate);
    std::uint8_t hours() const { return byteAt(5) & 0x1F; }
    void setHours(std::uint8_t hours);
    std::uint8_t minutes() const { return byteAt(6); }
    void setMinutes(std::uint8_t minutes) { setByteAt(6, limited(minutes, 59)); }
    std::uint8_t seconds() const { return byteAt(7); }
    void setSeconds(std::uint8_t seconds) { setByteAt(7, limited(seconds, 59)); }
    std::uint8_t frames() const { return byteAt(8); }
    void setFrames(std::uint8_t frames) { setByteAt(8, limited(frames, 29)); }

    // "%@  %02d:%02d:%02d:%02d" with the log name, hours, minutes, seconds, frames.
    std::string logDescription() const override;

private:
    static std::uint8_t limited(std::uint8_t value, std::uint8_t most) {
        return value > most ? most : value;
    }
};
