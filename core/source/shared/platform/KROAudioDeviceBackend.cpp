#include "KROAudioDeviceBackend.h"

#include <mutex>

#include "KROJACKAudioDeviceBackend.h"

namespace {

std::mutex& backendLock() {
    static std::mutex lock;
    return lock;
}

std::shared_ptr<KROAudioDeviceBackend>& backendSlot() {
    static std::shared_ptr<KROAudioDeviceBackend> backend;
    return backend;
}

} // namespace

std::shared_ptr<KROAudioDeviceBackend> KROAudioDeviceBackend::sharedBackend() {
    const std::lock_guard guard(backendLock());
    if (!backendSlot()) {
        backendSlot() = std::make_shared<KROJACKAudioDeviceBackend>();
    }
    return backendSlot();
}

void KROAudioDeviceBackend::setSharedBackend(std::shared_ptr<KROAudioDeviceBackend> backend) {
    const std::lock_guard guard(backendLock());
    backendSlot() = std::move(backend);
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::configurationApplication(DeviceID,
                                                                              std::string&) {
    return unknownProperty;
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::channelName(DeviceID, std::uint32_t,
                                                                 std::uint32_t, std::string&) {
    return unknownProperty;
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::safetyOffset(DeviceID, std::uint32_t,
                                                                  std::uint32_t& frames) {
    // A layer that knows of no safety offset reports 0, so that latencies
    // still add up.
    frames = 0;
    return noError;
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::hogMode(DeviceID, std::int64_t&) {
    return unknownProperty;
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::toggleHogMode(DeviceID) {
    return unknownProperty;
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::sourceIDs(DeviceID, std::uint32_t,
                                                               std::vector<std::uint64_t>& ids) {
    ids.clear();
    return noError;
}

KROAudioDeviceBackend::Status KROAudioDeviceBackend::sourceName(DeviceID, std::uint32_t,
                                                                std::uint64_t, std::string&) {
    return unknownProperty;
}

KROAudioDeviceBackend::Status
KROAudioDeviceBackend::selectedSources(DeviceID, std::uint32_t, std::vector<std::uint64_t>& ids) {
    ids.clear();
    return noError;
}

KROAudioDeviceBackend::Status
KROAudioDeviceBackend::setSelectedSources(DeviceID, std::uint32_t,
                                          const std::vector<std::uint64_t>&) {
    return unknownProperty;
}

KROAudioDeviceIOStatistics KROAudioDeviceBackend::statistics(std::uint64_t) const {
    return {};
}
