#include "KROMIDIVirtualInput.h"

// The backend's thread may be delivering to this input right now: the
// endpoint goes first, which waits for that delivery, and the reassembler
// after it.
KROMIDIVirtualInput::~KROMIDIVirtualInput() {
    disposeEndpoint();
}

bool KROMIDIVirtualInput::initWithName(const std::string& name, KROErrorPtr* error) {
    return initCreating(
        [&](KROMIDIBackend& layer, EndpointID& id) {
            return layer.createDestination(name, inputProc, this, id);
        },
        "KROMIDIVirtualInput_action_create", error);
}
void KROMIDIVirtualInput::input(const std::uint8_t* bytes, std::size_t count, double timestamp) {
    reassembler_.input(
        bytes, count, timestamp,
        [this](const std::shared_ptr<KROMIDIMessage>& message) { sendMessage(message); });
}
