#include "KROVectorOps.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

// Each loop is compiled for AVX-512, AVX2 and the x86-64 baseline, and the
// loader picks the version that the processor runs (function multiversioning);
// the library itself is built for the baseline. flatten inlines the helpers
// below into each version, so that they too are compiled for its target.
//
// Every version rounds each product and each sum on its own, as the formulas
// are written: GCC would otherwise contract a * b + c into one fused
// multiply-add where the target has one, and results would differ from
// processor to processor.
#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif
// clang 14 emits no resolver symbol for target_clones here, and the ifunc
// resolvers run before ThreadSanitizer's runtime starts, so clang and
// sanitizer builds take the portable loop.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(KRO_SANITIZER_BUILD)
#define KRO_VECTOR_LOOP __attribute__((target_clones("avx512f", "avx2", "default"), flatten))
#else
#define KRO_VECTOR_LOOP
#endif

namespace {

// The element-wise loops below are unrolled four times past vectorization:
// with one vector per iteration the loop's own overhead bounded them.

// Partial sums and extremes run in this many independent lanes so that the
// loop carries no dependency from one vector to the next.
constexpr std::size_t kLanes = 64;

template <typename Term> float sumOf(const float* a, std::size_t n, Term term) {
    float partial[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
#pragma omp simd
        for (std::size_t lane = 0; lane < kLanes; ++lane) {
            partial[lane] += term(a[i + lane]);
        }
    }
    float sum = 0.0f;
#pragma omp simd reduction(+ : sum)
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        sum += partial[lane];
    }
    for (; i < n; ++i) {
        sum += term(a[i]);
    }
    return sum;
}

// The largest term(a[i]) by `if (x > m) m = x`, from start; NaN never wins.
template <typename Term> float largestOf(const float* a, std::size_t n, float start, Term term) {
    float partial[kLanes];
    for (float& value : partial) {
        value = start;
    }
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
#pragma omp simd
        for (std::size_t lane = 0; lane < kLanes; ++lane) {
            const float x = term(a[i + lane]);
            partial[lane] = x > partial[lane] ? x : partial[lane];
        }
    }
    // No lane holds NaN, so the lanes combine as a plain maximum. Not an
    // OpenMP max reduction: clang starts one at -FLT_MAX, which would replace
    // an empty input's -infinity.
    float largest = start;
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        largest = partial[lane] > largest ? partial[lane] : largest;
    }
    for (; i < n; ++i) {
        const float x = term(a[i]);
        largest = x > largest ? x : largest;
    }
    return largest;
}

struct Identity {
    float operator()(float x) const { return x; }
};
struct Negated {
    float operator()(float x) const { return -x; }
};
struct Absolute {
    float operator()(float x) const { return std::fabs(x); }
};
struct Squared {
    float operator()(float x) const { return x * x; }
};

} // namespace

extern "C" {

KRO_VECTOR_LOOP void kro_vclr(float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = 0.0f;
    }
}

KRO_VECTOR_LOOP void kro_vsma(const float* a, float b, const float* c, float* d, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        d[i] = a[i] * b + c[i];
    }
}

KRO_VECTOR_LOOP void kro_vsmul(const float* a, float b, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a[i] * b;
    }
}

KRO_VECTOR_LOOP void kro_vramp(float a, float b, float* c, std::size_t n, std::size_t first) {
    // A 32-bit index converts to float in vector registers; a 64-bit one does not.
    if (first + n <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        const auto start = static_cast<std::int32_t>(first);
        const auto count = static_cast<std::int32_t>(n);
        for (std::int32_t i = 0; i < count; ++i) {
            c[i] = a + static_cast<float>(start + i) * b;
        }
        return;
    }
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a + static_cast<float>(first + i) * b;
    }
}

KRO_VECTOR_LOOP void kro_vadd(const float* a, const float* b, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a[i] + b[i];
    }
}

KRO_VECTOR_LOOP void kro_vmul(const float* a, const float* b, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a[i] * b[i];
    }
}

KRO_VECTOR_LOOP void kro_vneg(const float* a, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = -a[i];
    }
}

KRO_VECTOR_LOOP void kro_vrvrs(float* c, std::size_t n) {
    const std::size_t half = n / 2;
    for (std::size_t i = 0; i < half; ++i) {
        const float front = c[i];
        c[i] = c[n - 1 - i];
        c[n - 1 - i] = front;
    }
}

KRO_VECTOR_LOOP float kro_maxv(const float* a, std::size_t n) {
    return largestOf(a, n, -std::numeric_limits<float>::infinity(), Identity{});
}

KRO_VECTOR_LOOP float kro_minv(const float* a, std::size_t n) {
    return -largestOf(a, n, -std::numeric_limits<float>::infinity(), Negated{});
}

KRO_VECTOR_LOOP float kro_maxmgv(const float* a, std::size_t n) {
    return largestOf(a, n, 0.0f, Absolute{});
}

KRO_VECTOR_LOOP float kro_rmsqv(const float* a, std::size_t n) {
    if (n == 0) {
        return 0.0f;
    }
    return std::sqrt(sumOf(a, n, Squared{}) / static_cast<float>(n));
}

KRO_VECTOR_LOOP float kro_meamgv(const float* a, std::size_t n) {
    if (n == 0) {
        return 0.0f;
    }
    return sumOf(a, n, Absolute{}) / static_cast<float>(n);
}

KRO_VECTOR_LOOP float kro_svesq(const float* a, std::size_t n) {
    return sumOf(a, n, Squared{});
}

void kro_copy_bytes(void* destination, const void* source, std::size_t n) {
    if (n != 0) {
        std::memmove(destination, source, n);
    }
}

void kro_clear_bytes(void* destination, std::size_t n) {
    if (n != 0) {
        std::memset(destination, 0, n);
    }
}

KRO_VECTOR_LOOP void kro_vfill(float a, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a;
    }
}

KRO_VECTOR_LOOP void kro_vsub(const float* a, const float* b, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a[i] - b[i];
    }
}

KRO_VECTOR_LOOP void kro_vsdiv(const float* a, float b, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = a[i] / b;
    }
}

KRO_VECTOR_LOOP void kro_vsmsa(const float* a, float b, float c, float* d, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        d[i] = a[i] * b + c;
    }
}

KRO_VECTOR_LOOP void kro_vclip(const float* a, float low, float high, float* c, std::size_t n) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < n; ++i) {
        const float x = a[i];
        c[i] = x < low ? low : (x > high ? high : x);
    }
}

KRO_VECTOR_LOOP float kro_sve(const float* a, std::size_t n) {
    return sumOf(a, n, Identity{});
}

KRO_VECTOR_LOOP float kro_meanv(const float* a, std::size_t n) {
    if (n == 0) {
        return 0.0f;
    }
    return sumOf(a, n, Identity{}) / static_cast<float>(n);
}

KRO_VECTOR_LOOP float kro_measqv(const float* a, std::size_t n) {
    if (n == 0) {
        return 0.0f;
    }
    return sumOf(a, n, Squared{}) / static_cast<float>(n);
}

KRO_VECTOR_LOOP void kro_conv(const float* a, const float* f, float* c, std::size_t n,
                              std::size_t p) {
    // Tap by tap over the whole output, so that the inner loop runs along the
    // output in vectors and each output still sums its taps in order.
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = 0.0f;
    }
    for (std::size_t j = 0; j < p; ++j) {
        const float tap = f[j];
        const float* const shifted = a + j;
#pragma GCC unroll 4
        for (std::size_t i = 0; i < n; ++i) {
            c[i] = c[i] + shifted[i] * tap;
        }
    }
}

void kro_vlint(const float* t, const float* b, float* c, std::size_t n, std::size_t m) {
    const auto last = static_cast<float>(m - 1);
    for (std::size_t i = 0; i < n; ++i) {
        const float position = b[i];
        if (!(position < last)) {
            c[i] = std::isnan(position) ? position : t[m - 1];
            continue;
        }
        if (position <= 0.0f) {
            c[i] = t[0];
            continue;
        }
        const auto k = static_cast<std::size_t>(position);
        const float fraction = position - static_cast<float>(k);
        c[i] = t[k] + fraction * (t[k + 1] - t[k]);
    }
}
}

KRO_VECTOR_LOOP float kro_dotpr(const float* a, const float* b, std::size_t n) {
    float partial[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
#pragma omp simd
        for (std::size_t lane = 0; lane < kLanes; ++lane) {
            partial[lane] += a[i + lane] * b[i + lane];
        }
    }
    float sum = 0.0f;
#pragma omp simd reduction(+ : sum)
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        sum += partial[lane];
    }
    for (; i < n; ++i) {
        sum += a[i] * b[i];
    }
    return sum;
}

void kro_hann_window(float* c, std::size_t n) {
    const double step = 2.0 * M_PI / double(n);
    for (std::size_t i = 0; i < n; ++i) {
        c[i] = float(0.5 * (1.0 - std::cos(step * double(i))));
    }
}

void kro_vswsum(const float* a, float* c, std::size_t n, std::size_t p) {
    if (n == 0) {
        return;
    }
    double sum = 0.0;
    for (std::size_t j = 0; j < p; ++j) {
        sum += a[j];
    }
    c[0] = float(sum);
    for (std::size_t i = 1; i < n; ++i) {
        sum += double(a[i + p - 1]) - double(a[i - 1]);
        c[i] = float(sum);
    }
}
