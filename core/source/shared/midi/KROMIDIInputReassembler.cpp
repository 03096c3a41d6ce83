#include "KROMIDIInputReassembler.h"

#include "KROMIDIMessage.h"

namespace {

constexpr std::uint8_t kSysexStart = 0xF0;
constexpr std::uint8_t kSysexEnd = 0xF7;

bool isStatus(std::uint8_t byte) {
    return (byte & 0x80) != 0;
}

void deliverData(const std::vector<std::uint8_t>& data, double timestamp,
                 const KROMIDIInputReassembler::Delivery& deliver) {
    // Bytes of no class (a lone 0xF4) or too long for a packet make nothing.
    if (auto message = KROMIDIMessage::messageWithData(data, timestamp)) {
        deliver(message);
    }
}

} // namespace

void KROMIDIInputReassembler::input(const std::uint8_t* bytes, std::size_t count, double timestamp,
                                    const Delivery& deliver) {
    for (std::size_t index = 0; index < count; ++index) {
        const std::uint8_t byte = bytes[index];
        if (byte == kSysexEnd && sysexInProgress_) {
            finishSysex(deliver);
        } else if (byte == kSysexStart) {
            // A sysex that never ended is dropped by the next one.
            sysexData_.assign(1, byte);
            sysexInProgress_ = true;
            sysexTimestamp_ = timestamp;
        } else if (isStatus(byte)) {
            beginMessage(byte, timestamp);
        } else if (sysexInProgress_) {
            sysexData_.push_back(byte);
        } else {
            addDataByte(byte);
        }
        finishMessageIfComplete(deliver);
    }
}

void KROMIDIInputReassembler::beginMessage(std::uint8_t status, double timestamp) {
    // A byte that names no class (0xF7 outside a sysex, 0xF4) expects 0 bytes
    // and so never completes: the next status byte replaces it.
    const KROMIDIMessageClass* messageClass = KROMIDIMessage::classForMIDIBytes(&status, 1);
    const std::int64_t length = messageClass ? messageClass->length : 0;
    messageLength_ = std::uint64_t(length);
    messageData_.assign(std::size_t(length), 0);
    if (!messageData_.empty()) {
        messageData_[0] = status;
    }
    messageInProgress_ = true;
    messageTimestamp_ = timestamp;
    ++messagePosition_;
}

void KROMIDIInputReassembler::addDataByte(std::uint8_t byte) {
    // With nothing in progress the byte is lost: no running status.
    if (!messageInProgress_) {
        return;
    }
    // A position past the block (after an interrupting status) counts on but
    // stores nothing.
    if (messagePosition_ < messageData_.size()) {
        messageData_[std::size_t(messagePosition_)] = byte;
    }
    ++messagePosition_;
}

void KROMIDIInputReassembler::finishSysex(const Delivery& deliver) {
    sysexData_.push_back(kSysexEnd);
    sysexInProgress_ = false;
    deliverData(sysexData_, sysexTimestamp_, deliver);
    sysexData_.clear();
}

void KROMIDIInputReassembler::finishMessageIfComplete(const Delivery& deliver) {
    if (messagePosition_ != messageLength_) {
        return;
    }
    messageInProgress_ = false;
    messagePosition_ = 0;
    messageLength_ = kNoMessage;
    deliverData(messageData_, messageTimestamp_, deliver);
    messageData_.clear();
}
