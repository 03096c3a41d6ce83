// A table-driven CRC of any order from 1 to 32 bits. One thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "KROObject.h"

using KROData = std::vector<std::uint8_t>;

class KROCRC : public KROObject {
    KRO_DECLARE_CLASS(KROCRC)

public:
    using Table = std::array<std::uint32_t, 256>;

    // An object set up by init(); use crc() or crcForCCITT16() for a ready one.
    KROCRC();

    // The common 32-bit CRC: polynomial 0x04C11DB7, initial and xor values
    // 0xFFFFFFFF, both reflections on.
    static std::shared_ptr<KROCRC> crc();
    // The 16-bit form: polynomial 0x1021, initial value 0, xor 0xFFFF, no reflection.
    static std::shared_ptr<KROCRC> crcForCCITT16();

    bool init();
    bool initForCCITT16();

    // An order outside 1…32 is ignored; a polynomial, initial or xor value with
    // bits outside mask() is ignored. setOrder, setPolynomial and
    // setReflectInput drop the table. There is no setter for reflectOutput.
    void setOrder(std::uint32_t order);
    void setPolynomial(std::uint32_t polynomial);
    void setInitialValue(std::uint32_t initialValue);
    void setXorValue(std::uint32_t xorValue);
    void setReflectInput(bool reflectInput);

    std::uint32_t order() const { return order_; }
    std::uint32_t polynomial() const { return polynomial_; }
    std::uint32_t initialValue() const { return initialValue_; }
    std::uint32_t xorValue() const { return xorValue_; }
    bool reflectInput() const { return reflectInput_; }
    bool reflectOutput() const { return reflectOutput_; }
    std::uint32_t mask() const { return mask_; }
    std::uint32_t highBit() const { return highBit_; }
    // The table of the last computation; null until one has been built.
    const Table* table() const { return table_.get(); }

    // Builds the table when it is missing; the result is anded with mask().
    std::uint32_t crcForBuffer(const void* buffer, std::size_t length);
    std::uint32_t crcForData(const KROData& data);
    // The bytes of the UTF-8 form, without a terminator.
    std::uint32_t crcForString(std::string_view string);

    // The low `bits` bits of value in reverse order; the bits above are dropped.
    static std::uint32_t reflect(std::uint32_t value, std::uint32_t bits);

private:
    void buildTable();
    std::uint32_t tableEntry(std::uint32_t index) const;

    std::uint32_t order_ = 0;
    std::uint32_t polynomial_ = 0;
    std::uint32_t initialValue_ = 0;
    std::uint32_t xorValue_ = 0;
    bool reflectInput_ = false;
    bool reflectOutput_ = false;
    std::uint32_t mask_ = 0;
    std::uint32_t highBit_ = 0;
    std::unique_ptr<Table> table_;
};
