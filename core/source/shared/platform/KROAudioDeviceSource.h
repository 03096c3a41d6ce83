// One selectable data source of a device, such as a line input.
// A value: the device, the scope ('inpt' or 'outp'), the source number and
// its title. Whether it is in use is asked of the device layer each time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROError.h"
#include "KROObject.h"

class KROAudioDeviceSource : public KROObject {
    KRO_DECLARE_CLASS(KROAudioDeviceSource)

public:
    static std::shared_ptr<KROAudioDeviceSource> source();
    static std::shared_ptr<KROAudioDeviceSource> sourceWithDevice(std::uint32_t deviceID,
                                                                  std::uint32_t scope,
                                                                  std::uint64_t sourceID,
                                                                  std::string title);

    // "KROAudioDeviceSource: %@ [%lu]" with title and number.
    std::string description() const override;
    // Equal deviceID, scope and sourceID.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;

    // 'ssrc' holds sourceID.
    bool enabled(KROErrorPtr* error = nullptr) const;
    // Rewrites 'ssrc' with sourceID added or removed.
    bool setEnabled(bool enabled, KROErrorPtr* error = nullptr);

    std::uint32_t deviceID() const { return deviceID_; }
    void setDeviceID(std::uint32_t deviceID) { deviceID_ = deviceID; }
    std::uint32_t scope() const { return scope_; }
    void setScope(std::uint32_t scope) { scope_ = scope; }
    std::uint64_t sourceID() const { return sourceID_; }
    void setSourceID(std::uint64_t sourceID) { sourceID_ = sourceID; }
    const std::string& title() const { return title_; }
    void setTitle(std::string title) { title_ = std::move(title); }

private:
    std::uint32_t deviceID_ = 0;
    std::uint32_t scope_ = 0;
    std::uint64_t sourceID_ = 0;
    std::string title_;
};
