#include "KROMIDIPhysicalInput.h"

KROMIDIPhysicalInput::~KROMIDIPhysicalInput() {
    stop(nullptr);
}

bool KROMIDIPhysicalInput::start(KROErrorPtr* error) {
    if (endpointID() == 0) {
        return false;
    }
    if (portID_ != 0) {
        return true;
    }
    const auto layer = backend();
    KROMIDIBackend::Status status = layer->createInputPort("KRMIDIInput", inputProc, this, portID_);
    if (status != KROMIDIBackend::noError) {
        portID_ = 0;
        return KROMIDIFail(error, status, "KROMIDIPhysicalInput_action_create");
    }
    status = layer->connectSource(portID_, endpointID());
    return status == KROMIDIBackend::noError ||
           KROMIDIFail(error, status, "KROMIDIPhysicalInput_action_connect");
}

bool KROMIDIPhysicalInput::stop(KROErrorPtr* error) {
    if (portID_ == 0) {
        return true;
    }
    const auto layer = backend();
    const KROMIDIBackend::Status disconnected = layer->disconnectSource(portID_, endpointID());
    const KROMIDIBackend::Status disposed = layer->disposePort(portID_);
    portID_ = 0;
    if (disconnected != KROMIDIBackend::noError) {
        return KROMIDIFail(error, disconnected, "KROMIDIPhysicalInput_action_disconnect");
    }
    return disposed == KROMIDIBackend::noError ||
           KROMIDIFail(error, disposed, "KROMIDIPhysicalInput_action_destroy");
}

void KROMIDIPhysicalInput::input(const std::uint8_t* bytes, std::size_t count, double timestamp) {
    reassembler_.input(
        bytes, count, timestamp,
        [this](const std::shared_ptr<KROMIDIMessage>& message) { sendMessage(message); });
}
