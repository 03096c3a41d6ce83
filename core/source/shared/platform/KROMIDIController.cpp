#include "KROMIDIController.h"

#include <algorithm>

#include "KROMIDIPhysicalInput.h"
#include "KROMIDIPhysicalOutput.h"
#include "KRONotificationCenter.h"
#include "KROUserDefaults.h"

KROMIDIController& KROMIDIController::sharedController() {
    // Never destroyed: endpoints must not reach the MIDI layer during exit.
    static KROMIDIController& controller = *new KROMIDIController;
    return controller;
}

KROMIDIController::~KROMIDIController() {
    if (const auto backend = listenedBackend_.lock()) {
        backend->removeListener(listenerToken_);
    }
}

void KROMIDIController::setUserDefaults(KROUserDefaults* defaults) {
    const std::lock_guard guard(lock_);
    defaults_ = defaults;
}

KROUserDefaults& KROMIDIController::defaults() {
    return defaults_ ? *defaults_ : KROUserDefaults::standardUserDefaults();
}

void KROMIDIController::listen() {
    const auto backend = KROMIDIBackend::sharedBackend();
    if (listenedBackend_.lock() == backend) {
        return;
    }
    if (const auto old = listenedBackend_.lock()) {
        old->removeListener(listenerToken_);
    }
    // Endpoints of a layer that was replaced mean nothing on the new one.
    inputs_.removeAllEndpoints();
    outputs_.removeAllEndpoints();
    listenedBackend_ = backend;
    const KROMIDIBackend* listened = backend.get();
    listenerToken_ = backend->addSetupListener([this, listened] { setupChanged(listened); });
}

void KROMIDIController::setupChanged(const KROMIDIBackend* from) {
    {
        const std::lock_guard guard(lock_);
        // A layer that was replaced is left to the next call of a host, which
        // moves over; its own thread must not drop the endpoints that keep
        // it alive.
        if (from != KROMIDIBackend::sharedBackend().get()) {
            return;
        }
        if (suspensions_ > 0) {
            changedWhileSuspended_ = true;
            return;
        }
        rescan();
    }
    KRONotificationCenter::defaultCenter().postNotification(setupChangedNotification);
}

void KROMIDIController::suspendUpdates() {
    const std::lock_guard guard(lock_);
    ++suspensions_;
}

void KROMIDIController::resumeUpdates() {
    {
        const std::lock_guard guard(lock_);
        if (suspensions_ == 0 || --suspensions_ > 0 || !changedWhileSuspended_) {
            return;
        }
        changedWhileSuspended_ = false;
    }
    setupChanged(KROMIDIBackend::sharedBackend().get());
}

bool KROMIDIController::rescanSide(bool inputs, KROMIDIEndpointList& list,
                                   const std::vector<std::int32_t>& defaults) {
    std::vector<KROMIDIBackend::EndpointID> ids;
    const auto backend = KROMIDIBackend::sharedBackend();
    inputs ? backend->sources(ids) : backend->destinations(ids);
    bool changed = false;
    // Known endpoints follow their devices; gone ones stay only as defaults.
    for (const auto& endpoint : KROMIDIEndpointList::Endpoints(list.endpoints())) {
        const bool wasOnline = endpoint->isOnline();
        endpoint->refresh();
        changed |= wasOnline != endpoint->isOnline();
        const bool isDefault = std::count(defaults.begin(), defaults.end(), endpoint->uniqueID());
        if (!endpoint->isOnline() && !isDefault) {
            list.removeEndpointsObject(*endpoint);
        }
    }
    for (const KROMIDIBackend::EndpointID id : ids) {
        if (list.endpointWithID(id)) {
            continue;
        }
        std::shared_ptr<KROMIDIEndpoint> endpoint;
        if (inputs) {
            endpoint = KROMIDIEndpoint::endpointWithEndpointID<KROMIDIPhysicalInput>(id);
        } else {
            endpoint = KROMIDIEndpoint::endpointWithEndpointID<KROMIDIPhysicalOutput>(id);
        }
        list.addEndpointsObject(endpoint);
        changed = true;
    }
    return changed;
}

bool KROMIDIController::rescan() {
    listen();
    const bool inputsChanged = rescanSide(true, inputs_, defaultIDs(defaultInputIDsKey));
    const bool outputsChanged = rescanSide(false, outputs_, defaultIDs(defaultOutputIDsKey));
    return inputsChanged || outputsChanged;
}

bool KROMIDIController::refresh() {
    const std::lock_guard guard(lock_);
    return rescan();
}

KROMIDIEndpointList KROMIDIController::inputs() {
    const std::lock_guard guard(lock_);
    rescan();
    return inputs_;
}

KROMIDIEndpointList KROMIDIController::outputs() {
    const std::lock_guard guard(lock_);
    rescan();
    return outputs_;
}

std::vector<std::int32_t> KROMIDIController::defaultIDs(const char* key) {
    std::vector<std::int32_t> ids;
    const auto stored = defaults().objectForKey(key);
    for (std::size_t index = 0; stored && index < stored->count(); ++index) {
        if (const std::int64_t* id = stored->objectAtIndex(index)->integerValue()) {
            ids.push_back(std::int32_t(*id));
        }
    }
    return ids;
}

std::vector<std::int32_t> KROMIDIController::defaultInputIDs() {
    const std::lock_guard guard(lock_);
    return defaultIDs(defaultInputIDsKey);
}

std::vector<std::int32_t> KROMIDIController::defaultOutputIDs() {
    const std::lock_guard guard(lock_);
    return defaultIDs(defaultOutputIDsKey);
}

KROMIDIEndpointList KROMIDIController::defaultInputs() {
    const std::lock_guard guard(lock_);
    rescan();
    KROMIDIEndpointList list;
    for (const std::int32_t id : defaultIDs(defaultInputIDsKey)) {
        list.addEndpointsObject(inputs_.endpointWithUniqueID(id));
    }
    return list;
}

KROMIDIEndpointList KROMIDIController::defaultOutputs() {
    const std::lock_guard guard(lock_);
    rescan();
    KROMIDIEndpointList list;
    for (const std::int32_t id : defaultIDs(defaultOutputIDsKey)) {
        list.addEndpointsObject(outputs_.endpointWithUniqueID(id));
    }
    return list;
}

void KROMIDIController::changeDefaults(const KROMIDIEndpoint& endpoint, bool add) {
    {
        const std::lock_guard guard(lock_);
        const char* key = endpoint.isInput() ? defaultInputIDsKey : defaultOutputIDsKey;
        std::vector<std::int32_t> ids = defaultIDs(key);
        const auto present = std::find(ids.begin(), ids.end(), endpoint.uniqueID());
        if (add == (present != ids.end())) {
            return;
        }
        if (add) {
            ids.push_back(endpoint.uniqueID());
        } else {
            ids.erase(present);
        }
        KROPropertyList stored = KROPropertyList::array();
        for (const std::int32_t id : ids) {
            stored.addObject(std::int64_t(id));
        }
        defaults().setObjectForKey(key, stored);
    }
    KRONotificationCenter::defaultCenter().postNotification(defaultEndpointsChangedNotification);
}

void KROMIDIController::addEndpointToDefaults(const KROMIDIEndpoint& endpoint) {
    changeDefaults(endpoint, true);
}

void KROMIDIController::removeEndpointFromDefaults(const KROMIDIEndpoint& endpoint) {
    changeDefaults(endpoint, false);
}
