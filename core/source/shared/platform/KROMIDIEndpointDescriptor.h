// What a host stores to find an endpoint again: its name and unique ID,
// coded under "name" and "uniqueID".
#pragma once

#include <cstdint>
#include <string>

#include "KROPropertyList.h"

class KROMIDIEndpointDescriptor {
public:
    KROMIDIEndpointDescriptor() = default;
    KROMIDIEndpointDescriptor(std::string name, std::int32_t uniqueID)
        : name_(std::move(name)), uniqueID_(uniqueID) {}
    static KROMIDIEndpointDescriptor descriptorWithName(const std::string& name,
                                                        std::int32_t uniqueID) {
        return {name, uniqueID};
    }

    const std::string& name() const { return name_; }
    std::int32_t uniqueID() const { return uniqueID_; }

    void encodeWithCoder(KROPropertyList& coder) const;
    // False when either key is missing or of the wrong kind.
    bool initWithCoder(const KROPropertyList& coder);

private:
    std::string name_;
    std::int32_t uniqueID_ = 0;
};
