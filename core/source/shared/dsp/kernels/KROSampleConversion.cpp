#include "KROSampleConversion.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "KROG711.h"

namespace {

// Integers go through a block of 32-bit words on the stack: one loop moves
// container bytes, the other does the arithmetic. Each of the two then has a
// simple shape that the compiler vectorizes, which a fused loop over 3-byte
// samples does not.
constexpr std::size_t blockSamples = 512;

// ---- Byte order -----------------------------------------------------------

// The big-endian flag swaps bytes after a load in the machine's order, which
// is right on the little-endian machines the library is built for (the
// platform's kAudioFormatFlagsNativeEndian is 0 here).
static_assert(std::endian::native == std::endian::little,
              "the sample kernels assume little-endian");

template <int Bytes, bool BigEndian> inline std::uint32_t loadUnsigned(const std::uint8_t* p) {
    if constexpr (Bytes == 1) {
        return p[0];
    } else if constexpr (Bytes == 2) {
        std::uint16_t value;
        std::memcpy(&value, p, 2);
        return BigEndian ? __builtin_bswap16(value) : value;
    } else if constexpr (Bytes == 3) {
        return BigEndian ? (std::uint32_t(p[0]) << 16) | (std::uint32_t(p[1]) << 8) | p[2]
                         : (std::uint32_t(p[2]) << 16) | (std::uint32_t(p[1]) << 8) | p[0];
    } else {
        std::uint32_t value;
        std::memcpy(&value, p, 4);
        return BigEndian ? __builtin_bswap32(value) : value;
    }
}

template <int Bytes, bool BigEndian>
inline void storeUnsigned(std::uint8_t* p, std::uint32_t value) {
    if constexpr (Bytes == 1) {
        p[0] = static_cast<std::uint8_t>(value);
    } else if constexpr (Bytes == 2) {
        auto half = static_cast<std::uint16_t>(value);
        half = BigEndian ? __builtin_bswap16(half) : half;
        std::memcpy(p, &half, 2);
    } else if constexpr (Bytes == 3) {
        const auto low = static_cast<std::uint8_t>(value);
        const auto middle = static_cast<std::uint8_t>(value >> 8);
        const auto high = static_cast<std::uint8_t>(value >> 16);
        p[0] = BigEndian ? high : low;
        p[1] = middle;
        p[2] = BigEndian ? low : high;
    } else {
        value = BigEndian ? __builtin_bswap32(value) : value;
        std::memcpy(p, &value, 4);
    }
}

template <bool BigEndian> inline std::uint64_t loadUnsigned64(const std::uint8_t* p) {
    std::uint64_t value;
    std::memcpy(&value, p, 8);
    return BigEndian ? __builtin_bswap64(value) : value;
}

template <bool BigEndian> inline void storeUnsigned64(std::uint8_t* p, std::uint64_t value) {
    value = BigEndian ? __builtin_bswap64(value) : value;
    std::memcpy(p, &value, 8);
}

// Four packed 3-byte samples are three 32-bit words.
template <bool BigEndian>
inline void unpackFourTriples(const std::uint8_t* p, std::uint32_t* words) {
    const std::uint32_t a = loadUnsigned<4, BigEndian>(p);
    const std::uint32_t b = loadUnsigned<4, BigEndian>(p + 4);
    const std::uint32_t c = loadUnsigned<4, BigEndian>(p + 8);
    if constexpr (BigEndian) {
        words[0] = a >> 8;
        words[1] = ((a & 0xFF) << 16) | (b >> 16);
        words[2] = ((b & 0xFFFF) << 8) | (c >> 24);
        words[3] = c & 0xFFFFFF;
    } else {
        words[0] = a & 0xFFFFFF;
        words[1] = (a >> 24) | ((b & 0xFFFF) << 8);
        words[2] = (b >> 16) | ((c & 0xFF) << 16);
        words[3] = c >> 8;
    }
}

template <bool BigEndian> inline void packFourTriples(const std::uint32_t* words, std::uint8_t* p) {
    const std::uint32_t s0 = words[0], s1 = words[1], s2 = words[2], s3 = words[3];
    if constexpr (BigEndian) {
        storeUnsigned<4, true>(p, (s0 << 8) | ((s1 >> 16) & 0xFF));
        storeUnsigned<4, true>(p + 4, (s1 << 16) | ((s2 >> 8) & 0xFFFF));
        storeUnsigned<4, true>(p + 8, (s2 << 24) | (s3 & 0xFFFFFF));
    } else {
        storeUnsigned<4, false>(p, (s0 & 0xFFFFFF) | (s1 << 24));
        storeUnsigned<4, false>(p + 4, ((s1 >> 8) & 0xFFFF) | (s2 << 16));
        storeUnsigned<4, false>(p + 8, ((s2 >> 16) & 0xFF) | (s3 << 8));
    }
}

// Container values of count samples at stride bytes into words.
template <int Bytes, bool BigEndian>
void loadContainers(const std::uint8_t* __restrict source, std::ptrdiff_t stride,
                    std::uint32_t* __restrict words, std::size_t count) {
    std::size_t i = 0;
    if (stride == Bytes) {
        if constexpr (Bytes == 3) {
            for (; i + 4 <= count; i += 4) {
                unpackFourTriples<BigEndian>(source + i * 3, words + i);
            }
        }
        for (; i < count; ++i) {
            words[i] = loadUnsigned<Bytes, BigEndian>(source + i * Bytes);
        }
        return;
    }
    for (; i < count; ++i) {
        words[i] = loadUnsigned<Bytes, BigEndian>(source + std::ptrdiff_t(i) * stride);
    }
}

template <int Bytes, bool BigEndian>
void storeContainers(const std::uint32_t* __restrict words, std::uint8_t* __restrict destination,
                     std::ptrdiff_t stride, std::size_t count) {
    std::size_t i = 0;
    if (stride == Bytes) {
        if constexpr (Bytes == 3) {
            for (; i + 4 <= count; i += 4) {
                packFourTriples<BigEndian>(words + i, destination + i * 3);
            }
        }
        for (; i < count; ++i) {
            storeUnsigned<Bytes, BigEndian>(destination + i * Bytes, words[i]);
        }
        return;
    }
    for (; i < count; ++i) {
        storeUnsigned<Bytes, BigEndian>(destination + std::ptrdiff_t(i) * stride, words[i]);
    }
}

// ---- Rounding -------------------------------------------------------------

// Round to nearest, ties to even, for |x| <= 2^23 (float) or 2^52 (double):
// adding 2^23 (2^52) leaves no fraction bits, so the addition itself rounds
// in the default rounding mode. Without -ffast-math the compiler keeps it,
// and unlike std::nearbyint it vectorizes on plain SSE2.
template <typename Real> inline Real roundToNearestEven(Real x) {
    constexpr Real magic = std::is_same_v<Real, float> ? Real(8388608.0) : Real(4503599627370496.0);
    return std::copysign((std::fabs(x) + magic) - magic, x);
}

// x * scale clipped to [low, high] and rounded; NaN gives 0. The bounds come
// in as run-time values: with constants the compiler turns the clip into
// branches and no longer vectorizes the loop.
template <typename Real> inline std::int32_t quantize(Real x, Real scale, Real low, Real high) {
    Real scaled = x * scale;
    scaled = scaled == scaled ? scaled : Real(0);
    scaled = scaled > low ? scaled : low;
    scaled = scaled < high ? scaled : high;
    return static_cast<std::int32_t>(roundToNearestEven(scaled));
}

// ---- Rounding many floats at once ----------------------------------------

#if defined(__SSE2__)
// Four samples: x * scale, NaN to 0, clipped, then rounded by the conversion
// instruction, which rounds in the current rounding mode: to nearest, ties to
// even, unless a program changed it (the same mode that the portable rounding
// above relies on). Half the instructions of the portable loop, which is
// what makes writing integers as fast as memory.
inline __m128i quantizeFour(__m128 x, __m128 scale, __m128 low, __m128 high) {
    __m128 scaled = _mm_mul_ps(x, scale);
    scaled = _mm_and_ps(scaled, _mm_cmpord_ps(scaled, scaled));
    scaled = _mm_min_ps(_mm_max_ps(scaled, low), high);
    return _mm_cvtps_epi32(scaled);
}
#endif

// values[i] = quantize(source[i]) for integers of up to 24 bits.
void quantizeFloats(const float* __restrict source, std::int32_t* __restrict values,
                    std::size_t count, float scale, float low, float high) {
    std::size_t i = 0;
#if defined(__SSE2__)
    const __m128 scales = _mm_set1_ps(scale), lows = _mm_set1_ps(low), highs = _mm_set1_ps(high);
    for (; i + 4 <= count; i += 4) {
        const __m128i four = quantizeFour(_mm_loadu_ps(source + i), scales, lows, highs);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i), four);
    }
#endif
    for (; i < count; ++i) {
        values[i] = quantize<float>(source[i], scale, low, high);
    }
}

// The same for two channels, interleaved into values.
void quantizeFloatPair(const float* __restrict left, const float* __restrict right,
                       std::int32_t* __restrict values, std::size_t frames, float scale, float low,
                       float high) {
    std::size_t i = 0;
#if defined(__SSE2__)
    const __m128 scales = _mm_set1_ps(scale), lows = _mm_set1_ps(low), highs = _mm_set1_ps(high);
    for (; i + 4 <= frames; i += 4) {
        const __m128i l = quantizeFour(_mm_loadu_ps(left + i), scales, lows, highs);
        const __m128i r = quantizeFour(_mm_loadu_ps(right + i), scales, lows, highs);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + 2 * i), _mm_unpacklo_epi32(l, r));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + 2 * i + 4), _mm_unpackhi_epi32(l, r));
    }
#endif
    for (; i < frames; ++i) {
        values[2 * i] = quantize<float>(left[i], scale, low, high);
        values[2 * i + 1] = quantize<float>(right[i], scale, low, high);
    }
}

// ---- Integers -------------------------------------------------------------

// The arithmetic of an integer format between its container value (as read
// from memory) and a float. Decoding puts the value's sign bit at bit 31 of a
// 32-bit word and scales by 2^-31, which is exact for any width.
class IntegerArithmetic {
public:
    explicit IntegerArithmetic(const KROSampleFormat& format) {
        const unsigned bits = format.bits;
        const unsigned containerBits = 8U * format.bytes;
        const bool high = format.alignedHigh || bits == containerBits;
        const bool isUnsigned = format.coding == KROSampleCoding::unsignedInteger;
        decodeShift_ = high ? 32 - containerBits : 32 - bits;
        decodeMask_ = 0xFFFFFFFFU << (32 - bits);
        flip_ = isUnsigned ? 0x80000000U : 0;
        encodeLeftShift_ = 32 - bits;
        encodeRightShift_ = decodeShift_;
        encodeFlip_ = flip_ >> encodeRightShift_;
        encodeMask_ = (isUnsigned && !high && bits < 32) ? (1U << bits) - 1 : 0xFFFFFFFFU;
        scale_ = std::ldexp(1.0, int(bits) - 1);
        low_ = -scale_;
        high_ = scale_ - 1.0;
        wide_ = bits > 24;
        plain_ = !isUnsigned && bits == containerBits;
    }

    // Plain: signed and filling its container, the common case, which needs
    // neither mask nor offset; the loops are compiled for it on their own.
    template <bool Plain, typename Sample> Sample valueOf(std::uint32_t container) const {
        std::uint32_t word = container << decodeShift_;
        if constexpr (!Plain) {
            word = (word & decodeMask_) ^ flip_;
        }
        return static_cast<Sample>(static_cast<std::int32_t>(word)) * Sample(1.0 / 2147483648.0);
    }

    template <bool Plain, typename Real>
    std::uint32_t containerOf(Real x, Real scale, Real low, Real high) const {
        return containerOfValue<Plain>(quantize<Real>(x, scale, low, high));
    }

    // The container of a rounded, clipped value.
    template <bool Plain> std::uint32_t containerOfValue(std::int32_t value) const {
        if constexpr (Plain) {
            return static_cast<std::uint32_t>(value);
        }
        const std::uint32_t justified = static_cast<std::uint32_t>(value) << encodeLeftShift_;
        const auto container =
            static_cast<std::uint32_t>(static_cast<std::int32_t>(justified) >> encodeRightShift_);
        return (container ^ encodeFlip_) & encodeMask_;
    }

    // Up to 24 bits a float holds every integer; wider ones round in double.
    bool needsDouble() const { return wide_; }
    bool isPlain() const { return plain_; }
    double scale() const { return scale_; }
    double low() const { return low_; }
    double high() const { return high_; }

private:
    unsigned decodeShift_;
    std::uint32_t decodeMask_;
    std::uint32_t flip_;
    unsigned encodeLeftShift_;
    unsigned encodeRightShift_;
    std::uint32_t encodeFlip_;
    std::uint32_t encodeMask_;
    double scale_;
    double low_;
    double high_;
    bool wide_;
    bool plain_;
};

template <bool Plain, typename Sample>
void valuesOfContainers(const IntegerArithmetic& arithmetic, const std::uint32_t* __restrict words,
                        Sample* __restrict destination, std::ptrdiff_t stride, std::size_t count) {
    if (stride == 1) {
        for (std::size_t i = 0; i < count; ++i) {
            destination[i] = arithmetic.valueOf<Plain, Sample>(words[i]);
        }
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        destination[std::ptrdiff_t(i) * stride] = arithmetic.valueOf<Plain, Sample>(words[i]);
    }
}

template <bool Plain, typename Real, typename Sample>
void quantizeValues(const IntegerArithmetic& arithmetic, const Sample* __restrict source,
                    std::ptrdiff_t stride, std::uint32_t* __restrict words, std::size_t count) {
    const Real scale(arithmetic.scale()), low(arithmetic.low()), high(arithmetic.high());
    if (stride == 1) {
        for (std::size_t i = 0; i < count; ++i) {
            words[i] = arithmetic.containerOf<Plain, Real>(source[i], scale, low, high);
        }
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        words[i] = arithmetic.containerOf<Plain, Real>(source[std::ptrdiff_t(i) * stride], scale,
                                                       low, high);
    }
}

// Containers of values already rounded into words, in place.
template <bool Plain>
void containersInPlace(const IntegerArithmetic& arithmetic, std::uint32_t* words,
                       std::size_t count) {
    if constexpr (!Plain) {
        for (std::size_t i = 0; i < count; ++i) {
            words[i] = arithmetic.containerOfValue<false>(static_cast<std::int32_t>(words[i]));
        }
    }
}

template <bool Plain, typename Sample>
void containersOfValues(const IntegerArithmetic& arithmetic, const Sample* source,
                        std::ptrdiff_t stride, std::uint32_t* words, std::size_t count) {
    if constexpr (std::is_same_v<Sample, float>) {
        if (stride == 1 && !arithmetic.needsDouble()) {
            quantizeFloats(source, reinterpret_cast<std::int32_t*>(words), count,
                           float(arithmetic.scale()), float(arithmetic.low()),
                           float(arithmetic.high()));
            containersInPlace<Plain>(arithmetic, words, count);
            return;
        }
    }
    if (std::is_same_v<Sample, float> && !arithmetic.needsDouble()) {
        quantizeValues<Plain, float>(arithmetic, source, stride, words, count);
    } else {
        quantizeValues<Plain, double>(arithmetic, source, stride, words, count);
    }
}

// The two channels of a pair, interleaved into words.
template <bool Plain, typename Real>
void containersOfPair(const IntegerArithmetic& arithmetic, const float* __restrict left,
                      const float* __restrict right, std::uint32_t* __restrict words,
                      std::size_t frames) {
    const Real scale(arithmetic.scale()), low(arithmetic.low()), high(arithmetic.high());
    if constexpr (std::is_same_v<Real, float>) {
        quantizeFloatPair(left, right, reinterpret_cast<std::int32_t*>(words), frames, scale, low,
                          high);
        containersInPlace<Plain>(arithmetic, words, 2 * frames);
    } else {
        for (std::size_t i = 0; i < frames; ++i) {
            words[2 * i] = arithmetic.containerOf<Plain, Real>(left[i], scale, low, high);
            words[2 * i + 1] = arithmetic.containerOf<Plain, Real>(right[i], scale, low, high);
        }
    }
}

template <bool Plain>
void valuesOfPair(const IntegerArithmetic& arithmetic, const std::uint32_t* __restrict words,
                  float* __restrict left, float* __restrict right, std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) {
        left[i] = arithmetic.valueOf<Plain, float>(words[2 * i]);
        right[i] = arithmetic.valueOf<Plain, float>(words[2 * i + 1]);
    }
}

template <int Bytes, bool BigEndian> class IntegerCodec {
public:
    explicit IntegerCodec(const KROSampleFormat& format) : arithmetic_(format) {}

    template <typename Sample>
    void decode(const std::uint8_t* source, std::ptrdiff_t sourceStride, Sample* destination,
                std::ptrdiff_t destinationStride, std::size_t count) const {
        if (arithmetic_.isPlain()) {
            decodeBlocks<true>(source, sourceStride, destination, destinationStride, count);
        } else {
            decodeBlocks<false>(source, sourceStride, destination, destinationStride, count);
        }
    }

    template <typename Sample>
    void encode(const Sample* source, std::ptrdiff_t sourceStride, std::uint8_t* destination,
                std::ptrdiff_t destinationStride, std::size_t count) const {
        if (arithmetic_.isPlain()) {
            encodeBlocks<true>(source, sourceStride, destination, destinationStride, count);
        } else {
            encodeBlocks<false>(source, sourceStride, destination, destinationStride, count);
        }
    }

    void decodePair(const std::uint8_t* source, float* left, float* right,
                    std::size_t frames) const {
        if (arithmetic_.isPlain()) {
            decodePairBlocks<true>(source, left, right, frames);
        } else {
            decodePairBlocks<false>(source, left, right, frames);
        }
    }

    void encodePair(const float* left, const float* right, std::uint8_t* destination,
                    std::size_t frames) const {
        const bool wide = arithmetic_.needsDouble();
        if (arithmetic_.isPlain()) {
            wide ? encodePairBlocks<true, double>(left, right, destination, frames)
                 : encodePairBlocks<true, float>(left, right, destination, frames);
        } else {
            wide ? encodePairBlocks<false, double>(left, right, destination, frames)
                 : encodePairBlocks<false, float>(left, right, destination, frames);
        }
    }

private:
    static constexpr std::size_t blockFrames = blockSamples / 2;

    template <bool Plain, typename Sample>
    void decodeBlocks(const std::uint8_t* source, std::ptrdiff_t sourceStride, Sample* destination,
                      std::ptrdiff_t destinationStride, std::size_t count) const {
        std::uint32_t words[blockSamples];
        for (std::size_t done = 0; done < count;) {
            const std::size_t n = std::min(blockSamples, count - done);
            loadContainers<Bytes, BigEndian>(source + std::ptrdiff_t(done) * sourceStride,
                                             sourceStride, words, n);
            valuesOfContainers<Plain>(arithmetic_, words,
                                      destination + std::ptrdiff_t(done) * destinationStride,
                                      destinationStride, n);
            done += n;
        }
    }

    template <bool Plain, typename Sample>
    void encodeBlocks(const Sample* source, std::ptrdiff_t sourceStride, std::uint8_t* destination,
                      std::ptrdiff_t destinationStride, std::size_t count) const {
        std::uint32_t words[blockSamples];
        for (std::size_t done = 0; done < count;) {
            const std::size_t n = std::min(blockSamples, count - done);
            containersOfValues<Plain>(arithmetic_, source + std::ptrdiff_t(done) * sourceStride,
                                      sourceStride, words, n);
            storeContainers<Bytes, BigEndian>(
                words, destination + std::ptrdiff_t(done) * destinationStride, destinationStride,
                n);
            done += n;
        }
    }

    template <bool Plain>
    void decodePairBlocks(const std::uint8_t* source, float* left, float* right,
                          std::size_t frames) const {
        std::uint32_t words[blockSamples];
        for (std::size_t done = 0; done < frames;) {
            const std::size_t n = std::min(blockFrames, frames - done);
            loadContainers<Bytes, BigEndian>(source + done * 2 * Bytes, Bytes, words, 2 * n);
            valuesOfPair<Plain>(arithmetic_, words, left + done, right + done, n);
            done += n;
        }
    }

    template <bool Plain, typename Real>
    void encodePairBlocks(const float* left, const float* right, std::uint8_t* destination,
                          std::size_t frames) const {
        std::uint32_t words[blockSamples];
        for (std::size_t done = 0; done < frames;) {
            const std::size_t n = std::min(blockFrames, frames - done);
            containersOfPair<Plain, Real>(arithmetic_, left + done, right + done, words, n);
            storeContainers<Bytes, BigEndian>(words, destination + done * 2 * Bytes, Bytes, 2 * n);
            done += n;
        }
    }

    IntegerArithmetic arithmetic_;
};

// ---- Floats and G.711: one sample at a time -------------------------------

template <int Bytes, bool BigEndian> struct FloatSample {
    static constexpr int bytes = Bytes;

    template <typename Sample> static Sample decode(const std::uint8_t* p) {
        if constexpr (Bytes == 4) {
            return static_cast<Sample>(std::bit_cast<float>(loadUnsigned<4, BigEndian>(p)));
        } else {
            return static_cast<Sample>(std::bit_cast<double>(loadUnsigned64<BigEndian>(p)));
        }
    }

    template <typename Sample> static void encode(Sample x, std::uint8_t* p) {
        if constexpr (Bytes == 4) {
            storeUnsigned<4, BigEndian>(p, std::bit_cast<std::uint32_t>(static_cast<float>(x)));
        } else {
            storeUnsigned64<BigEndian>(p, std::bit_cast<std::uint64_t>(static_cast<double>(x)));
        }
    }
};

template <bool MuLaw> struct G711Sample {
    static constexpr int bytes = 1;

    template <typename Sample> static Sample decode(const std::uint8_t* p) {
        return static_cast<Sample>(MuLaw ? KROMuLawDecoded(*p) : KROALawDecoded(*p));
    }

    // Straight to the precision that the code keeps, 14 bits for mu-law and 13
    // for A-law: rounding there, rather than cutting a 16-bit value, codes each
    // value by its nearest decision level.
    template <typename Sample> static void encode(Sample x, std::uint8_t* p) {
        constexpr Sample scale = MuLaw ? 8192 : 4096;
        const std::int32_t value = quantize<Sample>(x, scale, -scale, scale - 1);
        *p = MuLaw ? KROMuLawEncoded(value) : KROALawEncoded(value);
    }
};

// The working format's own samples. De-interleaving and interleaving them are
// copies that run at the speed of memory only with the widest vectors, so on
// x86-64 these are built for AVX2 as well and chosen when the library loads.
using NativeFloat = FloatSample<4, std::endian::native == std::endian::big>;

// clang 14 emits no resolver symbol for target_clones here, and the ifunc
// resolvers run before ThreadSanitizer's runtime starts, so clang and
// sanitizer builds take the portable loop.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(KRO_SANITIZER_BUILD)
#define KRO_WIDE_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define KRO_WIDE_VECTOR_CLONES
#endif

KRO_WIDE_VECTOR_CLONES
void deinterleaveFloats(const std::uint8_t* __restrict source, float* __restrict left,
                        float* __restrict right, std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) {
        left[i] = NativeFloat::decode<float>(source + 8 * i);
        right[i] = NativeFloat::decode<float>(source + 8 * i + 4);
    }
}

KRO_WIDE_VECTOR_CLONES
void interleaveFloats(const float* __restrict left, const float* __restrict right,
                      std::uint8_t* __restrict destination, std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) {
        NativeFloat::encode<float>(left[i], destination + 8 * i);
        NativeFloat::encode<float>(right[i], destination + 8 * i + 4);
    }
}

// A codec made of a per-sample rule; the contiguous cases get strides known
// at compile time so that the compiler vectorizes them.
template <typename Rule> class SampleCodec {
public:
    explicit SampleCodec(const KROSampleFormat&) {}

    template <typename Sample>
    void decode(const std::uint8_t* __restrict source, std::ptrdiff_t sourceStride,
                Sample* __restrict destination, std::ptrdiff_t destinationStride,
                std::size_t count) const {
        constexpr std::ptrdiff_t bytes = Rule::bytes;
        if (sourceStride == bytes && destinationStride == 1) {
            for (std::size_t i = 0; i < count; ++i) {
                destination[i] = Rule::template decode<Sample>(source + i * bytes);
            }
            return;
        }
        for (std::size_t i = 0; i < count; ++i) {
            destination[std::ptrdiff_t(i) * destinationStride] =
                Rule::template decode<Sample>(source + std::ptrdiff_t(i) * sourceStride);
        }
    }

    template <typename Sample>
    void encode(const Sample* __restrict source, std::ptrdiff_t sourceStride,
                std::uint8_t* __restrict destination, std::ptrdiff_t destinationStride,
                std::size_t count) const {
        constexpr std::ptrdiff_t bytes = Rule::bytes;
        if (sourceStride == 1 && destinationStride == bytes) {
            for (std::size_t i = 0; i < count; ++i) {
                Rule::template encode<Sample>(source[i], destination + i * bytes);
            }
            return;
        }
        for (std::size_t i = 0; i < count; ++i) {
            Rule::template encode<Sample>(source[std::ptrdiff_t(i) * sourceStride],
                                          destination + std::ptrdiff_t(i) * destinationStride);
        }
    }

    void decodePair(const std::uint8_t* __restrict source, float* __restrict left,
                    float* __restrict right, std::size_t frames) const {
        if constexpr (std::is_same_v<Rule, NativeFloat>) {
            return deinterleaveFloats(source, left, right, frames);
        }
        constexpr std::size_t bytes = Rule::bytes;
        for (std::size_t i = 0; i < frames; ++i) {
            left[i] = Rule::template decode<float>(source + 2 * i * bytes);
            right[i] = Rule::template decode<float>(source + (2 * i + 1) * bytes);
        }
    }

    void encodePair(const float* __restrict left, const float* __restrict right,
                    std::uint8_t* __restrict destination, std::size_t frames) const {
        if constexpr (std::is_same_v<Rule, NativeFloat>) {
            return interleaveFloats(left, right, destination, frames);
        }
        constexpr std::size_t bytes = Rule::bytes;
        for (std::size_t i = 0; i < frames; ++i) {
            Rule::template encode<float>(left[i], destination + 2 * i * bytes);
            Rule::template encode<float>(right[i], destination + (2 * i + 1) * bytes);
        }
    }
};

template <int Bytes, bool BigEndian> using FloatCodec = SampleCodec<FloatSample<Bytes, BigEndian>>;

// ---- Dispatch -------------------------------------------------------------

template <template <int, bool> class Codec, int Bytes, typename Function>
void visitByteOrder(const KROSampleFormat& format, Function&& function) {
    if (format.bigEndian) {
        function(Codec<Bytes, true>(format));
    } else {
        function(Codec<Bytes, false>(format));
    }
}

template <typename Function> void visitInteger(const KROSampleFormat& format, Function&& function) {
    switch (format.bytes) {
    case 1:
        return visitByteOrder<IntegerCodec, 1>(format, function);
    case 2:
        return visitByteOrder<IntegerCodec, 2>(format, function);
    case 3:
        return visitByteOrder<IntegerCodec, 3>(format, function);
    default:
        return visitByteOrder<IntegerCodec, 4>(format, function);
    }
}

// Calls function with the codec of the format; an invalid format calls nothing.
template <typename Function> void visitCodec(const KROSampleFormat& format, Function&& function) {
    if (!KROSampleFormatIsValid(format)) {
        return;
    }
    switch (format.coding) {
    case KROSampleCoding::signedInteger:
    case KROSampleCoding::unsignedInteger:
        return visitInteger(format, function);
    case KROSampleCoding::floatingPoint:
        if (format.bytes == 4) {
            return visitByteOrder<FloatCodec, 4>(format, function);
        }
        return visitByteOrder<FloatCodec, 8>(format, function);
    case KROSampleCoding::muLaw:
        return function(SampleCodec<G711Sample<true>>(format));
    case KROSampleCoding::aLaw:
        return function(SampleCodec<G711Sample<false>>(format));
    }
}

template <typename Sample>
void decodeSamples(const KROSampleFormat& format, const void* source, std::ptrdiff_t sourceStride,
                   Sample* destination, std::ptrdiff_t destinationStride, std::size_t count) {
    visitCodec(format, [&](const auto& codec) {
        codec.decode(static_cast<const std::uint8_t*>(source), sourceStride, destination,
                     destinationStride, count);
    });
}

template <typename Sample>
void encodeSamples(const KROSampleFormat& format, const Sample* source, std::ptrdiff_t sourceStride,
                   void* destination, std::ptrdiff_t destinationStride, std::size_t count) {
    visitCodec(format, [&](const auto& codec) {
        codec.encode(source, sourceStride, static_cast<std::uint8_t*>(destination),
                     destinationStride, count);
    });
}

} // namespace

bool KROSampleFormatIsValid(const KROSampleFormat& format) {
    switch (format.coding) {
    case KROSampleCoding::signedInteger:
    case KROSampleCoding::unsignedInteger:
        return format.bytes >= 1 && format.bytes <= 4 && format.bits >= 1 &&
               format.bits <= 8 * format.bytes;
    case KROSampleCoding::floatingPoint:
        return (format.bytes == 4 || format.bytes == 8) && format.bits == 8 * format.bytes;
    case KROSampleCoding::muLaw:
    case KROSampleCoding::aLaw:
        return format.bytes == 1 && format.bits == 8;
    }
    return false;
}

bool KROSampleFormatIsNativeFloat32(const KROSampleFormat& format) {
    return format.coding == KROSampleCoding::floatingPoint && format.bytes == 4 &&
           format.bits == 32 && format.bigEndian == (std::endian::native == std::endian::big);
}

void KRODecodeSamples(const KROSampleFormat& format, const void* source,
                      std::ptrdiff_t sourceStride, float* destination,
                      std::ptrdiff_t destinationStride, std::size_t count) {
    decodeSamples(format, source, sourceStride, destination, destinationStride, count);
}

void KRODecodeSamples(const KROSampleFormat& format, const void* source,
                      std::ptrdiff_t sourceStride, double* destination,
                      std::ptrdiff_t destinationStride, std::size_t count) {
    decodeSamples(format, source, sourceStride, destination, destinationStride, count);
}

void KROEncodeSamples(const KROSampleFormat& format, const float* source,
                      std::ptrdiff_t sourceStride, void* destination,
                      std::ptrdiff_t destinationStride, std::size_t count) {
    encodeSamples(format, source, sourceStride, destination, destinationStride, count);
}

void KROEncodeSamples(const KROSampleFormat& format, const double* source,
                      std::ptrdiff_t sourceStride, void* destination,
                      std::ptrdiff_t destinationStride, std::size_t count) {
    encodeSamples(format, source, sourceStride, destination, destinationStride, count);
}

void KRODecodeInterleavedPair(const KROSampleFormat& format, const void* source, float* left,
                              float* right, std::size_t frames) {
    visitCodec(format, [&](const auto& codec) {
        codec.decodePair(static_cast<const std::uint8_t*>(source), left, right, frames);
    });
}

void KROEncodeInterleavedPair(const KROSampleFormat& format, const float* left, const float* right,
                              void* destination, std::size_t frames) {
    visitCodec(format, [&](const auto& codec) {
        codec.encodePair(left, right, static_cast<std::uint8_t*>(destination), frames);
    });
}
