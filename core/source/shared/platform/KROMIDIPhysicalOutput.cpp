#include "KROMIDIPhysicalOutput.h"

#include "KROMIDIMessage.h"

KROMIDIPhysicalOutput::~KROMIDIPhysicalOutput() {
    if (portID_ != 0) {
        backend()->disposePort(portID_);
    }
}

bool KROMIDIPhysicalOutput::start(KROErrorPtr* error) {
    if (endpointID() == 0) {
        return false;
    }
    if (portID_ == 0) {
        const KROMIDIBackend::Status status = backend()->createOutputPort("KRMIDIOutput", portID_);
        if (status != KROMIDIBackend::noError) {
            portID_ = 0;
            return KROMIDIFail(error, status, "KROMIDIPhysicalOutput_action_create");
        }
    }
    timebaseNeedsReset_ = true;
    return true;
}

bool KROMIDIPhysicalOutput::checkSendable(KROErrorPtr* error) {
    if (endpointID() == 0 || portID_ == 0) {
        return KROMIDIFail(error, 1, "KROMIDIPhysicalOutput_action_send");
    }
    if (timebaseNeedsReset_) {
        timebase_ = KROMIDIMessage::machineTimestampForTimestamp(KROMIDIMessage::currentTime());
        timebaseNeedsReset_ = false;
    }
    return true;
}

std::uint64_t KROMIDIPhysicalOutput::packetTime(const KROMIDIMessage& message) const {
    const std::uint64_t ticks = message.packet() ? message.packet()->timeStamp : 0;
    return ticks == 0 ? 0 : timebase_ + ticks;
}

bool KROMIDIPhysicalOutput::sendMessage(const KROMIDIMessage* message, KROErrorPtr* error) {
    if (!message) {
        return true;
    }
    if (!checkSendable(error)) {
        return false;
    }
    const KROMIDIBackend::Status status = backend()->send(portID_, endpointID(), message->bytes(),
                                                          message->length(), packetTime(*message));
    return status == KROMIDIBackend::noError ||
           KROMIDIFail(error, status, "KROMIDIPhysicalOutput_action_send");
}

bool KROMIDIPhysicalOutput::sendMessages(
    const std::vector<std::shared_ptr<KROMIDIMessage>>& messages, KROErrorPtr* error) {
    if (!checkSendable(error)) {
        return false;
    }
    const auto layer = backend();
    for (const auto& message : messages) {
        if (!message) {
            continue;
        }
        const KROMIDIBackend::Status status = layer->send(portID_, endpointID(), message->bytes(),
                                                          message->length(), packetTime(*message));
        if (status != KROMIDIBackend::noError) {
            return KROMIDIFail(error, status, "KROMIDIPhysicalOutput_action_send");
        }
    }
    return true;
}
