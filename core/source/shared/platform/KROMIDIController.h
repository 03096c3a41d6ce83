// The shared MIDI controller: lists the endpoints of the MIDI service and
// follows them as devices come and go, and keeps the default input and output
// endpoints as arrays of unique IDs in the user defaults, under
// "KROMIDIDefaultInputIDs" and "KROMIDIDefaultOutputIDs".
//
// It posts "KROMIDISetupChanged" on the default notification center when
// endpoints came or went (after its lists are up to date), and
// "KROMIDIDefaultEndpointsChanged" when the defaults changed. Setup notices
// arrive on the MIDI layer's thread; between suspendUpdates and resumeUpdates
// (which nest) they are held, and one is posted at the last resume.
//
// Endpoints of the lists are physical endpoints, one per source or
// destination; a default endpoint whose device went stays in the list,
// offline, to be found again when it comes back. Safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "KROMIDIBackend.h"
#include "KROMIDIEndpointList.h"

class KROUserDefaults;

class KROMIDIController {
public:
    static constexpr const char* setupChangedNotification = "KROMIDISetupChanged";
    static constexpr const char* defaultEndpointsChangedNotification =
        "KROMIDIDefaultEndpointsChanged";
    static constexpr const char* defaultInputIDsKey = "KROMIDIDefaultInputIDs";
    static constexpr const char* defaultOutputIDsKey = "KROMIDIDefaultOutputIDs";

    static KROMIDIController& sharedController();

    KROMIDIController() = default;
    ~KROMIDIController();
    KROMIDIController(const KROMIDIController&) = delete;
    KROMIDIController& operator=(const KROMIDIController&) = delete;

    // Where the defaults live: the standard store unless a host gives another.
    void setUserDefaults(KROUserDefaults* defaults);

    void suspendUpdates();
    void resumeUpdates();

    // The endpoints now; each call follows the shared MIDI layer, so a layer
    // set later is listened to from the next call on.
    KROMIDIEndpointList inputs();
    KROMIDIEndpointList outputs();
    // Rescans the service and answers whether the lists changed.
    bool refresh();

    std::vector<std::int32_t> defaultInputIDs();
    std::vector<std::int32_t> defaultOutputIDs();
    KROMIDIEndpointList defaultInputs();
    KROMIDIEndpointList defaultOutputs();
    // By the endpoint's direction; a change posts the notice.
    void addEndpointToDefaults(const KROMIDIEndpoint& endpoint);
    void removeEndpointFromDefaults(const KROMIDIEndpoint& endpoint);

private:
    void listen();
    void setupChanged(const KROMIDIBackend* from);
    bool rescan();
    bool rescanSide(bool inputs, KROMIDIEndpointList& list,
                    const std::vector<std::int32_t>& defaults);
    std::vector<std::int32_t> defaultIDs(const char* key);
    void changeDefaults(const KROMIDIEndpoint& endpoint, bool add);
    KROUserDefaults& defaults();

    std::recursive_mutex lock_;
    KROUserDefaults* defaults_ = nullptr;
    std::weak_ptr<KROMIDIBackend> listenedBackend_;
    KROMIDIBackend::ListenerToken listenerToken_ = 0;
    int suspensions_ = 0;
    bool changedWhileSuspended_ = false;
    KROMIDIEndpointList inputs_;
    KROMIDIEndpointList outputs_;
};
