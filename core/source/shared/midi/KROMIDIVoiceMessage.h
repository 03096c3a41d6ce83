// The channel voice messages: notes, aftertouch, controllers, program
// changes, channel pressure and pitch wheel. Channels count from 1 as people
// name them; the wire holds 0 to 15 in the low nibble of the status byte.
// Setters of 7-bit fields store 127 for anything from 127 to 255.
#pragma once

#include <string>
#include <vector>

#include "KROMIDIMessage.h"

class KROMIDIVoiceMessage : public KROMIDIMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIVoiceMessage)

    // Low nibble + 1, or 0 for a message with no bytes.
    std::uint8_t channel() const;
    // Stores channel - 1 over the low nibble, unchecked: channel 0 borrows
    // from the high nibble, as hosts that wrap channels expect.
    void setChannel(std::uint8_t channel);

    // "Ch %-2d  %@" with the channel and the log name.
    std::string logDescription() const override;

protected:
    // "Ch %-2d  %@  %-3d" with the channel, the log name and one field.
    std::string logDescriptionWithField(int field) const;
};

class KROMIDINoteMessage : public KROMIDIVoiceMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDINoteMessage)

    std::uint8_t note() const { return byteAt(1); }
    void setNote(std::uint8_t note) { setByteAt(1, sevenBits(note)); }
    std::uint8_t velocity() const { return byteAt(2); }
    void setVelocity(std::uint8_t velocity) { setByteAt(2, sevenBits(velocity)); }

    // "%@: note %d, velocity %d"
    std::string description() const override;
    // "Ch %-2d  %@  %-3d  %-3d" with channel, log name, note and velocity.
    std::string logDescription() const override;
};

class KROMIDINoteOnMessage : public KROMIDINoteMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDINoteOnMessage)
};

// Also the class of a note on with velocity 0, whose status byte stays 0x9n.
class KROMIDINoteOffMessage : public KROMIDINoteMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDINoteOffMessage)
};

// Polyphonic key pressure: the pressure stands where a note's velocity does.
class KROMIDIAftertouchMessage : public KROMIDINoteMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIAftertouchMessage)

    std::uint8_t pressure() const { return velocity(); }
    void setPressure(std::uint8_t pressure) { setVelocity(pressure); }

    // "Ch %-2d  %@  %-3d" with the pressure.
    std::string logDescription() const override;
};

class KROMIDIControllerMessage : public KROMIDIVoiceMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIControllerMessage)

    std::uint8_t number() const { return byteAt(1); }
    void setNumber(std::uint8_t number) { setByteAt(1, sevenBits(number)); }
    std::uint8_t value() const { return byteAt(2); }
    void setValue(std::uint8_t value) { setByteAt(2, sevenBits(value)); }
    // value / 127; the setter rounds x * 127 and limits it to 0 ... 127.
    float floatValue() const { return float(value()) / 127.0f; }
    void setFloatValue(float value);

    // The 128 localized controller names, "KROMIDIController_name<n>", built
    // once and kept.
    static const std::vector<std::string>& controllerNames();

    // "%@: number %d, value %d"
    std::string description() const override;
    // "Ch %-2d  %@  %-3d  %-3d" with number and value.
    std::string logDescription() const override;
};

class KROMIDIProgramChangeMessage : public KROMIDIVoiceMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIProgramChangeMessage)

    std::uint8_t number() const { return byteAt(1); }
    void setNumber(std::uint8_t number) { setByteAt(1, sevenBits(number)); }

    // "%@: number %d"
    std::string description() const override;
    std::string logDescription() const override;
};

class KROMIDIChannelPressureMessage : public KROMIDIVoiceMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIChannelPressureMessage)

    std::uint8_t pressure() const { return byteAt(1); }
    void setPressure(std::uint8_t pressure) { setByteAt(1, sevenBits(pressure)); }

    std::string logDescription() const override;
};

// A 14-bit value, 8192 at rest: byte 1 holds the low 7 bits, byte 2 the high.
class KROMIDIPitchWheelMessage : public KROMIDIVoiceMessage {
    KRO_MIDI_MESSAGE_CLASS(KROMIDIPitchWheelMessage)

    std::uint16_t value() const { return fourteenBitsAt(1); }
    // Keeps 7 bits in each byte.
    void setValue(std::uint16_t value) { setFourteenBitsAt(1, value); }
    // -1 ... just under 1: (value - 8192) / 8192.
    float floatValue() const;
    // x * 8192 + 8192, limited to 0 ... 16383 and truncated.
    void setFloatValue(float value);

    // "%@: floatValue %.3f"
    std::string description() const override;
    // "Ch %-2d  %@  %-3d" with the value.
    std::string logDescription() const override;
};
