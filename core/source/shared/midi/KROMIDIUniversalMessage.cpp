#include "KROMIDIUniversalMessage.h"

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

// clang-format off
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIUniversalMessage, KROMIDIMessage, kVariableLength, 0xF0, "Universl", "KROMIDIUniversalMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIMTCFullFrameMessage, KROMIDIUniversalMessage, 10, 0xF0, "MTCFulFr", "KROMIDIMTCFullFrameMessage_name")
// clang-format on

std::string KROMIDIUniversalMessage::logDescription() const {
    return KROStringWithFormatArguments("%@  %-3d  %-3d", classOfMessage().logName, byteAt(1),
                                        byteAt(2));
}

bool KROMIDIMTCFullFrameMessage::initWithBytes(const std::uint8_t* bytes, std::size_t length,
                                               double timestamp) {
    if (!KROMIDIUniversalMessage::initWithBytes(bytes, length, timestamp))
        return false;
    setIsRealtime(true);
    setSysexID(0x7F);
    setByteAt(3, 0x01);
    setByteAt(4, 0x01);
    setByteAt(9, 0xF7);
    return true;
}

void KROMIDIMTCFullFrameMessage::setType(std::uint8_t type) {
    setByteAt(5, std::uint8_t(limited(type, 3) << 5 | hours()));
}

std::int64_t KROMIDIMTCFullFrameMessage::rate() const {
    return type() < 4 ? type() : kVariableLength;
}

void KROMIDIMTCFullFrameMessage::setRate(std::int64_t rate) {
    if (rate >= 0 && rate < 4)
        setType(std::uint8_t(rate));
}

void KROMIDIMTCFullFrameMessage::setHours(std::uint8_t hours) {
    setByteAt(5, std::uint8_t((byteAt(5) & 0xE0) | limited(hours, 23)));
}

std::string KROMIDIMTCFullFrameMessage::logDescription() const {
    return KROStringWithFormatArguments("%@  %02d:%02d:%02d:%02d", classOfMessage().logName,
                                        hours(), minutes(), seconds(), frames());
}
