#include "KROMIDISysexMessage.h"

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISysexMessage, KROMIDIMessage, kVariableLength, 0xF0,
                                  "Sysex   ", "KROMIDISystemExclusiveMessage_name")

std::uint16_t KROMIDISysexMessage::manufacturerID() const {
    if (!holdsBytes(3))
        return 0;
    if (!hasThreeByteID())
        return byteAt(1);
    if (!holdsBytes(4))
        return 0;
    return std::uint16_t(byteAt(3) + byteAt(2) * 128);
}

std::int64_t KROMIDISysexMessage::sysexDataLength() const {
    const std::int64_t count = std::int64_t(length()) - (hasThreeByteID() ? 5 : 3);
    return count > 0 ? count : 0;
}

const std::uint8_t* KROMIDISysexMessage::sysexData() const {
    const std::size_t start = hasThreeByteID() ? 4 : 2;
    return holdsBytes(start + 1) ? bytes() + start : nullptr;
}

std::string KROMIDISysexMessage::logDescription() const {
    return KROStringWithFormatArguments("%@  (%ld bytes)", classOfMessage().logName,
                                        sysexDataLength());
}
