#include "KROMIDISDSMessage.h"

#include <cstring>

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

// clang-format off
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSMessage, KROMIDIUniversalMessage, kVariableLength, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSDataMessage, KROMIDISDSMessage, 127, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSWaitMessage, KROMIDISDSMessage, kVariableLength, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSCancelMessage, KROMIDISDSMessage, kVariableLength, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSErrorMessage, KROMIDISDSMessage, kVariableLength, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISDSSuccessMessage, KROMIDISDSMessage, kVariableLength, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
// clang-format on

namespace {

constexpr std::size_t kChecksumByte = 125;

} // namespace

std::string KROMIDISDSMessage::description() const {
    return KROStringWithFormatArguments("SDS packet number %d", packetNumber());
}

bool KROMIDISDSDataMessage::init() {
    if (!KROMIDISDSMessage::init())
        return false;
    setIsRealtime(false);
    setByteAt(3, 0x02);
    setByteAt(126, 0xF7);
    updateChecksum();
    return true;
}

void KROMIDISDSDataMessage::setData(const std::uint8_t* data) {
    if (!data || !holdsBytes(5 + kDataLength))
        return;
    std::memcpy(packet()->data.get() + 5, data, kDataLength);
    updateChecksum();
}

void KROMIDISDSDataMessage::setSysexID(std::uint8_t sysexID) {
    KROMIDISDSMessage::setSysexID(sysexID);
    updateChecksum();
}

void KROMIDISDSDataMessage::setPacketNumber(std::uint8_t number) {
    KROMIDISDSMessage::setPacketNumber(number);
    updateChecksum();
}

std::uint8_t KROMIDISDSDataMessage::checksum() const {
    std::uint8_t sum = 0;
    for (std::size_t i = 1; i < kChecksumByte; ++i)
        sum ^= bytes()[i];
    return sum;
}

void KROMIDISDSDataMessage::updateChecksum() {
    if (holdsBytes(kChecksumByte + 1))
        setByteAt(kChecksumByte, checksum());
}

bool KROMIDISDSDataMessage::confirmChecksum() const {
    return holdsBytes(kChecksumByte + 1) && checksum() == byteAt(kChecksumByte);
}
