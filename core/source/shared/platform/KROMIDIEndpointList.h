// A set of endpoints, kept in the order they were added, that forwards the
// endpoint operations to each member.
#pragma once

#include <memory>
#include <vector>

#include "KROMIDIEndpoint.h"

class KROMIDIEndpointList {
public:
    using Endpoints = std::vector<std::shared_ptr<KROMIDIEndpoint>>;

    static std::shared_ptr<KROMIDIEndpointList> endpointList() {
        return std::make_shared<KROMIDIEndpointList>();
    }

    // Each stops at the first member that fails.
    bool refresh(KROErrorPtr* error = nullptr);
    bool addReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error = nullptr);
    bool removeReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error = nullptr);
    bool addSender(const void* sender, KROErrorPtr* error = nullptr);
    bool removeSender(const void* sender, KROErrorPtr* error = nullptr);
    // On the members that send, stopping at the first failure.
    bool sendMessage(const KROMIDIMessage* message, KROErrorPtr* error = nullptr);
    bool sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>& messages,
                      KROErrorPtr* error = nullptr);

    std::size_t countOfEndpoints() const { return endpoints_.size(); }
    const Endpoints& endpoints() const { return endpoints_; }
    bool memberOfEndpoints(const KROMIDIEndpoint& endpoint) const;
    // None and members already present are ignored.
    void addEndpointsObject(const std::shared_ptr<KROMIDIEndpoint>& endpoint);
    void addEndpoints(const Endpoints& endpoints);
    void removeEndpointsObject(const KROMIDIEndpoint& endpoint);
    void removeAllEndpoints() { endpoints_.clear(); }

    // The first match, or none.
    std::shared_ptr<KROMIDIEndpoint> endpointWithID(KROMIDIBackend::EndpointID id) const;
    std::shared_ptr<KROMIDIEndpoint> endpointWithUniqueID(std::int32_t uniqueID) const;
    std::shared_ptr<KROMIDIEndpoint> endpointWithName(const std::string& name) const;
    // Endpoint by endpoint: the first whose unique ID, or else whose name,
    // is the descriptor's.
    std::shared_ptr<KROMIDIEndpoint>
    endpointWithDescription(const KROMIDIEndpointDescriptor& descriptor) const;
    std::vector<std::int32_t> uniqueIDs() const;

private:
    template <typename Step> bool forEach(Step step);
    template <typename Match> std::shared_ptr<KROMIDIEndpoint> first(Match match) const;

    Endpoints endpoints_;
};
