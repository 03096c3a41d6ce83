#include "KROCRC.h"

namespace {

// Shifts left by count, or right by -count. Orders below 8 make the table and
// run shifts negative; this keeps them defined.
std::uint32_t shiftLeft(std::uint32_t value, int count) {
    if (count >= 32 || count <= -32) {
        return 0;
    }
    return count >= 0 ? value << count : value >> -count;
}

} // namespace

KROCRC::KROCRC() {
    init();
}

std::shared_ptr<KROCRC> KROCRC::crc() {
    auto crc = std::make_shared<KROCRC>();
    crc->init();
    return crc;
}

std::shared_ptr<KROCRC> KROCRC::crcForCCITT16() {
    auto crc = std::make_shared<KROCRC>();
    crc->initForCCITT16();
    return crc;
}

bool KROCRC::init() {
    setOrder(32);
    polynomial_ = 0x04C11DB7;
    initialValue_ = 0xFFFFFFFF;
    xorValue_ = 0xFFFFFFFF;
    reflectInput_ = true;
    reflectOutput_ = true;
    table_.reset();
    return true;
}

bool KROCRC::initForCCITT16() {
    setOrder(16);
    polynomial_ = 0x1021;
    initialValue_ = 0;
    xorValue_ = 0xFFFF;
    reflectInput_ = false;
    reflectOutput_ = false;
    table_.reset();
    return true;
}

void KROCRC::setOrder(std::uint32_t order) {
    if (order < 1 || order > 32) {
        return;
    }
    order_ = order;
    highBit_ = std::uint32_t{1} << (order - 1);
    mask_ = (highBit_ << 1) - 1; // wraps to 0xFFFFFFFF for order 32
    table_.reset();
}

void KROCRC::setPolynomial(std::uint32_t polynomial) {
    if (polynomial & ~mask_) {
        return;
    }
    polynomial_ = polynomial;
    table_.reset();
}

void KROCRC::setInitialValue(std::uint32_t initialValue) {
    if (initialValue & ~mask_) {
        return;
    }
    initialValue_ = initialValue;
}

void KROCRC::setXorValue(std::uint32_t xorValue) {
    if (xorValue & ~mask_) {
        return;
    }
    xorValue_ = xorValue;
}

void KROCRC::setReflectInput(bool reflectInput) {
    reflectInput_ = reflectInput;
    table_.reset();
}

std::uint32_t KROCRC::reflect(std::uint32_t value, std::uint32_t bits) {
    std::uint32_t result = 0;
    for (std::uint32_t i = 0; i < bits && i < 32; ++i) {
        if (value & (std::uint32_t{1} << i)) {
            result |= std::uint32_t{1} << (bits - 1 - i);
        }
    }
    return result;
}

std::uint32_t KROCRC::tableEntry(std::uint32_t index) const {
    std::uint32_t value = reflectInput_ ? reflect(index, 8) : index;
    value = shiftLeft(value, static_cast<int>(order_) - 8);
    for (int bit = 0; bit < 8; ++bit) {
        const bool highBitSet = (value & highBit_) != 0;
        value <<= 1;
        if (highBitSet) {
            value ^= polynomial_;
        }
    }
    if (reflectInput_) {
        value = reflect(value, order_);
    }
    return value & mask_;
}

void KROCRC::buildTable() {
    auto table = std::make_unique<Table>();
    for (std::uint32_t index = 0; index < 256; ++index) {
        (*table)[index] = tableEntry(index);
    }
    table_ = std::move(table);
}

std::uint32_t KROCRC::crcForBuffer(const void* buffer, std::size_t length) {
    if (!table_) {
        buildTable();
    }
    const Table& table = *table_;
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    std::uint32_t crc = reflectInput_ ? reflect(initialValue_, order_) : initialValue_;
    if (reflectInput_) {
        for (std::size_t i = 0; i < length; ++i) {
            crc = (crc >> 8) ^ table[(crc ^ bytes[i]) & 0xFF];
        }
    } else {
        const int down = 8 - static_cast<int>(order_);
        for (std::size_t i = 0; i < length; ++i) {
            crc = (crc << 8) ^ table[(shiftLeft(crc, down) ^ bytes[i]) & 0xFF];
        }
    }
    if (reflectOutput_ != reflectInput_) {
        crc = reflect(crc, order_);
    }
    return (crc ^ xorValue_) & mask_;
}

std::uint32_t KROCRC::crcForData(const KROData& data) {
    return crcForBuffer(data.data(), data.size());
}

std::uint32_t KROCRC::crcForString(std::string_view string) {
    return crcForBuffer(string.data(), string.size());
}
