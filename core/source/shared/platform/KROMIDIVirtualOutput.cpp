#include "KROMIDIVirtualOutput.h"

#include "KROLog.h"
#include "KROMIDIMessage.h"

bool KROMIDIVirtualOutput::initWithName(const std::string& name, KROErrorPtr* error) {
    return initCreating(
        [&](KROMIDIBackend& layer, EndpointID& id) { return layer.createSource(name, id); },
        "KROMIDIVirtualOutput_action_create", error);
}

void KROMIDIVirtualOutput::resetTimebase() {
    KROLog("## resetTimebase on KROMIDIVirtualOutput not implemented");
}

bool KROMIDIVirtualOutput::sendMessage(const KROMIDIMessage* message, KROErrorPtr* error) {
    if (!message) {
        return true;
    }
    const std::uint64_t time = message->packet() ? message->packet()->timeStamp : 0;
    const KROMIDIBackend::Status status =
        backend()->received(endpointID(), message->bytes(), message->length(), time);
    return status == KROMIDIBackend::noError ||
           KROMIDIFail(error, status, "KROMIDIVirtualOutput_action_send");
}

bool KROMIDIVirtualOutput::sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>&,
                                        KROErrorPtr*) {
    KROLog("## sendMessages:error: on KROMIDIVirtualOutput not implemented");
    return false;
}
