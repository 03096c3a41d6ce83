// Conversion between doubles and the big-endian IEEE 80-bit extended form of
// AIFF sample rates (sign bit, 15-bit exponent with bias 16383, 64-bit mantissa
// with an explicit leading bit).
#pragma once

#include <cstdint>

// Exponent 32767 gives infinity whatever the mantissa, so the result is never a
// NaN; a set sign bit negates also zero and infinity.
double KRODoubleFromExtended80(const std::uint8_t bytes[10]);

// Zero (either sign) writes ten zero bytes; infinity, NaN and magnitudes beyond
// the 80-bit range write exponent 32767 with a zero mantissa.
void KROGetExtended80ForDouble(double value, std::uint8_t bytes[10]);
