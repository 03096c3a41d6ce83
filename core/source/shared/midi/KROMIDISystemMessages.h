// The system common and real-time messages: time code quarter frames, song
// position and selection, tune request, and the one-byte clock and transport
// messages that may arrive between any two bytes of other messages.
#pragma once

#include <string>

#include "KROMIDIMessage.h"

class KROMIDIMTCQuarterFrameMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIMTCQuarterFrameMessage)

    // The piece number in bits 6-4 and its four bits of time in bits 3-0.
    std::uint8_t timecode() const { return byteAt(1); }
    void setTimecode(std::uint8_t timecode) { setByteAt(1, sevenBits(timecode)); }

    // "%@  %-3d" with the log name and the time code byte.
    std::string logDescription() const override;
};

// Sixteenth notes since the start of the song, 14 bits, lowest 7 first.
class KROMIDISongPositionMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISongPositionMessage)

    std::uint16_t beat() const { return fourteenBitsAt(1); }
    void setBeat(std::uint16_t beat) { setFourteenBitsAt(1, beat); }

    std::string logDescription() const override;
};

class KROMIDISongSelectMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDISongSelectMessage)

    std::uint8_t songNumber() const { return byteAt(1); }
    void setSongNumber(std::uint8_t songNumber) { setByteAt(1, sevenBits(songNumber)); }

    std::string logDescription() const override;
};

class KROMIDITuneRequestMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDITuneRequestMessage)
};

class KROMIDIClockMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIClockMessage)
};

class KROMIDITickMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDITickMessage)
};

class KROMIDIStartMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIStartMessage)
};

class KROMIDIContinueMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIContinueMessage)
};

class KROMIDIStopMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIStopMessage)
};

class KROMIDIActiveSenseMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIActiveSenseMessage)
};

class KROMIDIResetMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIResetMessage)
};
