#include "KROMIDIMessage.h"

#include <cstring>
#include <ctime>
#include <functional>

#include "KROClassRegistry.h"
#include "KROLocalizedString.h"
#include "KROMIDISDSHeaderMessage.h"
#include "KROMIDISDSMessage.h"
#include "KROMIDISysexMessage.h"
#include "KROMIDISystemMessages.h"
#include "KROMIDIUniversalMessage.h"
#include "KROMIDIVoiceMessage.h"

namespace {

// One tick of the host clock in seconds: the monotonic clock counts nanoseconds.
constexpr double kTickLength = 1.0 / 1000000000.0;

constexpr std::uint8_t kSysex = 0xF0;
constexpr std::uint8_t kUniversalRealtime = 0x7F;
constexpr std::uint8_t kUniversalNonRealtime = 0x7E;

const KROMIDIMessageClass* voiceClass(std::uint8_t category) {
    switch (category) {
    case 0x80:
        return &KROMIDINoteOffMessage::messageClass();
    case 0x90:
        return &KROMIDINoteOnMessage::messageClass();
    case 0xA0:
        return &KROMIDIAftertouchMessage::messageClass();
    case 0xB0:
        return &KROMIDIControllerMessage::messageClass();
    case 0xC0:
        return &KROMIDIProgramChangeMessage::messageClass();
    case 0xD0:
        return &KROMIDIChannelPressureMessage::messageClass();
    default:
        return &KROMIDIPitchWheelMessage::messageClass();
    }
}

const KROMIDIMessageClass* universalClass(std::uint8_t kind, std::uint8_t subID) {
    if (kind == kUniversalRealtime && subID == 0x01)
        return &KROMIDIMTCFullFrameMessage::messageClass();
    if (kind == kUniversalNonRealtime) {
        switch (subID) {
        case 0x01:
            return &KROMIDISDSHeaderMessage::messageClass();
        case 0x02:
            return &KROMIDISDSDataMessage::messageClass();
        case 0x7C:
            return &KROMIDISDSWaitMessage::messageClass();
        case 0x7D:
            return &KROMIDISDSCancelMessage::messageClass();
        case 0x7E:
            return &KROMIDISDSErrorMessage::messageClass();
        case 0x7F:
            return &KROMIDISDSSuccessMessage::messageClass();
        default:
            break;
        }
    }
    return &KROMIDISysexMessage::messageClass();
}

const KROMIDIMessageClass* systemClass(std::uint8_t status) {
    switch (status) {
    case 0xF1:
        return &KROMIDIMTCQuarterFrameMessage::messageClass();
    case 0xF2:
        return &KROMIDISongPositionMessage::messageClass();
    case 0xF3:
        return &KROMIDISongSelectMessage::messageClass();
    case 0xF6:
        return &KROMIDITuneRequestMessage::messageClass();
    case 0xF8:
        return &KROMIDIClockMessage::messageClass();
    case 0xF9:
        return &KROMIDITickMessage::messageClass();
    case 0xFA:
        return &KROMIDIStartMessage::messageClass();
    case 0xFB:
        return &KROMIDIContinueMessage::messageClass();
    case 0xFC:
        return &KROMIDIStopMessage::messageClass();
    case 0xFE:
        return &KROMIDIActiveSenseMessage::messageClass();
    case 0xFF:
        return &KROMIDIResetMessage::messageClass();
    default:
        return nullptr; // 0xF4, 0xF5, 0xF7 and 0xFD are undefined or an end of exclusive
    }
}

} // namespace

const KROMIDIMessageClass& KROMIDIMessage::messageClass() {
    static const KROMIDIMessageClass object{"KROMIDIMessage",
                                            kVariableLength,
                                            0,
                                            "",
                                            "",
                                            [] { return std::make_shared<KROMIDIMessage>(); }};
    return object;
}
KRO_REGISTER_CLASS(KROMIDIMessage, KROObject)

std::string KROMIDIMessageClass::name() const {
    return *nameKey ? KROLocalizedString(nameKey) : std::string();
}

std::shared_ptr<KROMIDIMessage> KROMIDIMessageClass::message() const {
    if (length == KROMIDIMessage::kVariableLength)
        return nullptr;
    auto message = make();
    return message->init() ? message : nullptr;
}

// ---- Class level

const KROMIDIMessageClass* KROMIDIMessage::classForMIDIBytes(const std::uint8_t* bytes,
                                                             std::size_t available) {
    if (!bytes || available == 0)
        return nullptr;
    std::uint8_t category = bytes[0] & 0xF0;
    if (category == 0x90 && available > 2 && bytes[2] == 0)
        category = 0x80;
    if (category < 0x80)
        return nullptr;
    if (category < 0xF0)
        return voiceClass(category);
    if (bytes[0] != kSysex)
        return systemClass(bytes[0]);
    if (available < 4)
        return &KROMIDISysexMessage::messageClass();
    return universalClass(bytes[1], bytes[3]);
}

std::shared_ptr<KROMIDIMessage> KROMIDIMessage::messageWithData(const KROData& data,
                                                                double timestamp) {
    const KROMIDIMessageClass* messageClass = classForMIDIBytes(data.data(), data.size());
    if (!messageClass)
        return nullptr;
    auto message = messageClass->make();
    return message->initWithBytes(data.data(), data.size(), timestamp) ? message : nullptr;
}

std::shared_ptr<KROMIDIMessage> KROMIDIMessage::messageWithBytes(const std::uint8_t* bytes,
                                                                 std::size_t available,
                                                                 double timestamp) {
    const KROMIDIMessageClass* messageClass = classForMIDIBytes(bytes, available);
    if (!messageClass || messageClass->length == kVariableLength ||
        std::size_t(messageClass->length) > available)
        return nullptr;
    auto message = messageClass->make();
    return message->initWithBytes(bytes, std::size_t(messageClass->length), timestamp) ? message
                                                                                       : nullptr;
}

std::shared_ptr<KROMIDIMessage> KROMIDIMessage::messageWithCoder(const KROPropertyList& coder) {
    const KROPropertyList* className = coder.objectForKey("class");
    if (!className || !className->isString())
        return nullptr;
    const auto& registry = KROClassRegistry::sharedRegistry();
    if (!registry.isKindOfClass(*className->stringValue(), staticClassName()))
        return nullptr;
    auto message =
        std::dynamic_pointer_cast<KROMIDIMessage>(registry.makeObject(*className->stringValue()));
    return message && message->initWithCoder(coder) ? message : nullptr;
}

double KROMIDIMessage::currentTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t ticks =
        std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
    return timestampForMachineTimestamp(ticks);
}

double KROMIDIMessage::timestampForMachineTimestamp(std::uint64_t ticks) {
    return double(ticks) * kTickLength;
}

std::uint64_t KROMIDIMessage::machineTimestampForTimestamp(double seconds) {
    const double ticks = seconds / kTickLength;
    // Out of range of the tick count (negative, NaN, beyond 2^64): the clock's origin.
    if (!(ticks >= 0.0) || ticks >= 18446744073709551616.0)
        return 0;
    return std::uint64_t(ticks);
}

// ---- Construction

bool KROMIDIMessage::init() {
    const std::int64_t length = classOfMessage().length;
    if (length == kVariableLength)
        return false;
    return initWithBytes(nullptr, std::size_t(length), 0.0);
}

bool KROMIDIMessage::allocate(std::size_t length, double timestamp) {
    if (length > 0xFFFF)
        return false;
    auto packet = std::make_unique<KROMIDIPacket>();
    packet->length = std::uint16_t(length);
    packet->data = std::make_unique<std::uint8_t[]>(length ? length : 1);
    packet_ = std::move(packet);
    setTimestamp(timestamp);
    return true;
}

bool KROMIDIMessage::initWithBytes(const std::uint8_t* bytes, std::size_t length,
                                   double timestamp) {
    if (!allocate(length, timestamp))
        return false;
    if (bytes && length)
        std::memcpy(packet_->data.get(), bytes, length);
    else if (!bytes && length)
        packet_->data[0] = classOfMessage().category;
    return true;
}

bool KROMIDIMessage::initWithCoder(const KROPropertyList& coder) {
    const KROPropertyList* timestamp = coder.objectForKey("timestamp");
    const KROPropertyList* data = coder.objectForKey("data");
    if (!timestamp || !timestamp->isNumber() || !data || !data->isData())
        return false;
    const KROData& bytes = *data->dataValue();
    if (!allocate(bytes.size(), timestamp->doubleValue()))
        return false;
    if (!bytes.empty())
        std::memcpy(packet_->data.get(), bytes.data(), bytes.size());
    return true;
}

void KROMIDIMessage::encodeWithCoder(KROPropertyList& coder) const {
    coder.setObjectForKey("class", className());
    coder.setObjectForKey("timestamp", timestamp());
    const std::uint8_t* data = bytes();
    coder.setObjectForKey("data", KROData(data, data ? data + length() : data));
}

std::shared_ptr<KROMIDIMessage> KROMIDIMessage::copy() const {
    auto copy = classOfMessage().make();
    if (packet_) {
        copy->allocate(packet_->length, 0.0);
        copy->packet_->timeStamp = packet_->timeStamp;
        if (packet_->length)
            std::memcpy(copy->packet_->data.get(), packet_->data.get(), packet_->length);
    }
    return copy;
}

// ---- Comparing and text

bool KROMIDIMessage::isOfReceiverClass(const KROMIDIMessage&) const {
    return true;
}

bool KROMIDIMessage::isEqualToMessage(const KROMIDIMessage& other) const {
    if (!isOfReceiverClass(other) || length() != other.length())
        return false;
    return length() == 0 || std::memcmp(bytes(), other.bytes(), length()) == 0;
}

bool KROMIDIMessage::isEqual(const KROObject& other) const {
    const auto* message = dynamic_cast<const KROMIDIMessage*>(&other);
    return message && isEqualToMessage(*message);
}

std::size_t KROMIDIMessage::hash() const {
    std::size_t hash = length();
    for (std::size_t i = 0; i < length(); ++i)
        hash = hash * 31 + packet_->data[i];
    return hash;
}

std::string KROMIDIMessage::description() const {
    return className();
}

std::string KROMIDIMessage::logDescription() const {
    return classOfMessage().logName;
}

// ---- Fields

double KROMIDIMessage::timestamp() const {
    return packet_ ? timestampForMachineTimestamp(packet_->timeStamp) : 0.0;
}

void KROMIDIMessage::setTimestamp(double timestamp) {
    if (packet_)
        packet_->timeStamp = machineTimestampForTimestamp(timestamp);
}

std::uint8_t KROMIDIMessage::status() const {
    return holdsBytes(1) ? packet_->data[0] : 0;
}

std::uint8_t KROMIDIMessage::byteAt(std::size_t index) const {
    return holdsBytes(index + 1) ? packet_->data[index] : 0;
}

void KROMIDIMessage::setByteAt(std::size_t index, std::uint8_t value) {
    if (holdsBytes(index + 1))
        packet_->data[index] = value;
}

std::uint16_t KROMIDIMessage::fourteenBitsAt(std::size_t index) const {
    if (!holdsBytes(index + 2))
        return 0;
    return std::uint16_t(packet_->data[index] + packet_->data[index + 1] * 128);
}

void KROMIDIMessage::setFourteenBitsAt(std::size_t index, std::uint16_t value) {
    if (!holdsBytes(index + 2))
        return;
    packet_->data[index] = value & 0x7F;
    packet_->data[index + 1] = (value >> 7) & 0x7F;
}
