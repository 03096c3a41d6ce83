#include "KROG711.h"

#include <array>

namespace {

constexpr std::int16_t muLawToLinear(std::uint8_t code) {
    const int inverted = ~code & 0xFF;
    int magnitude = ((inverted & 0x0F) << 3) + 0x84;
    magnitude <<= (inverted & 0x70) >> 4;
    return static_cast<std::int16_t>((inverted & 0x80) ? 0x84 - magnitude : magnitude - 0x84);
}

constexpr std::int16_t aLawToLinear(std::uint8_t code) {
    const int toggled = code ^ 0x55;
    int magnitude = (toggled & 0x0F) << 4;
    const int segment = (toggled & 0x70) >> 4;
    if (segment == 0) {
        magnitude += 8;
    } else {
        magnitude += 0x108;
        magnitude <<= segment - 1;
    }
    return static_cast<std::int16_t>((toggled & 0x80) ? magnitude : -magnitude);
}

// The first segment whose end is not below the value; 8 past the last.
constexpr int segmentOf(int value, const std::array<int, 8>& ends) {
    for (int segment = 0; segment < 8; ++segment) {
        if (value <= ends[segment]) {
            return segment;
        }
    }
    return 8;
}

constexpr std::uint8_t linearToMuLaw(std::int16_t value) {
    constexpr std::array<int, 8> ends{0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF, 0x1FFF};
    constexpr int bias = 0x84;
    constexpr int clip = 8159;
    int magnitude = value >> 2;
    int mask = 0xFF;
    if (magnitude < 0) {
        magnitude = -magnitude;
        mask = 0x7F;
    }
    magnitude = (magnitude > clip ? clip : magnitude) + (bias >> 2);
    const int segment = segmentOf(magnitude, ends);
    if (segment >= 8) {
        return static_cast<std::uint8_t>(0x7F ^ mask);
    }
    const int code = (segment << 4) | ((magnitude >> (segment + 1)) & 0x0F);
    return static_cast<std::uint8_t>(code ^ mask);
}

constexpr std::uint8_t linearToALaw(std::int16_t value) {
    constexpr std::array<int, 8> ends{0x1F, 0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF};
    int magnitude = value >> 3;
    int mask = 0xD5;
    if (magnitude < 0) {
        mask = 0x55;
        magnitude = -magnitude - 1;
    }
    const int segment = segmentOf(magnitude, ends);
    if (segment >= 8) {
        return static_cast<std::uint8_t>(0x7F ^ mask);
    }
    const int shift = segment < 2 ? 1 : segment;
    const int code = (segment << 4) | ((magnitude >> shift) & 0x0F);
    return static_cast<std::uint8_t>(code ^ mask);
}

struct G711Tables {
    std::array<float, 256> muLawDecoded{};
    std::array<float, 256> aLawDecoded{};
    // Indexed by the top 14 (mu-law) or 13 (A-law) bits, offset to start at 0.
    std::array<std::uint8_t, 16384> muLawEncoded{};
    std::array<std::uint8_t, 8192> aLawEncoded{};

    constexpr G711Tables() {
        for (int code = 0; code < 256; ++code) {
            muLawDecoded[code] = float(muLawToLinear(std::uint8_t(code))) / 32768.0f;
            aLawDecoded[code] = float(aLawToLinear(std::uint8_t(code))) / 32768.0f;
        }
        for (int index = 0; index < 16384; ++index) {
            muLawEncoded[index] = linearToMuLaw(std::int16_t((index - 8192) * 4));
        }
        for (int index = 0; index < 8192; ++index) {
            aLawEncoded[index] = linearToALaw(std::int16_t((index - 4096) * 8));
        }
    }
};

constexpr G711Tables tables{};

} // namespace

std::int16_t KROMuLawToLinear(std::uint8_t code) {
    return muLawToLinear(code);
}
std::int16_t KROALawToLinear(std::uint8_t code) {
    return aLawToLinear(code);
}
std::uint8_t KROLinearToMuLaw(std::int16_t value) {
    return linearToMuLaw(value);
}
std::uint8_t KROLinearToALaw(std::int16_t value) {
    return linearToALaw(value);
}

float KROMuLawDecoded(std::uint8_t code) {
    return tables.muLawDecoded[code];
}
float KROALawDecoded(std::uint8_t code) {
    return tables.aLawDecoded[code];
}
std::uint8_t KROMuLawEncoded(std::int32_t value14) {
    return tables.muLawEncoded[value14 + 8192];
}
std::uint8_t KROALawEncoded(std::int32_t value13) {
    return tables.aLawEncoded[value13 + 4096];
}
