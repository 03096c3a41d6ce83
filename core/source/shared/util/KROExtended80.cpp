#include "KROExtended80.h"

#include <cmath>

namespace {

constexpr int kExponentBias = 16383;
constexpr int kMaximumExponent = 32767;

std::uint32_t readBigEndian32(const std::uint8_t* bytes) {
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
           (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
}

void writeBigEndian32(std::uint32_t value, std::uint8_t* bytes) {
    bytes[0] = static_cast<std::uint8_t>(value >> 24);
    bytes[1] = static_cast<std::uint8_t>(value >> 16);
    bytes[2] = static_cast<std::uint8_t>(value >> 8);
    bytes[3] = static_cast<std::uint8_t>(value);
}

void writeFields(std::uint32_t signAndExponent, std::uint32_t high, std::uint32_t low,
                 std::uint8_t bytes[10]) {
    bytes[0] = static_cast<std::uint8_t>(signAndExponent >> 8);
    bytes[1] = static_cast<std::uint8_t>(signAndExponent);
    writeBigEndian32(high, bytes + 2);
    writeBigEndian32(low, bytes + 6);
}

} // namespace

double KRODoubleFromExtended80(const std::uint8_t bytes[10]) {
    const int exponent = ((bytes[0] & 0x7F) << 8) | bytes[1];
    const std::uint32_t high = readBigEndian32(bytes + 2);
    const std::uint32_t low = readBigEndian32(bytes + 6);
    double value = 0.0;
    if (exponent == 0 && high == 0 && low == 0) {
        value = 0.0;
    } else if (exponent == kMaximumExponent) {
        value = HUGE_VAL;
    } else {
        value = std::ldexp(static_cast<double>(high), exponent - (kExponentBias + 31)) +
                std::ldexp(static_cast<double>(low), exponent - (kExponentBias + 63));
    }
    return (bytes[0] & 0x80) ? -value : value;
}

void KROGetExtended80ForDouble(double value, std::uint8_t bytes[10]) {
    std::uint32_t sign = 0;
    double magnitude = value;
    if (value < 0) {
        sign = 0x8000;
        magnitude = -value;
    }
    if (magnitude == 0) {
        writeFields(0, 0, 0, bytes);
        return;
    }
    int exponent = 0;
    double fraction = std::frexp(magnitude, &exponent);
    // A NaN fails "fraction < 1" and is written as infinity.
    if (!(fraction < 1) || exponent > 16384) {
        writeFields(sign | kMaximumExponent, 0, 0, bytes);
        return;
    }
    int field = exponent + kExponentBias - 1;
    if (field < 0) {
        fraction = std::ldexp(fraction, field);
        field = 0;
    }
    const double scaledHigh = std::ldexp(fraction, 32);
    const double high = std::floor(scaledHigh);
    const double low = std::floor(std::ldexp(scaledHigh - high, 32));
    writeFields(sign | static_cast<std::uint32_t>(field), static_cast<std::uint32_t>(high),
                static_cast<std::uint32_t>(low), bytes);
}
