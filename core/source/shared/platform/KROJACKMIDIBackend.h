// The MIDI layer on JACK MIDI, on the server the device layer uses (jackd2 or
// PipeWire's JACK). Sources and destinations are the MIDI ports of the server
// that own hardware (JackPortIsPhysical), and the endpoints this process makes
// itself; every port of this process belongs to one JACK client of its own.
//
// Time: host ticks are CLOCK_MONOTONIC nanoseconds, JACK's clock
// (jack_get_time) counts microseconds. The offset between the two is read
// once when the client opens; a host time becomes JACK microseconds by that
// offset, and JACK microseconds become frames of JACK's frame clock with
// jack_time_to_frames (and back with jack_frames_to_time). A received event
// is stamped with the host time of its frame (the cycle's first frame plus
// the event's offset); a sent one goes out in the cycle holding the frame of
// its host time, at that frame's offset, or at the start of the next cycle
// when its frame has passed or its time is 0. Events to one port leave in the
// order they were queued: one sent at once after a later one waits for it.
//
// Real time: JACK's process callback takes no lock and allocates nothing. It
// reads ports from a fixed table of slots published with atomics, copies what
// arrives into one lock-free ring that the layer's own input thread drains
// (that thread reassembles and delivers), and takes what to send from a ring
// per output port that host threads fill. A queue that is full drops the
// event and counts it.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "KROMIDIBackend.h"

class KROJACKMIDIBackend : public KROMIDIBackend {
public:
    KROJACKMIDIBackend();
    ~KROJACKMIDIBackend() override;
    KROJACKMIDIBackend(const KROJACKMIDIBackend&) = delete;
    KROJACKMIDIBackend& operator=(const KROJACKMIDIBackend&) = delete;

    Status sources(std::vector<EndpointID>& ids) override;
    Status destinations(std::vector<EndpointID>& ids) override;
    Status name(EndpointID id, std::string& name) override;
    Status deviceName(EndpointID id, std::string& name) override;
    Status uniqueID(EndpointID id, std::int32_t& uniqueID) override;
    Status setName(EndpointID id, const std::string& name) override;
    Status setUniqueID(EndpointID id, std::int32_t uniqueID) override;
    Status findByUniqueID(std::int32_t uniqueID, EndpointID& id) override;
    Status isPrivate(EndpointID id, bool& isPrivate) override;
    Status setPrivate(EndpointID id, bool isPrivate) override;

    Status createInputPort(const std::string& name, KROMIDIInputProc proc, void* context,
                           PortID& port) override;
    Status connectSource(PortID port, EndpointID source) override;
    Status disconnectSource(PortID port, EndpointID source) override;
    Status createOutputPort(const std::string& name, PortID& port) override;
    Status disposePort(PortID port) override;
    Status send(PortID port, EndpointID destination, const std::uint8_t* bytes, std::size_t count,
                std::uint64_t hostTime) override;
    Status flushOutput(EndpointID destination) override;
    Status waitUntilSent(double timeoutSeconds) override;

    Status createDestination(const std::string& name, KROMIDIInputProc proc, void* context,
                             EndpointID& id) override;
    Status createSource(const std::string& name, EndpointID& id) override;
    Status received(EndpointID source, const std::uint8_t* bytes, std::size_t count,
                    std::uint64_t hostTime) override;
    Status disposeEndpoint(EndpointID id) override;

    ListenerToken addSetupListener(std::function<void()> listener) override;
    void removeListener(ListenerToken token) override;

    // The mapping the header states, both ways.
    Status frameForHostTime(std::uint64_t hostTime, std::uint32_t& frame);
    Status hostTimeForFrame(std::uint32_t frame, std::uint64_t& hostTime);
    // The full JACK name of an endpoint ("client:port"), to wire it by hand.
    Status portName(EndpointID id, std::string& name);
    // Events lost to a full queue, both ways.
    std::uint64_t droppedEvents() const { return dropped_.load(); }

protected:
    // One cycle of JACK's process callback, the real-time part; tests watch
    // it from an override that calls this.
    virtual void processCycle(std::uint32_t frames);

private:
    struct Slot;
    static constexpr std::size_t kSlots = 64;

    Status connect();
    Status endpointPortName(EndpointID id, std::string& name);
    // Under the lock: body(full port name) for a known endpoint, else the
    // status that says why not.
    template <typename Body> Status withEndpoint(EndpointID id, Body body) {
        const std::lock_guard guard(lock_);
        std::string full;
        if (const Status status = endpointPortName(id, full); status != noError) {
            return status;
        }
        return body(full);
    }
    EndpointID idForPortName(const std::string& name);
    Status listEndpoints(unsigned long direction, std::vector<EndpointID>& ids);
    Status registerPort(const std::string& name, bool isInput, std::size_t& slotIndex);
    void waitUntilConnectionIsLive(const Slot& slot, const std::string& destination);
    // Takes lock_ and inputLock_ in turn, never one inside the other.
    void unregisterPort(std::size_t slotIndex);
    Slot* slotForPort(PortID port);
    Slot* slotForEndpoint(EndpointID id);
    Status enqueue(Slot& slot, const std::uint8_t* bytes, std::size_t count,
                   std::uint64_t hostTime);
    void waitForCycleEnd();

    // Real-time helpers.
    void readInput(std::size_t slotIndex, void* buffer, std::uint32_t cycleStart, bool& received);
    void writeOutput(Slot& slot, void* buffer, std::uint32_t cycleStart, std::uint32_t frames);
    std::uint64_t hostTimeOfFrame(std::uint32_t frame) const;

    void runWorker();
    void drainInput();
    void deliverSetupNotice();
    std::vector<std::string> endpointNames();

    static int processCallback(std::uint32_t frames, void* argument);
    static void portRegistrationCallback(std::uint32_t port, int registered, void* argument);
    static void portRenameCallback(std::uint32_t port, const char* oldName, const char* newName,
                                   void* argument);
    static void shutdownCallback(void* argument);

    std::mutex lock_;
    void* client_ = nullptr;
    std::int64_t jackMinusHostMicroseconds_ = 0;
    std::map<std::string, EndpointID> ids_;
    std::map<EndpointID, std::string> portNames_;
    EndpointID nextID_ = 1;
    std::unique_ptr<Slot[]> slots_;

    // Filled by JACK's thread, drained by the worker under inputLock_.
    void* incoming_ = nullptr;
    std::mutex inputLock_;
    sem_t inputReady_;
    std::atomic<std::uint64_t> cycles_{0};
    std::atomic<std::uint64_t> dropped_{0};
    std::atomic<bool> setupChanged_{false};
    std::atomic<bool> serverGone_{false};

    std::mutex listenerLock_;
    std::map<ListenerToken, std::shared_ptr<std::function<void()>>> listeners_;
    ListenerToken nextToken_ = 1;
    // The worker's: the endpoints last told, and until when it compares.
    std::vector<std::string> knownEndpoints_;
    std::chrono::steady_clock::time_point compareSetupUntil_;

    std::atomic<bool> quit_{false};
    std::thread worker_;
};
