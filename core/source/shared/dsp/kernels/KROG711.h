// The companded formats 'ulaw' and 'alaw' by ITU-T G.711, as Sun's reference
// g711.c states the algorithms (the code that sox and libsndfile also carry).
// Decoding gives 16-bit linear values (mu-law within ±32124, A-law within
// ±32256); encoding reads the top 14 (mu-law) or 13 (A-law) bits of a 16-bit
// value, as the algorithms do. KROSampleConversion.h rounds to those 14 or 13
// bits before coding.
#pragma once

#include <cstdint>

std::int16_t KROMuLawToLinear(std::uint8_t code);
std::int16_t KROALawToLinear(std::uint8_t code);
std::uint8_t KROLinearToMuLaw(std::int16_t value);
std::uint8_t KROLinearToALaw(std::int16_t value);

// The same through tables made once at compile time, for the sample loops:
// a code's value with full scale at 1.0 (the 16-bit value / 32768), and the
// code of a value of the precision that the algorithms read, 14 bits for
// mu-law (-8192 to 8191) and 13 bits for A-law (-4096 to 4095).
float KROMuLawDecoded(std::uint8_t code);
float KROALawDecoded(std::uint8_t code);
std::uint8_t KROMuLawEncoded(std::int32_t value14);
std::uint8_t KROALawEncoded(std::int32_t value13);
