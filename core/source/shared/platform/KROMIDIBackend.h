// The MIDI layer. Endpoints and the MIDI controller ask every question of the
// platform's MIDI service through this interface, so that a layer for another
// service (the ALSA sequencer) can stand under the same operations. The shared
// backend is JACK MIDI; tests may put their own in.
//
// Sources are endpoints that send to this process, destinations those that
// receive from it. An endpoint ID is never 0 and stays the same while the
// endpoint exists. Every call answers a status: 0 for success, else a code
// that passes through as the code of a KROMIDIError.
//
// Times are host clock ticks (CLOCK_MONOTONIC in nanoseconds, as
// KROMIDIMessage keeps them); 0 as a send time means at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioStreamBasicDescription.h" // KROFourCharCode

// Runs on the layer's input thread, never on a real-time thread: one packet of
// bytes as received, with its time in host ticks.
using KROMIDIInputProc = void (*)(void* context, const std::uint8_t* bytes, std::size_t count,
                                  std::uint64_t hostTime);

class KROMIDIBackend {
public:
    using Status = std::int64_t;
    using EndpointID = std::uint32_t;
    using PortID = std::uint32_t;
    using ListenerToken = std::uint64_t;

    static constexpr Status noError = 0;
    static constexpr Status notRunning = KROFourCharCode("stop");
    static constexpr Status badEndpoint = KROFourCharCode("!end");
    static constexpr Status badPort = KROFourCharCode("!prt");
    static constexpr Status unknownProperty = KROFourCharCode("who?");
    static constexpr Status notPermitted = KROFourCharCode("perm");
    static constexpr Status queueFull = KROFourCharCode("full");

    virtual ~KROMIDIBackend() = default;

    // The backend every endpoint uses: JACK MIDI unless one was set.
    static std::shared_ptr<KROMIDIBackend> sharedBackend();
    // Replaces the shared backend; none goes back to JACK. Set-up only.
    static void setSharedBackend(std::shared_ptr<KROMIDIBackend> backend);

    // The present endpoints, private ones left out.
    virtual Status sources(std::vector<EndpointID>& ids) = 0;
    virtual Status destinations(std::vector<EndpointID>& ids) = 0;

    // The endpoint's own name, and that of the device it belongs to (an
    // endpoint of this process has no device: unknownProperty).
    virtual Status name(EndpointID id, std::string& name) = 0;
    virtual Status deviceName(EndpointID id, std::string& name) = 0;
    virtual Status uniqueID(EndpointID id, std::int32_t& uniqueID) = 0;
    // Only this process's own endpoints can be renamed or renumbered.
    virtual Status setName(EndpointID id, const std::string& name) = 0;
    virtual Status setUniqueID(EndpointID id, std::int32_t uniqueID) = 0;
    // The unique IDs of what the endpoint is wired to, big-endian as stored;
    // none by default.
    virtual Status connectionUniqueIDs(EndpointID id, std::vector<std::int32_t>& ids);
    // A source or destination with the unique ID, else badEndpoint.
    virtual Status findByUniqueID(std::int32_t uniqueID, EndpointID& id) = 0;
    virtual Status isPrivate(EndpointID id, bool& isPrivate) = 0;
    virtual Status setPrivate(EndpointID id, bool isPrivate) = 0;

    // A port of this process that listens to sources connected to it.
    virtual Status createInputPort(const std::string& name, KROMIDIInputProc proc, void* context,
                                   PortID& port) = 0;
    virtual Status connectSource(PortID port, EndpointID source) = 0;
    virtual Status disconnectSource(PortID port, EndpointID source) = 0;
    // A port of this process that sends to destinations.
    virtual Status createOutputPort(const std::string& name, PortID& port) = 0;
    virtual Status disposePort(PortID port) = 0;
    // Queues the bytes for the destination, to arrive at the host time.
    virtual Status send(PortID port, EndpointID destination, const std::uint8_t* bytes,
                        std::size_t count, std::uint64_t hostTime) = 0;
    // Drops what is queued for the destination and not yet delivered.
    virtual Status flushOutput(EndpointID destination) = 0;
    // Waits at most timeoutSeconds until everything queued has left, so a
    // program can send and exit; notRunning when it has not.
    virtual Status waitUntilSent(double timeoutSeconds);

    // Endpoints of this process that others see: a destination that hands
    // what it receives to proc, and a source that sends what received() is
    // given.
    virtual Status createDestination(const std::string& name, KROMIDIInputProc proc, void* context,
                                     EndpointID& id) = 0;
    virtual Status createSource(const std::string& name, EndpointID& id) = 0;
    virtual Status received(EndpointID source, const std::uint8_t* bytes, std::size_t count,
                            std::uint64_t hostTime) = 0;
    virtual Status disposeEndpoint(EndpointID id) = 0;

    // A notice whenever sources or destinations come or go. Listeners run on
    // a thread of the layer and may remove themselves.
    virtual ListenerToken addSetupListener(std::function<void()> listener) = 0;
    virtual void removeListener(ListenerToken token) = 0;
};
