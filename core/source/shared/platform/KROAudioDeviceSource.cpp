#include "KROAudioDeviceSource.h"

#include <algorithm>

#include "KROAudioDeviceBackend.h"
#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"

KRO_REGISTER_CLASS(KROAudioDeviceSource, KROObject)

std::shared_ptr<KROAudioDeviceSource> KROAudioDeviceSource::source() {
    return std::make_shared<KROAudioDeviceSource>();
}

std::shared_ptr<KROAudioDeviceSource> KROAudioDeviceSource::sourceWithDevice(std::uint32_t deviceID,
                                                                             std::uint32_t scope,
                                                                             std::uint64_t sourceID,
                                                                             std::string title) {
    auto result = source();
    result->deviceID_ = deviceID;
    result->scope_ = scope;
    result->sourceID_ = sourceID;
    result->title_ = std::move(title);
    return result;
}

std::string KROAudioDeviceSource::description() const {
    return KROStringWithFormatArguments("KROAudioDeviceSource: %@ [%lu]", title_, sourceID_);
}

bool KROAudioDeviceSource::isEqual(const KROObject& other) const {
    const auto* source = dynamic_cast<const KROAudioDeviceSource*>(&other);
    return source && source->deviceID_ == deviceID_ && source->scope_ == scope_ &&
           source->sourceID_ == sourceID_;
}

std::size_t KROAudioDeviceSource::hash() const {
    return std::size_t(deviceID_) ^ (std::size_t(scope_) << 1) ^ std::size_t(sourceID_);
}

bool KROAudioDeviceSource::enabled(KROErrorPtr* error) const {
    std::vector<std::uint64_t> selected;
    if (const auto status =
            KROAudioDeviceBackend::sharedBackend()->selectedSources(deviceID_, scope_, selected)) {
        return KROFail<KROAudioDeviceError>(error, status,
                                            "KROAudioDevice_action_retrievingSources");
    }
    return std::find(selected.begin(), selected.end(), sourceID_) != selected.end();
}

bool KROAudioDeviceSource::setEnabled(bool enabled, KROErrorPtr* error) {
    const auto backend = KROAudioDeviceBackend::sharedBackend();
    std::vector<std::uint64_t> selected;
    if (const auto status = backend->selectedSources(deviceID_, scope_, selected)) {
        return KROFail<KROAudioDeviceError>(error, status,
                                            "KROAudioDevice_action_settingSourceEnabled");
    }
    std::erase(selected, sourceID_);
    if (enabled) {
        selected.push_back(sourceID_);
    }
    if (const auto status = backend->setSelectedSources(deviceID_, scope_, selected)) {
        return KROFail<KROAudioDeviceError>(error, status,
                                            "KROAudioDevice_action_settingSourceEnabled");
    }
    return true;
}
