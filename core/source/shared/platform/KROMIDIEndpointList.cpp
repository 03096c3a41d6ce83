#include "KROMIDIEndpointList.h"

#include <algorithm>

template <typename Step> bool KROMIDIEndpointList::forEach(Step step) {
    return std::all_of(endpoints_.begin(), endpoints_.end(),
                       [&](const auto& endpoint) { return step(*endpoint); });
}

template <typename Match>
std::shared_ptr<KROMIDIEndpoint> KROMIDIEndpointList::first(Match match) const {
    const auto found = std::find_if(endpoints_.begin(), endpoints_.end(),
                                    [&](const auto& endpoint) { return match(*endpoint); });
    return found == endpoints_.end() ? nullptr : *found;
}

bool KROMIDIEndpointList::refresh(KROErrorPtr* error) {
    return forEach([&](KROMIDIEndpoint& endpoint) { return endpoint.refresh(error); });
}

bool KROMIDIEndpointList::addReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error) {
    return forEach(
        [&](KROMIDIEndpoint& endpoint) { return endpoint.addReceiver(receiver, error); });
}

bool KROMIDIEndpointList::removeReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error) {
    return forEach(
        [&](KROMIDIEndpoint& endpoint) { return endpoint.removeReceiver(receiver, error); });
}

bool KROMIDIEndpointList::addSender(const void* sender, KROErrorPtr* error) {
    return forEach([&](KROMIDIEndpoint& endpoint) { return endpoint.addSender(sender, error); });
}

bool KROMIDIEndpointList::removeSender(const void* sender, KROErrorPtr* error) {
    return forEach([&](KROMIDIEndpoint& endpoint) { return endpoint.removeSender(sender, error); });
}

bool KROMIDIEndpointList::sendMessage(const KROMIDIMessage* message, KROErrorPtr* error) {
    return forEach([&](KROMIDIEndpoint& endpoint) {
        return !endpoint.sendsMessages() || endpoint.sendMessage(message, error);
    });
}

bool KROMIDIEndpointList::sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>& messages,
                                       KROErrorPtr* error) {
    return forEach([&](KROMIDIEndpoint& endpoint) {
        return !endpoint.sendsMessages() || endpoint.sendMessages(messages, error);
    });
}

bool KROMIDIEndpointList::memberOfEndpoints(const KROMIDIEndpoint& endpoint) const {
    return first([&](const KROMIDIEndpoint& member) { return &member == &endpoint; }) != nullptr;
}

void KROMIDIEndpointList::addEndpointsObject(const std::shared_ptr<KROMIDIEndpoint>& endpoint) {
    if (endpoint && !memberOfEndpoints(*endpoint)) {
        endpoints_.push_back(endpoint);
    }
}

void KROMIDIEndpointList::addEndpoints(const Endpoints& endpoints) {
    for (const auto& endpoint : endpoints) {
        addEndpointsObject(endpoint);
    }
}

void KROMIDIEndpointList::removeEndpointsObject(const KROMIDIEndpoint& endpoint) {
    std::erase_if(endpoints_, [&](const auto& member) { return member.get() == &endpoint; });
}

std::shared_ptr<KROMIDIEndpoint>
KROMIDIEndpointList::endpointWithID(KROMIDIBackend::EndpointID id) const {
    return first([&](const KROMIDIEndpoint& endpoint) { return endpoint.endpointID() == id; });
}

std::shared_ptr<KROMIDIEndpoint>
KROMIDIEndpointList::endpointWithUniqueID(std::int32_t uniqueID) const {
    return first([&](const KROMIDIEndpoint& endpoint) { return endpoint.uniqueID() == uniqueID; });
}

std::shared_ptr<KROMIDIEndpoint>
KROMIDIEndpointList::endpointWithName(const std::string& name) const {
    return first([&](const KROMIDIEndpoint& endpoint) { return endpoint.name() == name; });
}

std::shared_ptr<KROMIDIEndpoint>
KROMIDIEndpointList::endpointWithDescription(const KROMIDIEndpointDescriptor& descriptor) const {
    return first([&](const KROMIDIEndpoint& endpoint) {
        return endpoint.uniqueID() == descriptor.uniqueID() || endpoint.name() == descriptor.name();
    });
}

std::vector<std::int32_t> KROMIDIEndpointList::uniqueIDs() const {
    std::vector<std::int32_t> ids;
    for (const auto& endpoint : endpoints_) {
        ids.push_back(endpoint->uniqueID());
    }
    return ids;
}
