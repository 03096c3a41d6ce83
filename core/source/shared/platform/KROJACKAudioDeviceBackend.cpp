#include "KROJACKAudioDeviceBackend.h"

#include <jack/jack.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

jack_client_t* asClient(void* client) {
    return static_cast<jack_client_t*>(client);
}

// JACK writes its failures to standard error by default; here they become
// status codes instead.
void silentJACKMessage(const char*) {}

std::uint64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
}

// The names of the ports that match, in the server's order.
std::vector<std::string> portNames(jack_client_t* client, unsigned long flags) {
    std::vector<std::string> names;
    const char** ports = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, flags);
    for (const char** port = ports; port && *port; ++port) {
        names.emplace_back(*port);
    }
    jack_free(ports);
    return names;
}

std::string clientOfPort(const std::string& port) {
    return port.substr(0, port.find(':'));
}

// libjack crashes in jack_client_close on a client whose server has gone
// away, so such a client is given up and left unclosed; the leak checker is
// told that this is deliberate.
void abandonClient([[maybe_unused]] jack_client_t* client) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(client);
#endif
}

constexpr std::uint32_t largestBufferFrames = 8192;
constexpr std::uint32_t smallestBufferFrames = 16;

} // namespace

struct KROJACKAudioDeviceBackend::Device {
    DeviceID id = 0;
    std::string clientName;
    // Physical capture ports: the device's inputs.
    std::vector<std::string> capture;
    // Physical playback ports: the device's outputs.
    std::vector<std::string> playback;

    const std::vector<std::string>& ports(std::uint32_t scope) const {
        return scope == scopeInput ? capture : playback;
    }
};

template <typename Answer>
KROAudioDeviceBackend::Status KROJACKAudioDeviceBackend::withDevice(DeviceID id, Answer answer) {
    const std::lock_guard guard(lock_);
    Device device;
    if (const Status status = lookUp(id, device)) {
        return status;
    }
    return answer(device);
}

// One registered callback: a JACK client with one port per channel. Only the
// process thread writes the counters; they are atomic for the readers.
struct KROJACKAudioDeviceBackend::IOProc {
    jack_client_t* client = nullptr;
    DeviceID deviceID = 0;
    std::uint32_t scope = 0;
    KROAudioDeviceIOProc proc = nullptr;
    void* context = nullptr;
    KROJACKAudioDeviceBackend* backend = nullptr;
    std::vector<jack_port_t*> ports;
    std::vector<KROAudioDeviceBuffer> buffers;
    bool running = false;
    // Set when the server went away: JACK then refuses every call on the
    // client but jack_client_close.
    std::atomic<bool> gone{false};

    bool counting = false;
    std::uint32_t lastFrameTime = 0;
    std::int64_t sampleTime = 0;
    std::atomic<std::uint64_t> callbacks{0};
    std::atomic<std::uint64_t> xruns{0};
    std::atomic<double> totalLoad{0.0};
    std::atomic<double> peakLoad{0.0};

    static int process(jack_nframes_t frames, void* argument);
    static int xrun(void* argument);
    static void shutdown(void* argument);
    // The 32-bit frame time of JACK, carried on in 64 bits.
    KROAudioDeviceTimestamp timestamp();
    void measure(std::uint64_t startNanoseconds, jack_nframes_t frames);
};

KROAudioDeviceTimestamp KROJACKAudioDeviceBackend::IOProc::timestamp() {
    jack_nframes_t frameTime = 0;
    jack_time_t currentMicroseconds = 0;
    jack_time_t nextMicroseconds = 0;
    float periodMicroseconds = 0.0f;
    if (jack_get_cycle_times(client, &frameTime, &currentMicroseconds, &nextMicroseconds,
                             &periodMicroseconds) != 0) {
        frameTime = jack_last_frame_time(client);
        currentMicroseconds = jack_get_time();
    }
    if (!counting) {
        sampleTime = frameTime;
        counting = true;
    } else {
        sampleTime += std::uint32_t(frameTime - lastFrameTime);
    }
    lastFrameTime = frameTime;
    return {std::uint64_t(currentMicroseconds) * 1000u, sampleTime};
}

void KROJACKAudioDeviceBackend::IOProc::measure(std::uint64_t startNanoseconds,
                                                jack_nframes_t frames) {
    const double rate = double(jack_get_sample_rate(client));
    if (rate <= 0.0 || frames == 0) {
        return;
    }
    const double period = double(frames) / rate * 1e9;
    const double load = double(monotonicNanoseconds() - startNanoseconds) / period;
    totalLoad.store(totalLoad.load(std::memory_order_relaxed) + load, std::memory_order_relaxed);
    if (load > peakLoad.load(std::memory_order_relaxed)) {
        peakLoad.store(load, std::memory_order_relaxed);
    }
    callbacks.fetch_add(1, std::memory_order_relaxed);
}

int KROJACKAudioDeviceBackend::IOProc::process(jack_nframes_t frames, void* argument) {
    IOProc& self = *static_cast<IOProc*>(argument);
    const std::uint64_t start = monotonicNanoseconds();
    for (std::size_t i = 0; i < self.ports.size(); ++i) {
        auto* data = static_cast<float*>(jack_port_get_buffer(self.ports[i], frames));
        // The head adds its output into the device's memory, so that what
        // other clients wrote stays; a JACK port buffer starts at zero.
        if (self.scope == scopeOutput) {
            std::memset(data, 0, frames * sizeof(float));
        }
        self.buffers[i] = {data, 1};
    }
    const KROAudioDeviceTimestamp stamp = self.timestamp();
    self.proc(self.context, self.buffers.data(), self.buffers.size(), frames, stamp);
    self.measure(start, frames);
    return 0;
}

int KROJACKAudioDeviceBackend::IOProc::xrun(void* argument) {
    static_cast<IOProc*>(argument)->xruns.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void KROJACKAudioDeviceBackend::IOProc::shutdown(void* argument) {
    auto* self = static_cast<IOProc*>(argument);
    self->gone.store(true);
    // The server is one for every client: the management client is dead too.
    self->backend->serverGone_.store(true);
    self->backend->portsChanged_.store(true);
}

KROJACKAudioDeviceBackend::KROJACKAudioDeviceBackend() {
    jack_set_error_function(silentJACKMessage);
    jack_set_info_function(silentJACKMessage);
    worker_ = std::thread([this] { runWorker(); });
}

KROJACKAudioDeviceBackend::~KROJACKAudioDeviceBackend() {
    {
        const std::lock_guard guard(workerLock_);
        quit_ = true;
    }
    workerWake_.notify_all();
    worker_.join();
    const std::lock_guard guard(lock_);
    for (auto& [procID, proc] : procs_) {
        if (proc->gone.load()) {
            abandonClient(proc->client);
        } else {
            jack_client_close(proc->client);
        }
    }
    procs_.clear();
    disconnect();
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::connect() {
    if (client_ && !serverGone_.load()) {
        return noError;
    }
    if (serverGone_.load()) {
        // Every client of the old server is dead, whether or not its own
        // notice came.
        for (auto& [procID, proc] : procs_) {
            proc->gone.store(true);
        }
    }
    disconnect();
    serverGone_.store(false);
    jack_status_t status{};
    const std::string name = "kro-" + std::to_string(getpid());
    jack_client_t* client = jack_client_open(name.c_str(), JackNoStartServer, &status);
    if (!client) {
        return notRunning;
    }
    jack_set_buffer_size_callback(client, bufferSizeCallback, this);
    jack_set_sample_rate_callback(client, sampleRateCallback, this);
    jack_set_port_registration_callback(client, portRegistrationCallback, this);
    jack_on_shutdown(client, shutdownCallback, this);
    knownRate_ = jack_get_sample_rate(client);
    knownFrames_ = jack_get_buffer_size(client);
    // Activated with no ports, only to receive the server's notices.
    jack_activate(client);
    client_ = client;
    knownDevices_ = currentDeviceIDs();
    return noError;
}

void KROJACKAudioDeviceBackend::disconnect() {
    if (client_) {
        if (serverGone_.load()) {
            abandonClient(asClient(client_));
        } else {
            jack_client_close(asClient(client_));
        }
        client_ = nullptr;
    }
}

KROJACKAudioDeviceBackend::DeviceID
KROJACKAudioDeviceBackend::idForClient(const std::string& clientName) {
    const auto found = ids_.find(clientName);
    if (found != ids_.end()) {
        return found->second;
    }
    // Numbers are kept for the life of the backend, so that a device object
    // stays bound to the same client when others come and go.
    ids_[clientName] = nextID_;
    return nextID_++;
}

std::vector<KROJACKAudioDeviceBackend::Device> KROJACKAudioDeviceBackend::scanDevices() {
    std::vector<Device> devices;
    const auto deviceFor = [&](const std::string& port) -> Device& {
        const std::string clientName = clientOfPort(port);
        for (Device& device : devices) {
            if (device.clientName == clientName) {
                return device;
            }
        }
        devices.push_back({idForClient(clientName), clientName, {}, {}});
        return devices.back();
    };
    for (const std::string& port :
         portNames(asClient(client_), JackPortIsPhysical | JackPortIsOutput)) {
        deviceFor(port).capture.push_back(port);
    }
    for (const std::string& port :
         portNames(asClient(client_), JackPortIsPhysical | JackPortIsInput)) {
        deviceFor(port).playback.push_back(port);
    }
    std::sort(devices.begin(), devices.end(),
              [](const Device& a, const Device& b) { return a.id < b.id; });
    return devices;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::lookUp(DeviceID id, Device& device) {
    if (const Status status = connect()) {
        return status;
    }
    for (Device& candidate : scanDevices()) {
        if (candidate.id == id) {
            device = std::move(candidate);
            return noError;
        }
    }
    return badDevice;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::deviceIDs(std::vector<DeviceID>& ids) {
    const std::lock_guard guard(lock_);
    ids.clear();
    if (const Status status = connect()) {
        return status;
    }
    for (const Device& device : scanDevices()) {
        ids.push_back(device.id);
    }
    return noError;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::defaultDevice(std::uint32_t scope,
                                                                           DeviceID& id) {
    const std::lock_guard guard(lock_);
    id = 0;
    if (const Status status = connect()) {
        return status;
    }
    // JACK has no default: the first device with ports in that direction,
    // which on a plain server is "system".
    const std::uint32_t direction = scope == scopeInput ? scopeInput : scopeOutput;
    for (const Device& device : scanDevices()) {
        if (!device.ports(direction).empty()) {
            id = device.id;
            return noError;
        }
    }
    return badDevice;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::name(DeviceID id, std::string& name) {
    return withDevice(id, [&](const Device& device) {
        name = device.clientName;
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::uid(DeviceID id, std::string& uid) {
    return withDevice(id, [&](const Device& device) {
        uid = "jack:" + device.clientName;
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status
KROJACKAudioDeviceBackend::streamLayout(DeviceID id, std::uint32_t scope,
                                        std::vector<std::uint32_t>& channelsPerBuffer) {
    return withDevice(id, [&](const Device& device) {
        channelsPerBuffer.assign(device.ports(scope).size(), 1);
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::channelName(DeviceID id,
                                                                         std::uint32_t scope,
                                                                         std::uint32_t element,
                                                                         std::string& name) {
    return withDevice(id, [&](const Device& device) {
        const auto& ports = device.ports(scope);
        if (element == 0 || element > ports.size()) {
            return unknownProperty;
        }
        jack_port_t* port = jack_port_by_name(asClient(client_), ports[element - 1].c_str());
        if (!port) {
            return badDevice;
        }
        // An alias names the hardware ("alsa_pcm:...:out1") better than the
        // port; without one the port's own short name serves.
        const int size = jack_port_name_size();
        std::vector<char> first(std::size_t(size), '\0');
        std::vector<char> second(std::size_t(size), '\0');
        char* aliases[2] = {first.data(), second.data()};
        if (jack_port_get_aliases(port, aliases) > 0 && first[0] != '\0') {
            name = first.data();
        } else {
            name = jack_port_short_name(port);
        }
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status
KROJACKAudioDeviceBackend::sampleRateRanges(DeviceID id,
                                            std::vector<std::pair<double, double>>& ranges) {
    double rate = 0.0;
    if (const Status status = sampleRate(id, rate)) {
        return status;
    }
    // The server runs at one rate, which a client cannot change.
    ranges = {{rate, rate}};
    return noError;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::sampleRate(DeviceID id, double& rate) {
    return withDevice(id, [&](const Device&) {
        rate = jack_get_sample_rate(asClient(client_));
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::setSampleRate(DeviceID id,
                                                                           double rate) {
    double present = 0.0;
    if (const Status status = sampleRate(id, present)) {
        return status;
    }
    return rate == present ? noError : unsupportedOperation;
}

KROJACKAudioDeviceBackend::Status
KROJACKAudioDeviceBackend::bufferFrames(DeviceID id, std::uint32_t, std::uint32_t& frames) {
    return withDevice(id, [&](const Device&) {
        frames = jack_get_buffer_size(asClient(client_));
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status
KROJACKAudioDeviceBackend::setBufferFrames(DeviceID id, std::uint32_t, std::uint32_t frames) {
    return withDevice(id, [&](const Device&) {
        // The size is the server's, for both directions and every client.
        return jack_set_buffer_size(asClient(client_), frames) == 0 ? noError : illegalOperation;
    });
}

KROJACKAudioDeviceBackend::Status
KROJACKAudioDeviceBackend::bufferFrameRange(DeviceID id, std::uint32_t, std::uint32_t& minimum,
                                            std::uint32_t& maximum) {
    return withDevice(id, [&](const Device&) {
        minimum = smallestBufferFrames;
        maximum = largestBufferFrames;
        return noError;
    });
}

KROJACKAudioDeviceBackend::Status
KROJACKAudioDeviceBackend::createIOProc(DeviceID id, std::uint32_t scope, std::uint32_t channels,
                                        KROAudioDeviceIOProc proc, void* context,
                                        std::uint64_t& procID) {
    const std::lock_guard guard(lock_);
    Device device;
    if (const Status status = lookUp(id, device)) {
        return status;
    }
    auto entry = std::make_unique<IOProc>();
    const std::uint64_t number = nextProcID_++;
    const std::string clientName = "kro-" + std::to_string(getpid()) +
                                   (scope == scopeInput ? "-in-" : "-out-") +
                                   std::to_string(number);
    jack_status_t status{};
    entry->client = jack_client_open(clientName.c_str(), JackNoStartServer, &status);
    if (!entry->client) {
        return notRunning;
    }
    entry->deviceID = id;
    entry->scope = scope;
    entry->proc = proc;
    entry->context = context;
    entry->backend = this;
    const unsigned long flags = scope == scopeInput ? JackPortIsInput : JackPortIsOutput;
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        const std::string portName =
            (scope == scopeInput ? "in_" : "out_") + std::to_string(channel + 1);
        jack_port_t* port =
            jack_port_register(entry->client, portName.c_str(), JACK_DEFAULT_AUDIO_TYPE, flags, 0);
        if (!port) {
            jack_client_close(entry->client);
            return illegalOperation;
        }
        entry->ports.push_back(port);
    }
    entry->buffers.resize(channels);
    jack_set_process_callback(entry->client, IOProc::process, entry.get());
    jack_set_xrun_callback(entry->client, IOProc::xrun, entry.get());
    jack_on_shutdown(entry->client, IOProc::shutdown, entry.get());
    procID = number;
    procs_[number] = std::move(entry);
    return noError;
}

KROJACKAudioDeviceBackend::IOProc* KROJACKAudioDeviceBackend::findProc(std::uint64_t procID) const {
    const auto found = procs_.find(procID);
    return found == procs_.end() ? nullptr : found->second.get();
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::destroyIOProc(std::uint64_t procID) {
    const std::lock_guard guard(lock_);
    IOProc* proc = findProc(procID);
    if (!proc) {
        return illegalOperation;
    }
    // Closing deactivates first, so the callback has finished when this
    // returns. A client whose server went away is left as it is: libjack
    // crashes in jack_client_close then.
    if (proc->gone.load()) {
        abandonClient(proc->client);
    } else {
        jack_client_close(proc->client);
    }
    procs_.erase(procID);
    return noError;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::connectPorts(IOProc& proc) {
    Device device;
    if (const Status status = lookUp(proc.deviceID, device)) {
        return status;
    }
    const auto& devicePorts = device.ports(proc.scope);
    const std::size_t count = std::min(devicePorts.size(), proc.ports.size());
    for (std::size_t i = 0; i < count; ++i) {
        const char* own = jack_port_name(proc.ports[i]);
        const int result = proc.scope == scopeInput
                               ? jack_connect(proc.client, devicePorts[i].c_str(), own)
                               : jack_connect(proc.client, own, devicePorts[i].c_str());
        if (result != 0 && result != EEXIST) {
            return illegalOperation;
        }
    }
    return noError;
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::start(std::uint64_t procID) {
    const std::lock_guard guard(lock_);
    IOProc* found = findProc(procID);
    if (!found) {
        return illegalOperation;
    }
    IOProc& proc = *found;
    if (proc.running) {
        return noError;
    }
    if (proc.gone.load() || jack_activate(proc.client) != 0) {
        return notRunning;
    }
    proc.running = true;
    return connectPorts(proc);
}

KROJACKAudioDeviceBackend::Status KROJACKAudioDeviceBackend::stop(std::uint64_t procID) {
    const std::lock_guard guard(lock_);
    IOProc* found = findProc(procID);
    if (!found) {
        return illegalOperation;
    }
    IOProc& proc = *found;
    if (proc.running) {
        if (!proc.gone.load()) {
            jack_deactivate(proc.client);
        }
        proc.running = false;
    }
    return noError;
}

KROAudioDeviceIOStatistics KROJACKAudioDeviceBackend::statistics(std::uint64_t procID) const {
    const std::lock_guard guard(lock_);
    const IOProc* found = findProc(procID);
    if (!found) {
        return {};
    }
    const IOProc& proc = *found;
    KROAudioDeviceIOStatistics result;
    result.callbacks = proc.callbacks.load(std::memory_order_relaxed);
    result.xruns = proc.xruns.load(std::memory_order_relaxed);
    result.peakLoad = proc.peakLoad.load(std::memory_order_relaxed);
    if (result.callbacks > 0) {
        result.averageLoad =
            proc.totalLoad.load(std::memory_order_relaxed) / double(result.callbacks);
    }
    return result;
}

double KROJACKAudioDeviceBackend::serverLoad() {
    const std::lock_guard guard(lock_);
    if (connect() != noError) {
        return -1.0;
    }
    return jack_cpu_load(asClient(client_));
}

KROAudioDeviceBackend::ListenerToken
KROJACKAudioDeviceBackend::addSampleRateListener(DeviceID id, Listener listener) {
    const std::lock_guard guard(listenerLock_);
    ListenerEntry entry;
    entry.deviceID = id;
    entry.rateListener = std::make_shared<Listener>(std::move(listener));
    listeners_[nextToken_] = std::move(entry);
    return nextToken_++;
}

KROAudioDeviceBackend::ListenerToken
KROJACKAudioDeviceBackend::addDevicesListener(std::function<void()> listener) {
    {
        // The server's notices only come to an open management client.
        const std::lock_guard guard(lock_);
        connect();
    }
    const std::lock_guard guard(listenerLock_);
    ListenerEntry entry;
    entry.forDevices = true;
    entry.devicesListener = std::make_shared<std::function<void()>>(std::move(listener));
    listeners_[nextToken_] = std::move(entry);
    return nextToken_++;
}

void KROJACKAudioDeviceBackend::removeListener(ListenerToken token) {
    const std::lock_guard guard(listenerLock_);
    listeners_.erase(token);
}

int KROJACKAudioDeviceBackend::bufferSizeCallback(std::uint32_t, void* argument) {
    static_cast<KROJACKAudioDeviceBackend*>(argument)->formatChanged_.store(true);
    return 0;
}

int KROJACKAudioDeviceBackend::sampleRateCallback(std::uint32_t, void* argument) {
    static_cast<KROJACKAudioDeviceBackend*>(argument)->formatChanged_.store(true);
    return 0;
}

void KROJACKAudioDeviceBackend::portRegistrationCallback(std::uint32_t, int, void* argument) {
    static_cast<KROJACKAudioDeviceBackend*>(argument)->portsChanged_.store(true);
}

void KROJACKAudioDeviceBackend::shutdownCallback(void* argument) {
    auto* self = static_cast<KROJACKAudioDeviceBackend*>(argument);
    self->serverGone_.store(true);
    self->portsChanged_.store(true);
}

void KROJACKAudioDeviceBackend::runWorker() {
    std::unique_lock guard(workerLock_);
    while (!quit_) {
        // JACK's callbacks only set flags; polling them keeps every lock out
        // of JACK's threads.
        workerWake_.wait_for(guard, std::chrono::milliseconds(20));
        if (quit_) {
            break;
        }
        guard.unlock();
        deliverNotices();
        guard.lock();
    }
}

void KROJACKAudioDeviceBackend::deliverNotices() {
    bool formatChanged = false;
    if (formatChanged_.exchange(false)) {
        const std::lock_guard guard(lock_);
        if (client_ && !serverGone_.load()) {
            // JACK also calls at activation with the present values; only a
            // real change is a notice.
            const std::uint32_t rate = jack_get_sample_rate(asClient(client_));
            const std::uint32_t frames = jack_get_buffer_size(asClient(client_));
            formatChanged = rate != knownRate_ || frames != knownFrames_;
            knownRate_ = rate;
            knownFrames_ = frames;
        }
    }
    if (formatChanged) {
        notifyRateListeners();
    }
    // JACK tells of a port that goes before the server's list leaves it out,
    // so after a notice the list is compared again on the next few passes:
    // otherwise a device whose last port went would never be missed.
    if (portsChanged_.exchange(false)) {
        pendingDeviceScans_ = 5;
    }
    if (pendingDeviceScans_ > 0) {
        --pendingDeviceScans_;
        if (devicesChanged()) {
            notifyDevicesListeners();
        }
    }
}

std::vector<KROJACKAudioDeviceBackend::DeviceID> KROJACKAudioDeviceBackend::currentDeviceIDs() {
    std::vector<DeviceID> ids;
    if (client_ && !serverGone_.load()) {
        for (const Device& device : scanDevices()) {
            ids.push_back(device.id);
        }
    }
    return ids;
}

bool KROJACKAudioDeviceBackend::devicesChanged() {
    // Ports come and go for many reasons, this process's own callbacks among
    // them; only a device that appears or goes is a change of the list.
    const std::lock_guard guard(lock_);
    std::vector<DeviceID> ids = currentDeviceIDs();
    const bool changed = ids != knownDevices_;
    knownDevices_ = std::move(ids);
    return changed;
}

void KROJACKAudioDeviceBackend::notifyRateListeners() {
    std::vector<std::pair<DeviceID, std::shared_ptr<Listener>>> targets;
    {
        const std::lock_guard guard(listenerLock_);
        for (const auto& [token, entry] : listeners_) {
            if (!entry.forDevices) {
                targets.emplace_back(entry.deviceID, entry.rateListener);
            }
        }
    }
    // Called with no lock held: a listener rebuilds a graph and removes and
    // adds listeners.
    for (const auto& [deviceID, listener] : targets) {
        (*listener)(deviceID);
    }
}

void KROJACKAudioDeviceBackend::notifyDevicesListeners() {
    std::vector<std::shared_ptr<std::function<void()>>> targets;
    {
        const std::lock_guard guard(listenerLock_);
        for (const auto& [token, entry] : listeners_) {
            if (entry.forDevices) {
                targets.push_back(entry.devicesListener);
            }
        }
    }
    for (const auto& listener : targets) {
        (*listener)();
    }
}
