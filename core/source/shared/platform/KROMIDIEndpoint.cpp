#include "KROMIDIEndpoint.h"

#include <algorithm>
#include <cctype>

#include "KROErrorFamilies.h"
#include "KROLocalizedString.h"
#include "KROMIDIController.h"
#include "KROMIDIInputReassembler.h"
#include "KROMIDIMessage.h"
#include "KROStringWithFormat.h"

namespace {

using Backend = KROMIDIBackend;

std::vector<Backend::EndpointID> endpointsOf(bool sources) {
    std::vector<Backend::EndpointID> ids;
    const auto backend = Backend::sharedBackend();
    sources ? backend->sources(ids) : backend->destinations(ids);
    return ids;
}

bool hasPrefixIgnoringCase(const std::string& text, const std::string& prefix) {
    return prefix.size() <= text.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

Backend::EndpointID firstNamed(bool sources, const std::string& name) {
    for (const Backend::EndpointID id : endpointsOf(sources)) {
        if (KROMIDIEndpoint::nameForEndpointID(id) == name) {
            return id;
        }
    }
    return 0;
}

// Unique IDs stored big-endian, as the connection data holds them.
std::int32_t fromBigEndian(std::int32_t value) {
    return std::int32_t(__builtin_bswap32(std::uint32_t(value)));
}

} // namespace

bool KROMIDIFail(KROErrorPtr* error, KROMIDIBackend::Status status, std::string_view action) {
    return KROFail<KROMIDIError>(error, status, action);
}

bool KROMIDIEndpoint::endpointIDIsValid(EndpointID id) {
    for (const bool sources : {true, false}) {
        const auto ids = endpointsOf(sources);
        if (id != 0 && std::find(ids.begin(), ids.end(), id) != ids.end()) {
            return true;
        }
    }
    return false;
}

KROMIDIEndpoint::EndpointID KROMIDIEndpoint::endpointIDForUniqueID(std::int32_t uniqueID) {
    const auto backend = Backend::sharedBackend();
    for (const bool sources : {true, false}) {
        for (const EndpointID id : endpointsOf(sources)) {
            std::int32_t value = 0;
            if (backend->uniqueID(id, value) == Backend::noError && value == uniqueID) {
                return id;
            }
        }
    }
    return 0;
}

KROMIDIEndpoint::EndpointID KROMIDIEndpoint::endpointIDForName(const std::string& name) {
    const EndpointID input = inputEndpointIDForName(name);
    return input ? input : outputEndpointIDForName(name);
}

KROMIDIEndpoint::EndpointID KROMIDIEndpoint::inputEndpointIDForName(const std::string& name) {
    return firstNamed(true, name);
}

KROMIDIEndpoint::EndpointID KROMIDIEndpoint::outputEndpointIDForName(const std::string& name) {
    return firstNamed(false, name);
}

std::optional<std::string> KROMIDIEndpoint::nameForEndpointID(EndpointID id) {
    const auto backend = Backend::sharedBackend();
    std::string device;
    std::string endpoint;
    const bool hasDevice = backend->deviceName(id, device) == Backend::noError;
    if (backend->name(id, endpoint) != Backend::noError || endpoint.empty()) {
        return hasDevice ? std::optional(device) : std::nullopt;
    }
    if (!hasDevice || device.empty()) {
        return endpoint;
    }
    const bool deviceIsShorter = device.size() <= endpoint.size();
    const std::string& shorter = deviceIsShorter ? device : endpoint;
    const std::string& longer = deviceIsShorter ? endpoint : device;
    if (hasPrefixIgnoringCase(longer, shorter)) {
        return longer;
    }
    return device + " " + endpoint;
}

bool KROMIDIEndpoint::initWithEndpointID(EndpointID id, KROErrorPtr* error) {
    endpointID_ = id;
    return refresh(error);
}

std::string KROMIDIEndpoint::description() const {
    return KROStringWithFormat("KROMIDIEndpoint: %@ (%x)",
                               {displayName(), std::int64_t(std::uint32_t(uniqueID_))});
}

KROMIDIEndpointDescriptor KROMIDIEndpoint::descriptor() const {
    return {name_, uniqueID_};
}

KROMIDIEndpoint::EndpointID KROMIDIEndpoint::findValidEndpointID() const {
    if (endpointID_ != 0 && endpointIDIsValid(endpointID_)) {
        return endpointID_;
    }
    if (const EndpointID id = endpointIDForUniqueID(uniqueID_)) {
        return id;
    }
    return name_.empty() ? 0 : endpointIDForName(name_);
}

bool KROMIDIEndpoint::refresh(KROErrorPtr* error) {
    const EndpointID found = findValidEndpointID();
    if (found != endpointID_) {
        if (!stop(error)) {
            return false;
        }
        endpointID_ = found;
        if (hasDelegates()) {
            if (found == 0) {
                return true;
            }
            if (!start(error)) {
                return false;
            }
        }
    }
    if (endpointID_ != 0) {
        readProperties();
    }
    return true;
}

void KROMIDIEndpoint::readProperties() {
    const auto backend = Backend::sharedBackend();
    backend->uniqueID(endpointID_, uniqueID_);
    name_ = nameForEndpointID(endpointID_).value_or("");
    std::vector<std::int32_t> connected;
    backend->connectionUniqueIDs(endpointID_, connected);
    std::string names;
    for (const std::int32_t stored : connected) {
        EndpointID other = 0;
        if (stored == 0 ||
            backend->findByUniqueID(fromBigEndian(stored), other) != Backend::noError) {
            continue;
        }
        if (const auto otherName = nameForEndpointID(other)) {
            names += (names.empty() ? "" : ", ") + *otherName;
        }
    }
    if (!names.empty()) {
        displayName_ = names;
    } else {
        displayName_ = name_.empty() ? KROLocalizedString("KROMIDIEndpoint_unknownDevice") : name_;
    }
}

bool KROMIDIEndpoint::flush(KROErrorPtr* error) {
    const Backend::Status status = backend()->flushOutput(endpointID_);
    return status == Backend::noError || KROMIDIFail(error, status, "KROMIDIEndpoint_action_flush");
}

void KROMIDIEndpoint::addToDefaults() {
    KROMIDIController::sharedController().addEndpointToDefaults(*this);
}

void KROMIDIEndpoint::removeFromDefaults() {
    KROMIDIController::sharedController().removeEndpointFromDefaults(*this);
}

bool KROMIDIEndpoint::setName(const std::string& name, KROErrorPtr* error) {
    KROMIDIController& controller = KROMIDIController::sharedController();
    controller.suspendUpdates();
    const Backend::Status status = backend()->setName(endpointID_, name);
    controller.resumeUpdates();
    if (status != Backend::noError) {
        return KROMIDIFail(error, status, "KROMIDIEndpoint_action_setName");
    }
    name_ = name;
    displayName_ = name;
    return true;
}

bool KROMIDIEndpoint::setUniqueID(std::int32_t uniqueID, KROErrorPtr* error) {
    KROMIDIController& controller = KROMIDIController::sharedController();
    controller.suspendUpdates();
    const Backend::Status status = backend()->setUniqueID(endpointID_, uniqueID);
    controller.resumeUpdates();
    if (status != Backend::noError) {
        return KROMIDIFail(error, status, "KROMIDIEndpoint_action_setUniqueID");
    }
    uniqueID_ = uniqueID;
    return true;
}

std::string KROMIDIEndpoint::displayName() const {
    if (isOnline()) {
        return displayName_;
    }
    return KROStringWithFormat(KROLocalizedString("KROMIDIEndpoint_offlineFormat"),
                               {name_, KROLocalizedString("KROMIDIEndpoint_offline")});
}

bool KROMIDIEndpoint::hasDelegates() const {
    const std::lock_guard guard(lock_);
    return !senders_.empty() || !receivers_.empty();
}

bool KROMIDIEndpoint::addReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error) {
    {
        const std::lock_guard guard(lock_);
        if (!receivers_.insert(receiver).second) {
            return true;
        }
    }
    return start(error);
}

bool KROMIDIEndpoint::removeReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error) {
    {
        const std::lock_guard guard(lock_);
        receivers_.erase(receiver);
    }
    return hasDelegates() || stop(error);
}

bool KROMIDIEndpoint::addSender(const void* sender, KROErrorPtr* error) {
    {
        const std::lock_guard guard(lock_);
        senders_.insert(sender);
    }
    return start(error);
}

bool KROMIDIEndpoint::removeSender(const void* sender, KROErrorPtr* error) {
    {
        const std::lock_guard guard(lock_);
        senders_.erase(sender);
    }
    return hasDelegates() || stop(error);
}

void KROMIDIEndpoint::input(const std::uint8_t*, std::size_t, double) {}

bool KROMIDIEndpoint::sendMessage(const KROMIDIMessage*, KROErrorPtr*) {
    return false;
}

bool KROMIDIEndpoint::sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>&,
                                   KROErrorPtr*) {
    return false;
}

void KROMIDIEndpoint::sendMessage(const std::shared_ptr<KROMIDIMessage>& message) {
    const std::lock_guard guard(lock_);
    for (KROMIDIReceiver* receiver : receivers_) {
        receiver->midiInput(*this, message);
    }
}

void KROMIDIEndpoint::inputProc(void* context, const std::uint8_t* bytes, std::size_t count,
                                std::uint64_t hostTime) {
    static_cast<KROMIDIEndpoint*>(context)->input(
        bytes, count, KROMIDIMessage::timestampForMachineTimestamp(hostTime));
}
