// One source or destination of the platform's MIDI service. An endpoint
// survives its device: unplugged, it keeps its name and unique ID with
// endpoint ID 0 (offline), and a later refresh: finds it again by unique ID or
// name. Subclasses give the direction (input or output) and the kind
// (physical hardware, or virtual endpoints this process makes).
//
// Incoming messages reach receivers on the MIDI layer's input thread, under
// the endpoint's lock: a receiver must not block there and must not add or
// remove receivers from within midiInput.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KROError.h"
#include "KROMIDIBackend.h"
#include "KROMIDIEndpointDescriptor.h"
#include "KROObject.h"

class KROMIDIEndpoint;
class KROMIDIMessage;

// Who gets what an input endpoint receives.
class KROMIDIReceiver {
public:
    virtual ~KROMIDIReceiver() = default;
    virtual void midiInput(KROMIDIEndpoint& endpoint,
                           const std::shared_ptr<KROMIDIMessage>& message) = 0;
};

class KROMIDIEndpoint : public KROObject {
    KRO_DECLARE_CLASS(KROMIDIEndpoint)
public:
    using EndpointID = KROMIDIBackend::EndpointID;

    // ---- Class level
    // The ID is among the present sources or destinations.
    static bool endpointIDIsValid(EndpointID id);
    // Sources first, then destinations; 0 when absent.
    static EndpointID endpointIDForUniqueID(std::int32_t uniqueID);
    static EndpointID endpointIDForName(const std::string& name);
    static EndpointID inputEndpointIDForName(const std::string& name);
    static EndpointID outputEndpointIDForName(const std::string& name);
    // The device's and the endpoint's names joined with a blank, or the
    // longer alone when the shorter is a case-insensitive prefix of it; the
    // device's alone without an endpoint name; none without either.
    static std::optional<std::string> nameForEndpointID(EndpointID id);
    // A new endpoint of class T through initWithEndpointID; none on failure.
    template <typename T>
    static std::shared_ptr<T> endpointWithEndpointID(EndpointID id, KROErrorPtr* error = nullptr) {
        auto endpoint = std::make_shared<T>();
        return endpoint->initWithEndpointID(id, error) ? endpoint : nullptr;
    }

    KROMIDIEndpoint() = default;
    ~KROMIDIEndpoint() override = default;
    KROMIDIEndpoint(const KROMIDIEndpoint&) = delete;
    KROMIDIEndpoint& operator=(const KROMIDIEndpoint&) = delete;

    bool initWithEndpointID(EndpointID id, KROErrorPtr* error = nullptr);

    // "KROMIDIEndpoint: <display name> (<unique ID in hex>)".
    std::string description() const override;
    KROMIDIEndpointDescriptor descriptor() const;

    // Finds the endpoint again (by ID, unique ID, then name), restarts it
    // when it came back with delegates, and rereads its names.
    bool refresh(KROErrorPtr* error = nullptr);
    // Drops what is queued for the endpoint and not yet sent.
    bool flush(KROErrorPtr* error = nullptr);
    virtual void resetTimebase() {}

    void addToDefaults();
    void removeFromDefaults();

    bool setName(const std::string& name, KROErrorPtr* error = nullptr);
    bool setUniqueID(std::int32_t uniqueID, KROErrorPtr* error = nullptr);
    // The stored name while online; "<name> (offline)" while offline.
    std::string displayName() const;

    virtual bool isOnline() const { return endpointID_ != 0; }
    bool hasDelegates() const;
    // The receiver is not retained; remove it before it goes.
    bool addReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error = nullptr);
    bool removeReceiver(KROMIDIReceiver* receiver, KROErrorPtr* error = nullptr);
    bool addSender(const void* sender, KROErrorPtr* error = nullptr);
    bool removeSender(const void* sender, KROErrorPtr* error = nullptr);

    virtual bool isRunning() const { return false; }
    virtual bool start(KROErrorPtr*) { return false; }
    virtual bool stop(KROErrorPtr*) { return false; }
    // Whether the endpoint receives (a source of the service) or sends.
    virtual bool isInput() const { return false; }

    EndpointID endpointID() const { return endpointID_; }
    const std::string& name() const { return name_; }
    std::int32_t uniqueID() const { return uniqueID_; }

    // One packet of received bytes at timestamp (seconds on the host clock);
    // input endpoints reassemble it. The MIDI layer calls it on its input
    // thread.
    virtual void input(const std::uint8_t* bytes, std::size_t count, double timestamp);
    // Output endpoints send; sendsMessages() tells whether the class does.
    virtual bool sendsMessages() const { return false; }
    virtual bool sendMessage(const KROMIDIMessage* message, KROErrorPtr* error);
    virtual bool sendMessages(const std::vector<std::shared_ptr<KROMIDIMessage>>& messages,
                              KROErrorPtr* error);

    // Hands the message to every receiver, under the lock.
    void sendMessage(const std::shared_ptr<KROMIDIMessage>& message);
    // The MIDI layer's input procedure for an endpoint as its context.
    static void inputProc(void* context, const std::uint8_t* bytes, std::size_t count,
                          std::uint64_t hostTime);

protected:
    void setEndpointID(EndpointID id) { endpointID_ = id; }
    // The layer the endpoint was made on: its IDs and ports mean nothing on
    // another.
    const std::shared_ptr<KROMIDIBackend>& backend() const { return backend_; }

private:
    EndpointID findValidEndpointID() const;
    void readProperties();

    std::shared_ptr<KROMIDIBackend> backend_ = KROMIDIBackend::sharedBackend();
    EndpointID endpointID_ = 0;
    std::string name_;
    std::int32_t uniqueID_ = 0;
    std::string displayName_;
    std::set<KROMIDIReceiver*> receivers_;
    std::set<const void*> senders_;
    mutable std::mutex lock_;
};

// The failure site of the MIDI layer: a KROMIDIError with the status as code.
bool KROMIDIFail(KROErrorPtr* error, KROMIDIBackend::Status status, std::string_view action);
