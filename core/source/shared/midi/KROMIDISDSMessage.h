// The packets of a sample dump after its header: data packets of 120 bytes
// with a checksum, and the handshakes (wait, cancel, error, success) that the
// receiver answers each packet with. All carry a packet number in byte 4.
// Handshakes have no fixed length of their own: they are parsed from the
// bytes received, so +message makes none.
#pragma once

#include <cstdint>
#include <string>

#include "KROMIDIUniversalMessage.h"

class KROMIDISDSMessage : public KROMIDIUniversalMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSMessage)

    std::uint8_t packetNumber() const { return byteAt(4); }
    virtual void setPacketNumber(std::uint8_t number) { setByteAt(4, sevenBits(number)); }

    // "SDS packet number %d"
    std::string description() const override;
};

// 127 bytes: the header of a universal message, the packet number, 120 data
// bytes, the checksum and the end of exclusive. The checksum is the
// exclusive or of bytes 1 to 124; every setter keeps it current.
class KROMIDISDSDataMessage : public KROMIDISDSMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSDataMessage)

    static constexpr std::size_t kDataLength = 120;

    bool init() override;

    // The 120 data bytes from byte 5; null for a packet too short to hold them.
    const std::uint8_t* data() const { return holdsBytes(5 + kDataLength) ? bytes() + 5 : nullptr; }
    // Copies 120 bytes and updates the checksum.
    void setData(const std::uint8_t* data);
    void setSysexID(std::uint8_t sysexID) override;
    void setPacketNumber(std::uint8_t number) override;

    void updateChecksum();
    // True when byte 125 is the exclusive or of bytes 1 to 124.
    bool confirmChecksum() const;

private:
    std::uint8_t checksum() const;
};

class KROMIDISDSWaitMessage : public KROMIDISDSMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSWaitMessage)
};

class KROMIDISDSCancelMessage : public KROMIDISDSMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSCancelMessage)
};

class KROMIDISDSErrorMessage : public KROMIDISDSMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSErrorMessage)
};

class KROMIDISDSSuccessMessage : public KROMIDISDSMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISDSSuccessMessage)
};
