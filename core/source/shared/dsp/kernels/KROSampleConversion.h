// The sample kernels of the linear PCM path. Each turns the samples of one
// encoding into 32-bit or 64-bit floats or back, one pass, no allocation, no
// lock.
//
// The rules, the same in every direction and width:
//
// - Full scale is 1.0. An integer of n significant bits reads as its value
//   divided by 2^(n-1): a 16-bit -32768 reads -1.0 and 32767 reads
//   32767/32768. Unsigned integers (8-bit WAVE) are offset by 2^(n-1) first,
//   so 128 of 8 bits reads 0.0.
// - To an integer of n bits, a float is multiplied by 2^(n-1), clipped to
//   [-2^(n-1), 2^(n-1) - 1] and rounded to the nearest integer, ties to even
//   (0.5 -> 0, 1.5 -> 2, -2.5 -> -2). NaN writes 0. So 1.0 writes the largest
//   value, and -1.0 the smallest. Clipping comes before rounding, which gives
//   the same integers as rounding first.
// - Floats to floats are not clipped; 64 to 32 bits rounds to nearest even.
// - 32-bit integers are rounded in 64-bit arithmetic, so 1.0 writes
//   2147483647 exactly; integers of 24 bits or fewer round in the working
//   precision, which holds them exactly.
// - Integers narrower than their container: aligned high, the value sits in
//   the top bits and the low bits are ignored on reading and written as 0;
//   aligned low, the value sits in the bottom bits and the bits above are read
//   as nothing and written as its sign (signed) or 0 (unsigned).
// - G.711 mu-law and A-law decode through the standard tables (KROG711.h),
//   mu-law to ±32124/32768 and A-law to ±32256/32768. Encoding rounds the
//   value by the rule above to the precision that the codes keep, 14 bits
//   for mu-law and 13 for A-law, and codes that by the standard algorithm.
//   sox does the same, except that it rounds exact ties up.
#pragma once

#include <cstddef>
#include <cstdint>

enum class KROSampleCoding : std::uint8_t {
    signedInteger,
    unsignedInteger,
    floatingPoint,
    muLaw,
    aLaw,
};

// One sample of one channel.
struct KROSampleFormat {
    KROSampleCoding coding = KROSampleCoding::floatingPoint;
    // The container: 1 to 4 bytes for integers, 4 or 8 for floats, 1 for G.711.
    std::uint8_t bytes = 4;
    // The significant bits of an integer, 1 to 8 * bytes.
    std::uint8_t bits = 32;
    // For integers narrower than their container: the bits are at the top.
    bool alignedHigh = false;
    bool bigEndian = false;
};

// True when the format is one the kernels handle.
bool KROSampleFormatIsValid(const KROSampleFormat& format);

// True when the format is a float of 32 bits in the machine's byte order,
// which the working buffers use.
bool KROSampleFormatIsNativeFloat32(const KROSampleFormat& format);

// Decodes count samples. Sample i is read at source + i * sourceStride bytes
// and written to destination[i * destinationStride]. The source may be any
// byte address; source and destination must not overlap.
void KRODecodeSamples(const KROSampleFormat& format, const void* source,
                      std::ptrdiff_t sourceStride, float* destination,
                      std::ptrdiff_t destinationStride, std::size_t count);
void KRODecodeSamples(const KROSampleFormat& format, const void* source,
                      std::ptrdiff_t sourceStride, double* destination,
                      std::ptrdiff_t destinationStride, std::size_t count);

// Encodes count samples: source[i * sourceStride] is written at
// destination + i * destinationStride bytes. Must not overlap.
void KROEncodeSamples(const KROSampleFormat& format, const float* source,
                      std::ptrdiff_t sourceStride, void* destination,
                      std::ptrdiff_t destinationStride, std::size_t count);
void KROEncodeSamples(const KROSampleFormat& format, const double* source,
                      std::ptrdiff_t sourceStride, void* destination,
                      std::ptrdiff_t destinationStride, std::size_t count);

// The two-channel forms, one pass for both channels: frames of two
// interleaved samples to two contiguous float channels, and back. The same
// values as two calls of the one-channel forms.
void KRODecodeInterleavedPair(const KROSampleFormat& format, const void* source, float* left,
                              float* right, std::size_t frames);
void KROEncodeInterleavedPair(const KROSampleFormat& format, const float* left, const float* right,
                              void* destination, std::size_t frames);
