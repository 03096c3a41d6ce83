#include "KROJACKMIDIBackend.h"

#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <span>

namespace {

// Ample for a burst of sysex from several devices within one drain.
constexpr std::size_t kIncomingBytes = 1 << 18;
constexpr std::size_t kOutgoingBytes = 1 << 16;

jack_client_t* asClient(void* client) {
    return static_cast<jack_client_t*>(client);
}

jack_ringbuffer_t* asRing(void* ring) {
    return static_cast<jack_ringbuffer_t*>(ring);
}

std::int64_t monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// 32-bit FNV-1a of the port's full name: the same port gets the same unique
// ID in every run.
std::int32_t uniqueIDForName(const std::string& name) {
    std::uint32_t hash = 2166136261u;
    for (const char character : name) {
        hash = (hash ^ std::uint8_t(character)) * 16777619u;
    }
    return std::int32_t(hash);
}

struct IncomingHeader {
    std::uint32_t slot;
    std::uint32_t size;
    std::uint64_t hostTime;
};

struct OutgoingHeader {
    std::uint32_t size;
    std::uint32_t frame;
    bool atOnce;
};

} // namespace

// Fields read by JACK's thread are set before port is published and cleared
// only after it is withdrawn and a cycle has ended.
struct KROJACKMIDIBackend::Slot {
    std::atomic<jack_port_t*> port{nullptr};
    bool isInput = false;
    jack_ringbuffer_t* outgoing = nullptr;
    std::atomic<bool> flushRequested{false};

    // Host side, under the backend's lock_; proc and context under inputLock_
    // alone, which is never taken inside lock_.
    std::mutex writerLock;
    KROMIDIInputProc proc = nullptr;
    void* context = nullptr;
    std::string fullName;
    bool isEndpoint = false;
    bool isPrivate = false;
    std::optional<std::int32_t> uniqueID;
    std::set<EndpointID> connected;

    bool inUse = false;

    ~Slot() { release(); }
    // Back to unused; JACK's thread no longer sees the port.
    void release() {
        if (outgoing) {
            jack_ringbuffer_free(outgoing);
        }
        outgoing = nullptr;
        fullName.clear();
        isEndpoint = false;
        isPrivate = false;
        uniqueID.reset();
        connected.clear();
        inUse = false;
    }
};

KROJACKMIDIBackend::KROJACKMIDIBackend() : slots_(std::make_unique<Slot[]>(kSlots)) {
    sem_init(&inputReady_, 0, 0);
    incoming_ = jack_ringbuffer_create(kIncomingBytes);
    worker_ = std::thread([this] { runWorker(); });
}

KROJACKMIDIBackend::~KROJACKMIDIBackend() {
    quit_.store(true);
    sem_post(&inputReady_);
    worker_.join();
    if (client_) {
        jack_client_close(asClient(client_));
    }
    jack_ringbuffer_free(asRing(incoming_));
    sem_destroy(&inputReady_);
}

KROMIDIBackend::Status KROJACKMIDIBackend::connect() {
    if (serverGone_.load()) {
        return notRunning;
    }
    if (client_) {
        return noError;
    }
    jack_status_t status{};
    jack_client_t* client = jack_client_open("krocore-midi", JackNoStartServer, &status);
    if (!client) {
        return notRunning;
    }
    jack_set_process_callback(client, processCallback, this);
    jack_set_port_registration_callback(client, portRegistrationCallback, this);
    jack_set_port_rename_callback(client, portRenameCallback, this);
    jack_on_shutdown(client, shutdownCallback, this);
    // Set before activation, which starts the thread that reads them.
    jackMinusHostMicroseconds_ = std::int64_t(jack_get_time()) - monotonicMicroseconds();
    client_ = client;
    if (jack_activate(client) != 0) {
        client_ = nullptr;
        jack_client_close(client);
        return notRunning;
    }
    return noError;
}

KROMIDIBackend::EndpointID KROJACKMIDIBackend::idForPortName(const std::string& name) {
    const auto [entry, isNew] = ids_.emplace(name, nextID_);
    if (isNew) {
        portNames_[nextID_++] = name;
    }
    return entry->second;
}

KROMIDIBackend::Status KROJACKMIDIBackend::endpointPortName(EndpointID id, std::string& name) {
    if (const Status status = connect(); status != noError) {
        return status;
    }
    const auto entry = portNames_.find(id);
    if (entry == portNames_.end() || !jack_port_by_name(asClient(client_), entry->second.c_str())) {
        return badEndpoint;
    }
    name = entry->second;
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::portName(EndpointID id, std::string& name) {
    const std::lock_guard guard(lock_);
    return endpointPortName(id, name);
}

KROJACKMIDIBackend::Slot* KROJACKMIDIBackend::slotForPort(PortID port) {
    if (port == 0 || port > kSlots || !slots_[port - 1].inUse) {
        return nullptr;
    }
    return &slots_[port - 1];
}

KROJACKMIDIBackend::Slot* KROJACKMIDIBackend::slotForEndpoint(EndpointID id) {
    const auto entry = portNames_.find(id);
    if (entry == portNames_.end()) {
        return nullptr;
    }
    for (Slot& slot : std::span(slots_.get(), kSlots)) {
        if (slot.inUse && slot.isEndpoint && slot.fullName == entry->second) {
            return &slot;
        }
    }
    return nullptr;
}

KROMIDIBackend::Status KROJACKMIDIBackend::listEndpoints(unsigned long direction,
                                                         std::vector<EndpointID>& ids) {
    const std::lock_guard guard(lock_);
    ids.clear();
    if (const Status status = connect(); status != noError) {
        return status;
    }
    const char** names =
        jack_get_ports(asClient(client_), nullptr, JACK_DEFAULT_MIDI_TYPE, direction);
    for (const char** name = names; name && *name; ++name) {
        const jack_port_t* port = jack_port_by_name(asClient(client_), *name);
        const bool isPhysical = port && (jack_port_flags(port) & JackPortIsPhysical) != 0;
        const EndpointID id = idForPortName(*name);
        const Slot* own = slotForEndpoint(id);
        if (isPhysical || (own && !own->isPrivate)) {
            ids.push_back(id);
        }
    }
    jack_free(static_cast<void*>(names));
    return noError;
}

// A source sends into this process: on JACK it is a port that outputs.
KROMIDIBackend::Status KROJACKMIDIBackend::sources(std::vector<EndpointID>& ids) {
    return listEndpoints(JackPortIsOutput, ids);
}

KROMIDIBackend::Status KROJACKMIDIBackend::destinations(std::vector<EndpointID>& ids) {
    return listEndpoints(JackPortIsInput, ids);
}

KROMIDIBackend::Status KROJACKMIDIBackend::name(EndpointID id, std::string& name) {
    return withEndpoint(id, [&](const std::string& full) {
        name = full.substr(full.find(':') + 1);
        return noError;
    });
}

KROMIDIBackend::Status KROJACKMIDIBackend::deviceName(EndpointID id, std::string& name) {
    return withEndpoint(id, [&](const std::string& full) {
        if (slotForEndpoint(id)) {
            return unknownProperty;
        }
        name = full.substr(0, full.find(':'));
        return noError;
    });
}

KROMIDIBackend::Status KROJACKMIDIBackend::uniqueID(EndpointID id, std::int32_t& uniqueID) {
    return withEndpoint(id, [&](const std::string& full) {
        const Slot* own = slotForEndpoint(id);
        uniqueID = own && own->uniqueID ? *own->uniqueID : uniqueIDForName(full);
        return noError;
    });
}

KROMIDIBackend::Status KROJACKMIDIBackend::setName(EndpointID id, const std::string& name) {
    return withEndpoint(id, [&](const std::string& full) {
        Slot* own = slotForEndpoint(id);
        if (!own) {
            return notPermitted;
        }
        if (jack_port_rename(asClient(client_), own->port.load(), name.c_str()) != 0) {
            return badEndpoint;
        }
        // The endpoint keeps its ID under the new name.
        ids_.erase(full);
        own->fullName = jack_port_name(own->port.load());
        ids_[own->fullName] = id;
        portNames_[id] = own->fullName;
        return noError;
    });
}

KROMIDIBackend::Status KROJACKMIDIBackend::setUniqueID(EndpointID id, std::int32_t uniqueID) {
    return withEndpoint(id, [&](const std::string&) {
        Slot* own = slotForEndpoint(id);
        if (!own) {
            return notPermitted;
        }
        own->uniqueID = uniqueID;
        return noError;
    });
}

KROMIDIBackend::Status KROJACKMIDIBackend::findByUniqueID(std::int32_t wanted, EndpointID& id) {
    std::vector<EndpointID> all;
    std::vector<EndpointID> more;
    if (const Status status = sources(all); status != noError) {
        return status;
    }
    destinations(more);
    all.insert(all.end(), more.begin(), more.end());
    for (const EndpointID candidate : all) {
        std::int32_t value = 0;
        if (uniqueID(candidate, value) == noError && value == wanted) {
            id = candidate;
            return noError;
        }
    }
    return badEndpoint;
}

KROMIDIBackend::Status KROJACKMIDIBackend::isPrivate(EndpointID id, bool& isPrivate) {
    const std::lock_guard guard(lock_);
    const Slot* own = slotForEndpoint(id);
    if (!own) {
        return notPermitted;
    }
    isPrivate = own->isPrivate;
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::setPrivate(EndpointID id, bool isPrivate) {
    const std::lock_guard guard(lock_);
    Slot* own = slotForEndpoint(id);
    if (!own) {
        return notPermitted;
    }
    own->isPrivate = isPrivate;
    setupChanged_.store(true);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::registerPort(const std::string& name, bool isInput,
                                                        std::size_t& slotIndex) {
    if (const Status status = connect(); status != noError) {
        return status;
    }
    Slot* const end = slots_.get() + kSlots;
    Slot* const free =
        std::find_if(slots_.get(), end, [](const Slot& slot) { return !slot.inUse; });
    if (free == end) {
        return queueFull;
    }
    // JACK wants port names unique within a client: a second port of the same
    // name gets a number.
    jack_port_t* port = nullptr;
    for (int number = 1; !port && number < 100; ++number) {
        const std::string candidate = number == 1 ? name : name + " " + std::to_string(number);
        if (!jack_port_by_name(
                asClient(client_),
                (jack_get_client_name(asClient(client_)) + (":" + candidate)).c_str())) {
            port = jack_port_register(asClient(client_), candidate.c_str(), JACK_DEFAULT_MIDI_TYPE,
                                      isInput ? JackPortIsInput : JackPortIsOutput, 0);
        }
    }
    if (!port) {
        return badPort;
    }
    Slot& slot = *free;
    slot.inUse = true;
    slot.isInput = isInput;
    slot.fullName = jack_port_name(port);
    if (!isInput) {
        slot.outgoing = jack_ringbuffer_create(kOutgoingBytes);
    }
    slot.port.store(port, std::memory_order_release);
    slotIndex = std::size_t(free - slots_.get());
    return noError;
}

void KROJACKMIDIBackend::waitForCycleEnd() {
    if (serverGone_.load()) {
        return;
    }
    // JACK's thread may still hold a port it loaded before it was withdrawn;
    // once a cycle that began after the withdrawal has ended, none does.
    const std::uint64_t start = cycles_.load();
    const std::uint64_t wanted = (start + 2) | 1;
    for (int attempt = 0; attempt < 200 && cycles_.load() < wanted; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// JACK takes a new connection into the graph at the start of a later cycle.
// Events written out before then reach nobody, and a command that sends once
// and quits would lose them all, so the first events to a destination wait.
void KROJACKMIDIBackend::waitUntilConnectionIsLive(const Slot& slot,
                                                   const std::string& destination) {
    // A deadline, not a count of tries: the query itself may sleep a period
    // while JACK has a graph change pending.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    const jack_port_t* port = slot.port.load(std::memory_order_acquire);
    while (port && !serverGone_.load() && std::chrono::steady_clock::now() < deadline &&
           !jack_port_connected_to(port, destination.c_str())) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void KROJACKMIDIBackend::unregisterPort(std::size_t slotIndex) {
    Slot& slot = slots_[slotIndex];
    {
        const std::lock_guard guard(lock_);
        jack_port_t* port = slot.port.exchange(nullptr);
        waitForCycleEnd();
        if (port && client_ && !serverGone_.load()) {
            jack_port_unregister(asClient(client_), port);
        }
    }
    // The input thread may be inside proc: it finishes before the slot goes.
    {
        const std::lock_guard guard(inputLock_);
        slot.proc = nullptr;
        slot.context = nullptr;
    }
    const std::lock_guard guard(lock_);
    slot.release();
}

KROMIDIBackend::Status KROJACKMIDIBackend::createInputPort(const std::string& name,
                                                           KROMIDIInputProc proc, void* context,
                                                           PortID& port) {
    std::size_t index = 0;
    {
        const std::lock_guard guard(lock_);
        if (const Status status = registerPort(name, true, index); status != noError) {
            return status;
        }
    }
    // What arrives before this is dropped.
    const std::lock_guard input(inputLock_);
    slots_[index].proc = proc;
    slots_[index].context = context;
    port = PortID(index + 1);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::connectSource(PortID port, EndpointID source) {
    const std::lock_guard guard(lock_);
    std::string sourceName;
    if (const Status status = endpointPortName(source, sourceName); status != noError) {
        return status;
    }
    Slot* slot = slotForPort(port);
    if (!slot || !slot->isInput) {
        return badPort;
    }
    const int result = jack_connect(asClient(client_), sourceName.c_str(), slot->fullName.c_str());
    return result == 0 || result == EEXIST ? noError : badEndpoint;
}

KROMIDIBackend::Status KROJACKMIDIBackend::disconnectSource(PortID port, EndpointID source) {
    const std::lock_guard guard(lock_);
    Slot* slot = slotForPort(port);
    if (!slot) {
        return badPort;
    }
    std::string sourceName;
    // A source that went has nothing left to disconnect.
    if (endpointPortName(source, sourceName) != noError) {
        return noError;
    }
    jack_disconnect(asClient(client_), sourceName.c_str(), slot->fullName.c_str());
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::createOutputPort(const std::string& name, PortID& port) {
    const std::lock_guard guard(lock_);
    std::size_t index = 0;
    if (const Status status = registerPort(name, false, index); status != noError) {
        return status;
    }
    port = PortID(index + 1);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::disposePort(PortID port) {
    {
        const std::lock_guard guard(lock_);
        if (!slotForPort(port)) {
            return badPort;
        }
    }
    unregisterPort(port - 1);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::enqueue(Slot& slot, const std::uint8_t* bytes,
                                                   std::size_t count, std::uint64_t hostTime) {
    OutgoingHeader header{std::uint32_t(count), 0, hostTime == 0};
    if (!header.atOnce) {
        const auto jackTime = std::int64_t(hostTime / 1000) + jackMinusHostMicroseconds_;
        header.frame = jack_time_to_frames(asClient(client_),
                                           jack_time_t(std::max<std::int64_t>(jackTime, 0)));
    }
    const std::lock_guard writer(slot.writerLock);
    if (jack_ringbuffer_write_space(slot.outgoing) < sizeof header + count) {
        dropped_.fetch_add(1);
        return queueFull;
    }
    jack_ringbuffer_write(slot.outgoing, reinterpret_cast<const char*>(&header), sizeof header);
    jack_ringbuffer_write(slot.outgoing, reinterpret_cast<const char*>(bytes), count);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::send(PortID port, EndpointID destination,
                                                const std::uint8_t* bytes, std::size_t count,
                                                std::uint64_t hostTime) {
    const std::lock_guard guard(lock_);
    std::string destinationName;
    if (const Status status = endpointPortName(destination, destinationName); status != noError) {
        return status;
    }
    Slot* slot = slotForPort(port);
    if (!slot || slot->isInput) {
        return badPort;
    }
    if (!slot->connected.count(destination)) {
        const int result =
            jack_connect(asClient(client_), slot->fullName.c_str(), destinationName.c_str());
        if (result != 0 && result != EEXIST) {
            return badEndpoint;
        }
        slot->connected.insert(destination);
        waitUntilConnectionIsLive(*slot, destinationName);
    }
    return enqueue(*slot, bytes, count, hostTime);
}

KROMIDIBackend::Status KROJACKMIDIBackend::flushOutput(EndpointID destination) {
    const std::lock_guard guard(lock_);
    for (Slot& slot : std::span(slots_.get(), kSlots)) {
        if (slot.inUse && !slot.isInput &&
            (destination == 0 || slot.connected.count(destination))) {
            slot.flushRequested.store(true);
        }
    }
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::waitUntilSent(double timeoutSeconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    const auto isQueued = [this] {
        const std::lock_guard guard(lock_);
        return std::any_of(slots_.get(), slots_.get() + kSlots, [](const Slot& slot) {
            return slot.inUse && slot.outgoing && jack_ringbuffer_read_space(slot.outgoing) > 0;
        });
    };
    while (isQueued()) {
        if (serverGone_.load() || std::chrono::steady_clock::now() > deadline) {
            return notRunning;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // The last events are in the port buffers of the cycle now running.
    waitForCycleEnd();
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::createDestination(const std::string& name,
                                                             KROMIDIInputProc proc, void* context,
                                                             EndpointID& id) {
    PortID port = 0;
    if (const Status status = createInputPort(name, proc, context, port); status != noError) {
        return status;
    }
    const std::lock_guard guard(lock_);
    slots_[port - 1].isEndpoint = true;
    id = idForPortName(slots_[port - 1].fullName);
    setupChanged_.store(true);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::createSource(const std::string& name, EndpointID& id) {
    PortID port = 0;
    if (const Status status = createOutputPort(name, port); status != noError) {
        return status;
    }
    const std::lock_guard guard(lock_);
    slots_[port - 1].isEndpoint = true;
    id = idForPortName(slots_[port - 1].fullName);
    setupChanged_.store(true);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::received(EndpointID source, const std::uint8_t* bytes,
                                                    std::size_t count, std::uint64_t hostTime) {
    const std::lock_guard guard(lock_);
    Slot* slot = slotForEndpoint(source);
    if (!slot || slot->isInput) {
        return badEndpoint;
    }
    return enqueue(*slot, bytes, count, hostTime);
}

KROMIDIBackend::Status KROJACKMIDIBackend::disposeEndpoint(EndpointID id) {
    std::size_t index = 0;
    {
        const std::lock_guard guard(lock_);
        Slot* slot = slotForEndpoint(id);
        if (!slot) {
            return badEndpoint;
        }
        index = std::size_t(slot - slots_.get());
    }
    unregisterPort(index);
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::frameForHostTime(std::uint64_t hostTime,
                                                            std::uint32_t& frame) {
    const std::lock_guard guard(lock_);
    if (const Status status = connect(); status != noError) {
        return status;
    }
    const auto jackTime = std::int64_t(hostTime / 1000) + jackMinusHostMicroseconds_;
    frame =
        jack_time_to_frames(asClient(client_), jack_time_t(std::max<std::int64_t>(jackTime, 0)));
    return noError;
}

KROMIDIBackend::Status KROJACKMIDIBackend::hostTimeForFrame(std::uint32_t frame,
                                                            std::uint64_t& hostTime) {
    const std::lock_guard guard(lock_);
    if (const Status status = connect(); status != noError) {
        return status;
    }
    hostTime = hostTimeOfFrame(frame);
    return noError;
}

std::uint64_t KROJACKMIDIBackend::hostTimeOfFrame(std::uint32_t frame) const {
    const auto jackTime = std::int64_t(jack_frames_to_time(asClient(client_), frame));
    return std::uint64_t(std::max<std::int64_t>(jackTime - jackMinusHostMicroseconds_, 0)) * 1000;
}

// ---- JACK's thread

int KROJACKMIDIBackend::processCallback(std::uint32_t frames, void* argument) {
    static_cast<KROJACKMIDIBackend*>(argument)->processCycle(frames);
    return 0;
}

void KROJACKMIDIBackend::processCycle(std::uint32_t frames) {
    cycles_.fetch_add(1);
    const std::uint32_t cycleStart = jack_last_frame_time(asClient(client_));
    bool received = false;
    for (std::size_t index = 0; index < kSlots; ++index) {
        Slot& slot = slots_[index];
        jack_port_t* port = slot.port.load(std::memory_order_acquire);
        if (!port) {
            continue;
        }
        void* buffer = jack_port_get_buffer(port, frames);
        if (slot.isInput) {
            readInput(index, buffer, cycleStart, received);
        } else {
            writeOutput(slot, buffer, cycleStart, frames);
        }
    }
    cycles_.fetch_add(1);
    if (received) {
        sem_post(&inputReady_);
    }
}

void KROJACKMIDIBackend::readInput(std::size_t slotIndex, void* buffer, std::uint32_t cycleStart,
                                   bool& received) {
    jack_ringbuffer_t* ring = asRing(incoming_);
    const std::uint32_t count = jack_midi_get_event_count(buffer);
    for (std::uint32_t index = 0; index < count; ++index) {
        jack_midi_event_t event{};
        if (jack_midi_event_get(&event, buffer, index) != 0) {
            continue;
        }
        const IncomingHeader header{std::uint32_t(slotIndex), std::uint32_t(event.size),
                                    hostTimeOfFrame(cycleStart + event.time)};
        if (jack_ringbuffer_write_space(ring) < sizeof header + event.size) {
            dropped_.fetch_add(1);
            continue;
        }
        jack_ringbuffer_write(ring, reinterpret_cast<const char*>(&header), sizeof header);
        jack_ringbuffer_write(ring, reinterpret_cast<const char*>(event.buffer), event.size);
        received = true;
    }
}

void KROJACKMIDIBackend::writeOutput(Slot& slot, void* buffer, std::uint32_t cycleStart,
                                     std::uint32_t frames) {
    jack_midi_clear_buffer(buffer);
    jack_ringbuffer_t* ring = slot.outgoing;
    if (slot.flushRequested.exchange(false)) {
        jack_ringbuffer_read_advance(ring, jack_ringbuffer_read_space(ring));
        return;
    }
    // Events leave in the order they were queued, never before an earlier one.
    std::uint32_t offset = 0;
    OutgoingHeader header{};
    while (jack_ringbuffer_peek(ring, reinterpret_cast<char*>(&header), sizeof header) ==
               sizeof header &&
           jack_ringbuffer_read_space(ring) >= sizeof header + header.size) {
        if (!header.atOnce) {
            const auto due = std::int32_t(header.frame - cycleStart);
            if (due >= std::int32_t(frames)) {
                break;
            }
            offset = std::max(offset, std::uint32_t(std::max(due, 0)));
        }
        jack_midi_data_t* data = jack_midi_event_reserve(buffer, offset, header.size);
        if (!data) {
            break;
        }
        jack_ringbuffer_read_advance(ring, sizeof header);
        jack_ringbuffer_read(ring, reinterpret_cast<char*>(data), header.size);
    }
}

void KROJACKMIDIBackend::portRegistrationCallback(std::uint32_t, int, void* argument) {
    static_cast<KROJACKMIDIBackend*>(argument)->setupChanged_.store(true);
}

void KROJACKMIDIBackend::portRenameCallback(std::uint32_t, const char*, const char*,
                                            void* argument) {
    static_cast<KROJACKMIDIBackend*>(argument)->setupChanged_.store(true);
}

void KROJACKMIDIBackend::shutdownCallback(void* argument) {
    auto* self = static_cast<KROJACKMIDIBackend*>(argument);
    self->serverGone_.store(true);
    self->setupChanged_.store(true);
}

// ---- The layer's worker thread

void KROJACKMIDIBackend::runWorker() {
    while (!quit_.load()) {
        // Woken by each cycle that received something; the timeout polls the
        // flags JACK's notices set.
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_nsec += 20 * 1000000;
        if (deadline.tv_nsec >= 1000000000) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000;
        }
        sem_timedwait(&inputReady_, &deadline);
        drainInput();
        // JACK may tell of a port before the server's list shows the change,
        // so a notice is followed by a few more comparisons.
        const auto now = std::chrono::steady_clock::now();
        if (setupChanged_.exchange(false)) {
            compareSetupUntil_ = now + std::chrono::milliseconds(250);
        }
        if (now < compareSetupUntil_) {
            deliverSetupNotice();
        }
    }
}

void KROJACKMIDIBackend::drainInput() {
    const std::lock_guard guard(inputLock_);
    jack_ringbuffer_t* ring = asRing(incoming_);
    std::vector<std::uint8_t> bytes;
    IncomingHeader header{};
    while (jack_ringbuffer_peek(ring, reinterpret_cast<char*>(&header), sizeof header) ==
               sizeof header &&
           jack_ringbuffer_read_space(ring) >= sizeof header + header.size) {
        jack_ringbuffer_read_advance(ring, sizeof header);
        bytes.resize(header.size);
        jack_ringbuffer_read(ring, reinterpret_cast<char*>(bytes.data()), header.size);
        const Slot& slot = slots_[header.slot];
        if (slot.proc) {
            slot.proc(slot.context, bytes.data(), bytes.size(), header.hostTime);
        }
    }
}

std::vector<std::string> KROJACKMIDIBackend::endpointNames() {
    std::vector<EndpointID> ids;
    std::vector<EndpointID> more;
    sources(ids);
    destinations(more);
    ids.insert(ids.end(), more.begin(), more.end());
    std::vector<std::string> names;
    const std::lock_guard guard(lock_);
    for (const EndpointID id : ids) {
        names.push_back(portNames_[id]);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void KROJACKMIDIBackend::deliverSetupNotice() {
    std::vector<std::string> names = endpointNames();
    if (names == knownEndpoints_) {
        return;
    }
    knownEndpoints_ = std::move(names);
    std::vector<std::shared_ptr<std::function<void()>>> listeners;
    {
        const std::lock_guard guard(listenerLock_);
        for (const auto& [token, listener] : listeners_) {
            listeners.push_back(listener);
        }
    }
    for (const auto& listener : listeners) {
        (*listener)();
    }
}

KROMIDIBackend::ListenerToken KROJACKMIDIBackend::addSetupListener(std::function<void()> listener) {
    {
        // Opens the client, so that JACK's notices reach this layer.
        const std::lock_guard guard(lock_);
        connect();
    }
    const std::lock_guard guard(listenerLock_);
    listeners_[nextToken_] = std::make_shared<std::function<void()>>(std::move(listener));
    return nextToken_++;
}

void KROJACKMIDIBackend::removeListener(ListenerToken token) {
    const std::lock_guard guard(listenerLock_);
    listeners_.erase(token);
}
