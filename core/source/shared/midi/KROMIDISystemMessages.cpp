#include "KROMIDISystemMessages.h"

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

// clang-format off
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIMTCQuarterFrameMessage, KROMIDIMessage, 2, 0xF1, "MTCFrame", "KROMIDIMTCQuarterFrameMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISongPositionMessage, KROMIDIMessage, 3, 0xF2, "SongPos ", "KROMIDISongPositionMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDISongSelectMessage, KROMIDIMessage, 2, 0xF3, "SongSel ", "KROMIDISongSelectMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDITuneRequestMessage, KROMIDIMessage, 1, 0xF6, "TuneReq ", "KROMIDITuneRequestMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIClockMessage, KROMIDIMessage, 1, 0xF8, "Clock   ", "KROMIDIClockMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDITickMessage, KROMIDIMessage, 1, 0xF9, "Tick    ", "KROMIDITickMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIStartMessage, KROMIDIMessage, 1, 0xFA, "Start   ", "KROMIDIStartMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIContinueMessage, KROMIDIMessage, 1, 0xFB, "Continue", "KROMIDIContinueMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIStopMessage, KROMIDIMessage, 1, 0xFC, "Stop    ", "KROMIDIStopMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIActiveSenseMessage, KROMIDIMessage, 1, 0xFE, "ActSense", "KROMIDIActiveSenseMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIResetMessage, KROMIDIMessage, 1, 0xFF, "Reset   ", "KROMIDIResetMessage_name")
// clang-format on

namespace {

std::string withField(const KROMIDIMessage& message, int field) {
    return KROStringWithFormatArguments("%@  %-3d", message.classOfMessage().logName, field);
}

} // namespace

std::string KROMIDIMTCQuarterFrameMessage::logDescription() const {
    return withField(*this, timecode());
}

std::string KROMIDISongPositionMessage::logDescription() const {
    return withField(*this, beat());
}

std::string KROMIDISongSelectMessage::logDescription() const {
    return withField(*this, songNumber());
}
