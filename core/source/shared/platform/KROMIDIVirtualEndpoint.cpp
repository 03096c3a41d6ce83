#include "KROMIDIVirtualEndpoint.h"

#include "KROMIDIController.h"

KROMIDIVirtualEndpoint::~KROMIDIVirtualEndpoint() {
    disposeEndpoint();
}

void KROMIDIVirtualEndpoint::disposeEndpoint() {
    if (endpointID() != 0) {
        backend()->disposeEndpoint(endpointID());
        setEndpointID(0);
    }
}

bool KROMIDIVirtualEndpoint::isPrivate() const {
    bool value = false;
    backend()->isPrivate(endpointID(), value);
    return value;
}

void KROMIDIVirtualEndpoint::setIsPrivate(bool isPrivate) {
    backend()->setPrivate(endpointID(), isPrivate);
}

bool KROMIDIVirtualEndpoint::start(KROErrorPtr*) {
    isRunning_ = true;
    return true;
}

bool KROMIDIVirtualEndpoint::stop(KROErrorPtr*) {
    isRunning_ = false;
    return true;
}

bool KROMIDIVirtualEndpoint::initCreating(const Create& create, std::string_view action,
                                          KROErrorPtr* error) {
    KROMIDIController& controller = KROMIDIController::sharedController();
    controller.suspendUpdates();
    EndpointID id = 0;
    const KROMIDIBackend::Status status = create(*backend(), id);
    controller.resumeUpdates();
    if (status != KROMIDIBackend::noError) {
        return KROMIDIFail(error, status, action);
    }
    return initWithEndpointID(id, error);
}
