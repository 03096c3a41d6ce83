// The device layer on JACK: works with jackd2 and with
// PipeWire's JACK. A device is a JACK client that owns physical ports; its
// capture ports are the device's inputs and its playback ports its outputs,
// one mono buffer each. Rate and buffer size are the server's, the safety
// offset is 0. Each registered callback is a JACK client of its own whose
// ports are joined to the device's at start.
//
// The server is the one JACK picks (JACK_DEFAULT_SERVER or the default); it is
// never started by this layer, so with no server every query fails at once
// with 'stop'. JACK's notices are only flagged in its callbacks; a worker
// thread of this object hands them to the listeners.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "KROAudioDeviceBackend.h"

class KROJACKAudioDeviceBackend : public KROAudioDeviceBackend {
public:
    KROJACKAudioDeviceBackend();
    ~KROJACKAudioDeviceBackend() override;
    KROJACKAudioDeviceBackend(const KROJACKAudioDeviceBackend&) = delete;
    KROJACKAudioDeviceBackend& operator=(const KROJACKAudioDeviceBackend&) = delete;

    Status deviceIDs(std::vector<DeviceID>& ids) override;
    Status defaultDevice(std::uint32_t scope, DeviceID& id) override;
    Status name(DeviceID id, std::string& name) override;
    Status uid(DeviceID id, std::string& uid) override;
    Status streamLayout(DeviceID id, std::uint32_t scope,
                        std::vector<std::uint32_t>& channelsPerBuffer) override;
    Status channelName(DeviceID id, std::uint32_t scope, std::uint32_t element,
                       std::string& name) override;
    Status sampleRateRanges(DeviceID id, std::vector<std::pair<double, double>>& ranges) override;
    Status sampleRate(DeviceID id, double& rate) override;
    Status setSampleRate(DeviceID id, double rate) override;
    Status bufferFrames(DeviceID id, std::uint32_t scope, std::uint32_t& frames) override;
    Status setBufferFrames(DeviceID id, std::uint32_t scope, std::uint32_t frames) override;
    Status bufferFrameRange(DeviceID id, std::uint32_t scope, std::uint32_t& minimum,
                            std::uint32_t& maximum) override;

    Status createIOProc(DeviceID id, std::uint32_t scope, std::uint32_t channels,
                        KROAudioDeviceIOProc proc, void* context, std::uint64_t& procID) override;
    Status destroyIOProc(std::uint64_t procID) override;
    Status start(std::uint64_t procID) override;
    Status stop(std::uint64_t procID) override;
    KROAudioDeviceIOStatistics statistics(std::uint64_t procID) const override;

    ListenerToken addSampleRateListener(DeviceID id, Listener listener) override;
    ListenerToken addDevicesListener(std::function<void()> listener) override;
    void removeListener(ListenerToken token) override;

    // The JACK server's own DSP load in percent, or a negative value with no
    // server.
    double serverLoad();

private:
    struct Device;
    struct IOProc;
    struct ListenerEntry {
        bool forDevices = false;
        DeviceID deviceID = 0;
        std::shared_ptr<Listener> rateListener;
        std::shared_ptr<std::function<void()>> devicesListener;
    };

    // Opens the management client when there is none; lock_ held.
    Status connect();
    void disconnect();
    // The devices as the ports of the server show them now; lock_ held.
    std::vector<Device> scanDevices();
    // The device with the number; lock_ held.
    Status lookUp(DeviceID id, Device& device);
    // Answers for a known device under lock_, else gives the look-up's status.
    // Defined beside Device in the source file, where Device is complete.
    template <typename Answer> Status withDevice(DeviceID id, Answer answer);
    DeviceID idForClient(const std::string& clientName);
    // The registered callback with the number, or none; lock_ held.
    IOProc* findProc(std::uint64_t procID) const;
    Status connectPorts(IOProc& proc);

    // The numbers of the devices on the server now, none without one; lock_ held.
    std::vector<DeviceID> currentDeviceIDs();
    // Whether the devices differ from the last ones seen; takes lock_.
    bool devicesChanged();
    void runWorker();
    void deliverNotices();
    void notifyRateListeners();
    void notifyDevicesListeners();

    static int bufferSizeCallback(std::uint32_t frames, void* argument);
    static int sampleRateCallback(std::uint32_t rate, void* argument);
    static void portRegistrationCallback(std::uint32_t port, int registered, void* argument);
    static void shutdownCallback(void* argument);

    mutable std::mutex lock_;
    void* client_ = nullptr;
    std::map<std::string, DeviceID> ids_;
    DeviceID nextID_ = 2;
    std::map<std::uint64_t, std::unique_ptr<IOProc>> procs_;
    std::uint64_t nextProcID_ = 1;

    std::mutex listenerLock_;
    std::map<ListenerToken, ListenerEntry> listeners_;
    ListenerToken nextToken_ = 1;

    // Flags set by JACK's callbacks, read by the worker.
    std::atomic<bool> formatChanged_{false};
    std::atomic<bool> portsChanged_{false};
    std::atomic<bool> serverGone_{false};
    std::uint32_t knownRate_ = 0;
    std::uint32_t knownFrames_ = 0;
    std::vector<DeviceID> knownDevices_;
    // Passes of the worker that still compare the device list; the worker's.
    int pendingDeviceScans_ = 0;

    std::mutex workerLock_;
    std::condition_variable workerWake_;
    bool quit_ = false;
    std::thread worker_;
};
