// 80-bit extended floats: exact bytes, kept edge rules, Python's exact arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "KROExtended80.h"
#include "KROScratchDirectory.h"
#include "KROTestOracles.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string bytesFor(double value) {
    KROData bytes(10, 0xAA);
    KROGetExtended80ForDouble(value, bytes.data());
    return KROHex(bytes);
}

double valueOf(const KROData& bytes) {
    return KRODoubleFromExtended80(bytes.data());
}

} // namespace

// Signed zero writes zeroes; infinity, NaN and overflow exponent 32767, which
// reads as infinity whatever the mantissa, never NaN.
TEST(KROExtended80, KeepsItsEdgeRulesAndRatesExactly) {
    EXPECT_EQ(bytesFor(44100), "400eac44000000000000");
    EXPECT_EQ(bytesFor(-0.0), "00000000000000000000");
    EXPECT_EQ(bytesFor(-kInfinity), "ffff0000000000000000");
    EXPECT_EQ(bytesFor(std::nan("")), "7fff0000000000000000");
    EXPECT_EQ(bytesFor(std::numeric_limits<double>::max()), "43fefffffffffffff800");
    std::mt19937 random(32767);
    for (int i = 0; i < 100; ++i) {
        KROData bytes{0x7F, 0xFF};
        for (int j = 0; j < 8; ++j) {
            bytes.push_back(i < 2 ? std::uint8_t(-i) : std::uint8_t(random()));
        }
        EXPECT_EQ(valueOf(bytes), kInfinity);
        bytes[0] = 0xFF;
        EXPECT_EQ(valueOf(bytes), -kInfinity);
    }
    EXPECT_TRUE(std::signbit(valueOf({0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0})));
    EXPECT_EQ(valueOf({0x40, 0x00, 0x40, 0, 0, 0, 0, 0, 0, 0}), 1.0); // unnormal
    EXPECT_EQ(valueOf({0x40, 0x03, 0x80, 0, 0, 0, 0, 0x10, 0, 0}), 16.0 + std::ldexp(1.0, -39));
}

// Random doubles and bit patterns both ways against Python's exact fractions.
TEST(KROExtended80, AgreesWithPythonExactArithmetic) {
    std::mt19937_64 random(80);
    std::string written, read, ours;
    for (int i = 0; i < 200; ++i) {
        const double value =
            i == 0   ? std::numeric_limits<double>::denorm_min()
            : i == 1 ? std::numeric_limits<double>::min()
                     : std::ldexp(double(random() % (1ull << 53)) / (1ull << 53) * (i % 2 ? 1 : -1),
                                  int(random() % 2094) - 1070);
        written += std::to_string(std::bit_cast<std::uint64_t>(value)) + "\n";
        ours += bytesFor(value) + "\n";
    }
    for (int i = 0; i < 300; ++i) {
        KROData bytes(10);
        std::generate(bytes.begin(), bytes.end(), [&] { return std::uint8_t(random()); });
        const int exponent = 16383 - 1000 + int(random() % 2001);
        bytes[0] = std::uint8_t((bytes[0] & 0x80) | (exponent >> 8));
        bytes[1] = std::uint8_t(exponent);
        read += KROHex(bytes) + "\n";
        ours += std::to_string(std::bit_cast<std::uint64_t>(valueOf(bytes))) + "\n";
    }
    KROScratchDirectory directory;
    KROWriteFile(directory / "write", written);
    KROWriteFile(directory / "read", read);
    const auto result = KRORunPython(
        "import sys, struct, math\n"
        "from fractions import Fraction\n"
        "for line in open(sys.argv[1]):\n"
        "    x = struct.unpack('<d', struct.pack('<Q', int(line)))[0]\n"
        "    m, e = math.frexp(abs(x))\n"
        "    sign = 0x8000 if x < 0 else 0\n"
        "    print(struct.pack('>HQ', sign | (e + 16382), int(Fraction(m) * 2**64)).hex())\n"
        "for line in open(sys.argv[2]):\n"
        "    b = bytes.fromhex(line.strip())\n"
        "    e, m = ((b[0] & 0x7F) << 8) | b[1], int.from_bytes(b[2:], 'big')\n"
        "    v = float(Fraction(m) * Fraction(2) ** (e - 16383 - 63))\n"
        "    print(struct.unpack('<Q', struct.pack('<d', -v if b[0] & 0x80 else v))[0])\n",
        (directory / "write").string() + " " + (directory / "read").string());
    EXPECT_EQ(result.output, ours);
}
