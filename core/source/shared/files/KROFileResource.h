// One resource of a file's resource fork.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KROObject.h"

using KROData = std::vector<std::uint8_t>;

class KROFileResource : public KROObject {
    KRO_DECLARE_CLASS(KROFileResource)

public:
    KROFileResource() = default;
    KROFileResource(std::uint32_t type, std::int64_t ID, std::string name, KROData data);

    // Four-character resource type as a big-endian integer ('STR ' is 0x53545220).
    std::uint32_t type() const { return type_; }
    void setType(std::uint32_t type) { type_ = type; }

    // Sign-extended from the fork's 16-bit value.
    std::int64_t ID() const { return ID_; }
    void setID(std::int64_t ID) { ID_ = ID; }

    // Empty when the fork gives no name.
    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }

    // The resource's bytes, without their 4-byte length prefix.
    const KROData& data() const { return data_; }
    void setData(KROData data) { data_ = std::move(data); }

    std::string description() const override;

private:
    std::uint32_t type_ = 0;
    std::int64_t ID_ = 0;
    std::string name_;
    KROData data_;
};

using KROFileResources = std::vector<std::shared_ptr<KROFileResource>>;
