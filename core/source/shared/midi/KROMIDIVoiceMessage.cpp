#include "KROMIDIVoiceMessage.h"

#include <algorithm>
#include <cmath>

#include "KROClassRegistry.h"
#include "KROLocalizedString.h"
#include "KROStringWithFormat.h"

// clang-format off
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIVoiceMessage, KROMIDIMessage, kVariableLength, 0, "", "")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDINoteMessage, KROMIDIVoiceMessage, 3, 0, "", "")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDINoteOnMessage, KROMIDINoteMessage, 3, 0x90, "Note On ", "KROMIDINoteOnMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDINoteOffMessage, KROMIDINoteMessage, 3, 0x80, "Note Off", "KROMIDINoteOffMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIAftertouchMessage, KROMIDINoteMessage, 3, 0xA0, "Aftrtch ", "KROMIDIAftertouchMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIControllerMessage, KROMIDIVoiceMessage, 3, 0xB0, "Control ", "KROMIDIControllerMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIProgramChangeMessage, KROMIDIVoiceMessage, 2, 0xC0, "Pgm Chng", "KROMIDIProgramChangeMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIChannelPressureMessage, KROMIDIVoiceMessage, 2, 0xD0, "Chnl Prs", "KROMIDIChannelPressureMessage_name")
KRO_MIDI_MESSAGE_CLASS_DEFINITION(KROMIDIPitchWheelMessage, KROMIDIVoiceMessage, 3, 0xE0, "PitchWhl", "KROMIDIPitchWheelMessage_name")
// clang-format on

// ---- Voice

std::uint8_t KROMIDIVoiceMessage::channel() const {
    return holdsBytes(1) ? std::uint8_t((status() & 0x0F) + 1) : 0;
}

void KROMIDIVoiceMessage::setChannel(std::uint8_t channel) {
    setByteAt(0, std::uint8_t((status() & 0xF0) + channel - 1));
}

std::string KROMIDIVoiceMessage::logDescription() const {
    return KROStringWithFormatArguments("Ch %-2d  %@", channel(), classOfMessage().logName);
}

std::string KROMIDIVoiceMessage::logDescriptionWithField(int field) const {
    return KROStringWithFormatArguments("Ch %-2d  %@  %-3d", channel(), classOfMessage().logName,
                                        field);
}

// ---- Notes

std::string KROMIDINoteMessage::description() const {
    return KROStringWithFormatArguments("%@: note %d, velocity %d", KROMIDIMessage::description(),
                                        note(), velocity());
}

std::string KROMIDINoteMessage::logDescription() const {
    return KROStringWithFormatArguments("Ch %-2d  %@  %-3d  %-3d", channel(),
                                        classOfMessage().logName, note(), velocity());
}

std::string KROMIDIAftertouchMessage::logDescription() const {
    return logDescriptionWithField(pressure());
}

// ---- Controllers

void KROMIDIControllerMessage::setFloatValue(float value) {
    const float stored = std::clamp(std::round(value * 127.0f), 0.0f, 127.0f);
    // NaN compares false on both sides of the clamp and would pass through.
    setValue(std::isnan(stored) ? 0 : std::uint8_t(stored));
}

const std::vector<std::string>& KROMIDIControllerMessage::controllerNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> names;
        for (long number = 0; number < 128; ++number)
            names.push_back(KROLocalizedString(
                KROStringWithFormatArguments("KROMIDIController_name%ld", number)));
        return names;
    }();
    return names;
}

std::string KROMIDIControllerMessage::description() const {
    return KROStringWithFormatArguments("%@: number %d, value %d", KROMIDIMessage::description(),
                                        number(), value());
}

std::string KROMIDIControllerMessage::logDescription() const {
    return KROStringWithFormatArguments("Ch %-2d  %@  %-3d  %-3d", channel(),
                                        classOfMessage().logName, number(), value());
}

// ---- Programs and pressure

std::string KROMIDIProgramChangeMessage::description() const {
    return KROStringWithFormatArguments("%@: number %d", KROMIDIMessage::description(), number());
}

std::string KROMIDIProgramChangeMessage::logDescription() const {
    return logDescriptionWithField(number());
}

std::string KROMIDIChannelPressureMessage::logDescription() const {
    return logDescriptionWithField(pressure());
}

// ---- Pitch wheel

float KROMIDIPitchWheelMessage::floatValue() const {
    // 0.00012207031 is 1/8192 as hosts have always written it.
    return float((double(value()) - 8192.0) * 0.00012207031);
}

void KROMIDIPitchWheelMessage::setFloatValue(float value) {
    const double stored = std::clamp(double(value) * 8192.0 + 8192.0, 0.0, 16383.0);
    setValue(std::isnan(stored) ? 0 : std::uint16_t(stored));
}

std::string KROMIDIPitchWheelMessage::description() const {
    return KROStringWithFormatArguments("%@: floatValue %.3f", KROMIDIMessage::description(),
                                        floatValue());
}

std::string KROMIDIPitchWheelMessage::logDescription() const {
    return logDescriptionWithField(value());
}
