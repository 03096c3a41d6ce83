// One MIDI message as it travels on the wire: a packet record holding the
// bytes from the status byte on and a timestamp on the host clock. Every
// subclass gives named fields that read and write those bytes in place, so a
// message can be handed to an endpoint without a further encoding step.
//
// The host clock is the monotonic clock (CLOCK_MONOTONIC) in nanoseconds:
// one tick is one nanosecond, and timestamps in seconds are ticks x 1e-9.
//
// Class-level operations are static members and come with a class object,
// KROMIDIMessageClass, which +classForMIDIBytes: answers. C++ cannot give a
// static and a member function one name, so the class-level +length and
// +category are classLength() and classCategory(); length() and category()
// are the instance's.
//
// Nothing here allocates except construction and copying; field accessors
// may run on any thread on a message that thread owns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "KROObject.h"
#include "KROPropertyList.h"

class KROMIDIMessage;

// The packet record: timeStamp in host clock ticks, length data bytes in use,
// and data allocated with exactly that many bytes.
struct KROMIDIPacket {
    std::uint64_t timeStamp = 0;
    std::uint16_t length = 0;
    std::unique_ptr<std::uint8_t[]> data;
};

// What a message class states about itself; one constant object per class.
struct KROMIDIMessageClass {
    const char* className;
    // Fixed length in bytes, or KROMIDIMessage::kVariableLength.
    std::int64_t length;
    // The status value with the channel nibble cleared.
    std::uint8_t category;
    // An eight-character column for log lines, blanks included.
    const char* logName;
    // The key of the localized name; empty for none.
    const char* nameKey;
    std::shared_ptr<KROMIDIMessage> (*make)();

    // The localized name, "" for a class with no key.
    std::string name() const;
    // A new message of this class through init(): none for a class whose
    // length is variable.
    std::shared_ptr<KROMIDIMessage> message() const;
};

// Declares the class-level face of a message class: its class object, the
// static +length, +category, +name, +logName and +message, and the virtual
// hooks through which the base reaches the receiver's class.
#define KRO_MIDI_MESSAGE_CLASS(Name)                                                               \
    KRO_DECLARE_CLASS(Name)                                                                        \
public:                                                                                            \
    static const KROMIDIMessageClass& messageClass();                                              \
    const KROMIDIMessageClass& classOfMessage() const override {                                   \
        return messageClass();                                                                     \
    }                                                                                              \
    static std::int64_t classLength() {                                                            \
        return messageClass().length;                                                              \
    }                                                                                              \
    static std::uint8_t classCategory() {                                                          \
        return messageClass().category;                                                            \
    }                                                                                              \
    static std::string name() {                                                                    \
        return messageClass().name();                                                              \
    }                                                                                              \
    static std::string logName() {                                                                 \
        return messageClass().logName;                                                             \
    }                                                                                              \
    static std::shared_ptr<Name> message() {                                                       \
        return std::static_pointer_cast<Name>(messageClass().message());                           \
    }                                                                                              \
                                                                                                   \
protected:                                                                                         \
    bool isOfReceiverClass(const KROMIDIMessage& other) const override {                           \
        return dynamic_cast<const Name*>(&other) != nullptr;                                       \
    }                                                                                              \
                                                                                                   \
public:

// Defines the class object of Name in its source file and registers the class.
#define KRO_MIDI_MESSAGE_CLASS_DEFINITION(Name, Superclass, length, category, logName, nameKey)    \
    const KROMIDIMessageClass& Name::messageClass() {                                              \
        static const KROMIDIMessageClass object{#Name,                                             \
                                                length,                                            \
                                                category,                                          \
                                                logName,                                           \
                                                nameKey,                                           \
                                                [] { return std::static_pointer_cast<KROMIDIMessage>(std::make_shared<Name>()); }};                                           \
        return object;                                                                             \
    }                                                                                              \
    KRO_REGISTER_CLASS(Name, Superclass)

class KROMIDIMessage : public KROObject {
public:
    static constexpr std::int64_t kVariableLength = std::numeric_limits<std::int64_t>::max();

    static std::string staticClassName() { return "KROMIDIMessage"; }
    std::string className() const override { return staticClassName(); }
    static const KROMIDIMessageClass& messageClass();
    virtual const KROMIDIMessageClass& classOfMessage() const { return messageClass(); }
    static std::int64_t classLength() { return messageClass().length; }
    static std::uint8_t classCategory() { return messageClass().category; }
    static std::string name() { return messageClass().name(); }
    static std::string logName() { return messageClass().logName; }
    // The base's length is variable, so it makes no bare message.
    static std::shared_ptr<KROMIDIMessage> message() { return messageClass().message(); }

    // ---- Class level
    // The class of the message that starts at bytes, reading no further than
    // available: none for data bytes, 0xF4, 0xF5, 0xF7 and 0xFD. A note on
    // with velocity 0 is a note off (its status byte stays 0x9n); a byte past
    // available counts as absent, so a short sysex is a plain sysex.
    static const KROMIDIMessageClass* classForMIDIBytes(const std::uint8_t* bytes,
                                                        std::size_t available);
    // A message of the bytes' class holding all of data; none when the bytes
    // have no class or do not fit the 16-bit length of a packet.
    static std::shared_ptr<KROMIDIMessage> messageWithData(const KROData& data, double timestamp);
    // A message of the bytes' class holding as many bytes as its fixed
    // length: fixed-length messages only. None when the class is variable or
    // available holds fewer bytes.
    static std::shared_ptr<KROMIDIMessage>
    messageWithBytes(const std::uint8_t* bytes, std::size_t available, double timestamp);
    // The class named by coder's "class" (a registered kind of
    // KROMIDIMessage), through initWithCoder; none when either fails.
    static std::shared_ptr<KROMIDIMessage> messageWithCoder(const KROPropertyList& coder);

    // The host clock now, in seconds.
    static double currentTime();
    static double timestampForMachineTimestamp(std::uint64_t ticks);
    // Truncated to whole ticks.
    static std::uint64_t machineTimestampForTimestamp(double seconds);

    // ---- Construction
    // A message of classLength() bytes with timestamp 0; false for a class
    // whose length is variable.
    virtual bool init();
    // Allocates a zeroed record of length bytes with the timestamp. Given
    // bytes are copied; with none, byte 0 is the class's category. False
    // when length exceeds the 16-bit field of the record.
    virtual bool initWithBytes(const std::uint8_t* bytes, std::size_t length, double timestamp);
    // Reads "timestamp" (real) and "data" (data) into a new record, as they
    // stand: no class fills in its constant bytes here.
    bool initWithCoder(const KROPropertyList& coder);
    // Writes "class", "timestamp" and "data" into the dictionary coder.
    void encodeWithCoder(KROPropertyList& coder) const;
    // A message of the same class with the same bytes and timestamp.
    std::shared_ptr<KROMIDIMessage> copy() const;

    // ---- Comparing and text
    // The other is of the receiver's class or a subclass and has the same
    // bytes; the timestamp does not count. The test is on the receiver's
    // class, so a note message equals a note on of its bytes, not the reverse.
    bool isEqualToMessage(const KROMIDIMessage& other) const;
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;
    std::string description() const override;
    virtual std::string logDescription() const;

    // ---- Fields
    // Seconds, stored in ticks.
    double timestamp() const;
    void setTimestamp(double timestamp);
    std::uint16_t length() const { return packet_ ? packet_->length : 0; }
    // Byte 0, or 0 with no packet or no bytes.
    std::uint8_t status() const;
    std::uint8_t category() const { return status() & 0xF0; }
    KROMIDIPacket* packet() { return packet_.get(); }
    const KROMIDIPacket* packet() const { return packet_.get(); }
    // The bytes, null with no packet.
    const std::uint8_t* bytes() const { return packet_ ? packet_->data.get() : nullptr; }

protected:
    virtual bool isOfReceiverClass(const KROMIDIMessage& other) const;

    // Field access for subclasses: a read of a byte the packet does not hold
    // answers 0 and a write to one does nothing.
    bool holdsBytes(std::size_t count) const { return packet_ && packet_->length >= count; }
    std::uint8_t byteAt(std::size_t index) const;
    void setByteAt(std::size_t index, std::uint8_t value);
    // Two 7-bit groups, lowest first, as pitch wheel and song position hold them.
    std::uint16_t fourteenBitsAt(std::size_t index) const;
    void setFourteenBitsAt(std::size_t index, std::uint16_t value);
    // The clamp of every 7-bit field: 127 to 255 are stored as 127.
    static std::uint8_t sevenBits(std::uint8_t value) { return value > 127 ? 127 : value; }

private:
    bool allocate(std::size_t length, double timestamp);

    std::unique_ptr<KROMIDIPacket> packet_;
};
