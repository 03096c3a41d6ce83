// An endpoint this process makes, that other programs see on the MIDI
// service; it goes when the object goes. Starting and stopping only set a
// flag: the endpoint exists as long as the object.
#pragma once

#include <functional>

#include "KROMIDIEndpoint.h"

class KROMIDIVirtualEndpoint : public KROMIDIEndpoint {
    KRO_DECLARE_CLASS(KROMIDIVirtualEndpoint)
public:
    ~KROMIDIVirtualEndpoint() override;

    virtual bool initWithName(const std::string& name, KROErrorPtr* error = nullptr) = 0;
    template <typename T>
    static std::shared_ptr<T> endpointWithName(const std::string& name,
                                               KROErrorPtr* error = nullptr) {
        auto endpoint = std::make_shared<T>();
        return endpoint->initWithName(name, error) ? endpoint : nullptr;
    }

    // A private endpoint is left out of the lists of the service.
    bool isPrivate() const;
    void setIsPrivate(bool isPrivate);

    bool isRunning() const override { return isRunning_; }
    bool start(KROErrorPtr*) override;
    bool stop(KROErrorPtr*) override;

protected:
    // Makes the endpoint with create between the controller's suspendUpdates
    // and resumeUpdates, then reads it as any endpoint.
    using Create = std::function<KROMIDIBackend::Status(KROMIDIBackend&, EndpointID&)>;
    bool initCreating(const Create& create, std::string_view action, KROErrorPtr* error);
    // Takes the endpoint off the service; after it, nothing more arrives.
    // An input calls it in its own destructor, while what delivery uses
    // still exists; a second call does nothing.
    void disposeEndpoint();

private:
    bool isRunning_ = false;
};
