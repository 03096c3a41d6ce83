#include "ko_sst.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "KROFFT.h"
#include "KROVectorOps.h"
#include "kx_log.h"

namespace {

struct Region {
    std::int32_t start = 0;
    std::int32_t end = 0;
    std::int32_t peak_index = 0;
    double period_sec = 0.0;
    float peak_value = 0.0f;
};

// 0.95 and 0.05, given as their bits so that every compiler yields the same
// floats; 0.8 likewise.
constexpr float kPeakRatio = std::bit_cast<float>(0x3f733333u);
constexpr float kHarmonicTolerance = std::bit_cast<float>(0x3d4ccccdu);
constexpr float kClarityThreshold = std::bit_cast<float>(0x3f4ccccdu);

} // namespace

struct ko_sst {
    double sample_rate_hz = 0.0;
    std::int32_t step_nsamp = 0;
    float f0_hz = 0.0f;
    float foo = 1.0f;
    float max_hz = 5000.0f;
    float peak_ratio = kPeakRatio;
    float harmonic_tolerance = kHarmonicTolerance;
    double dt_sec = 0.0;
    std::int32_t window_nsamp = 0;
    std::int32_t fft_log2n = 0;
    std::int32_t fft_n = 0;
    ko_sst_out_fn_t out_fn = nullptr;
    void* out_ctx = nullptr;
    std::unique_ptr<KROFFT> fft_setup;
    std::int64_t last_position = 0;
    std::int32_t ibuf_cursor = 0;
    std::vector<float> ibuf;
    std::vector<float> ir_t;
    // The spectrum of the newest window; the FFT's own buffers hold the rest.
    std::vector<float> f_fz_real, f_fz_imag;
    std::vector<float> c_t;
    std::vector<float> ir2_t;
    std::vector<float> irvm2_t;
    std::vector<float> irvm_t;
    std::vector<float> norm_t;
    std::vector<float> cn_t;
    std::int32_t regions_cap = 0;
    std::int32_t regions_count = 0;
    std::vector<Region> regions;
    float semitone = 0.0f;
    float clarity = 0.0f;
    float prev_semitone = 0.0f;
    float prev_clarity = 0.0f;
    std::int32_t event_number = 0;
};

namespace {

bool refuseNull(const ko_sst_t* context, const char* function) {
    if (!context) {
        kx_log_d("%s -- error: specified module context is NULL", function);
        return true;
    }
    return false;
}

// c_t[t] = sum over j < S of f[j] * g[j + t], f the newest S samples and g
// all 2S, newest first: conj(F) * G through one FFT of at least 3S points,
// so that no lag below S wraps around.
void correlate(ko_sst_t& me) {
    const std::size_t s = std::size_t(me.step_nsamp);
    const std::size_t n = std::size_t(me.fft_n);
    const std::size_t bins = n / 2 + 1;
    KROFFT& fft = *me.fft_setup;
    float* time = fft.time();
    std::copy_n(me.ir_t.data(), s, time);
    std::fill(time + s, time + n, 0.0f);
    fft.forward();
    std::copy_n(fft.real(), bins, me.f_fz_real.data());
    std::copy_n(fft.imaginary(), bins, me.f_fz_imag.data());
    std::copy_n(me.ir_t.data(), 2 * s, time);
    std::fill(time + 2 * s, time + n, 0.0f);
    fft.forward();
    float* real = fft.real();
    float* imaginary = fft.imaginary();
    for (std::size_t k = 0; k < bins; ++k) {
        const float fr = me.f_fz_real[k], fi = me.f_fz_imag[k];
        const float gr = real[k], gi = imaginary[k];
        real[k] = fr * gr + fi * gi;
        imaginary[k] = fr * gi - fi * gr;
    }
    fft.inverse();
    kro_vsmul(time, 1.0f / float(n), me.c_t.data(), s);
}

// cn_t[t] = c_t[t] / (sqrt(E(t)) * sqrt(E(0))), E(t) the energy of the
// window at lag t. A silent window gives NaN (as 0 / 0 would), never the
// infinity that rounding in c_t could make of a division by 0.
void normalise(ko_sst_t& me) {
    const std::size_t s = std::size_t(me.step_nsamp);
    kro_vmul(me.ir_t.data(), me.ir_t.data(), me.ir2_t.data(), 2 * s);
    kro_vswsum(me.ir2_t.data(), me.irvm2_t.data(), s, s);
    for (std::size_t t = 0; t < s; ++t) {
        me.irvm_t[t] = std::sqrt(me.irvm2_t[t]);
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (std::size_t t = 0; t < s; ++t) {
        me.norm_t[t] = me.irvm_t[t] * me.irvm_t[0];
        me.cn_t[t] = me.norm_t[t] > 0.0f ? me.c_t[t] / me.norm_t[t] : nan;
    }
}

// The positive regions after the first lag at or below 0. A region still
// open at the last lag is dropped.
void findRegions(ko_sst_t& me) {
    const std::int32_t s = me.step_nsamp;
    const float* cn = me.cn_t.data();
    me.regions_count = 0;
    std::int32_t t = 0;
    while (t < s && !(cn[t] <= 0.0f)) {
        ++t;
    }
    bool open = false;
    Region region;
    for (; t < s && me.regions_count < me.regions_cap; ++t) {
        if (!open) {
            if (cn[t] > 0.0f) {
                open = true;
                region = Region{t, t, t, 0.0, cn[t]};
            }
            continue;
        }
        if (cn[t] > region.peak_value) {
            region.peak_index = t;
            region.peak_value = cn[t];
        } else if (cn[t] <= 0.0f) {
            open = false;
            region.end = t - 1;
            const std::int32_t p = region.peak_index;
            const float a = cn[p - 1], b = cn[p], c = cn[p + 1];
            // Twice the offset of the parabola's vertex: kept, as the tuning
            // of every stored result depends on it.
            const float offset = (c - a) / (2.0f * b - (a + c));
            region.period_sec = double(float(p) + offset) / me.sample_rate_hz;
            me.regions[std::size_t(me.regions_count++)] = region;
        }
    }
}

// The region of the fundamental: the first after the one at lag 0 whose peak
// comes near the highest.
std::int32_t chooseRegion(const ko_sst_t& me) {
    const Region* regions = me.regions.data();
    std::int32_t m = 0;
    for (std::int32_t i = 1; i < me.regions_count; ++i) {
        if (regions[i].peak_value > regions[m].peak_value) {
            m = i;
        }
    }
    const float limit = regions[m].peak_value * me.peak_ratio;
    if (limit < regions[0].peak_value) {
        return 0;
    }
    for (std::int32_t i = 1; i < me.regions_count; ++i) {
        if (regions[i].peak_value > limit) {
            return i;
        }
    }
    return m;
}

// The longest lag that is a clean multiple of the chosen period gives the
// finer estimate: f = n / T(n).
float refinedSemitone(const ko_sst_t& me, std::int32_t c) {
    const Region* regions = me.regions.data();
    for (std::int32_t r = me.regions_count - 1; r >= c; --r) {
        if (regions[r].peak_value < regions[c].peak_value * 0.5f) {
            continue;
        }
        const auto q = float(regions[r].period_sec / regions[c].period_sec);
        if (std::fabs(q - std::round(q)) < me.harmonic_tolerance) {
            return 12.0f * std::log2(float(std::round(q) / regions[r].period_sec) / me.f0_hz);
        }
    }
    return 0.0f;
}

void report(ko_sst_t& me) {
    if (!me.out_fn) {
        return;
    }
    const std::int64_t position = me.last_position - me.step_nsamp / 2;
    if (me.clarity <= kClarityThreshold) {
        me.out_fn(0.0f, 0.0f, me.out_ctx, position, 0);
        return;
    }
    if (me.prev_clarity < kClarityThreshold || std::fabs(me.semitone - me.prev_semitone) > 0.5f) {
        // 0 stands for no note, so the count steps over it when it wraps.
        me.event_number = std::int32_t(std::uint32_t(me.event_number) + 1u);
        if (me.event_number == 0) {
            me.event_number = 1;
        }
    }
    const float level = std::log2(me.irvm2_t[0] / float(me.step_nsamp));
    me.out_fn(me.semitone, level, me.out_ctx, position, me.event_number);
}

void analyse(ko_sst_t& me) {
    me.prev_semitone = me.semitone;
    me.prev_clarity = me.clarity;
    std::copy(me.ibuf.begin(), me.ibuf.end(), me.ir_t.begin());
    kro_vrvrs(me.ir_t.data(), me.ir_t.size());
    correlate(me);
    normalise(me);
    findRegions(me);
    if (me.regions_count == 0) {
        me.semitone = 0.0f;
        me.clarity = 0.0f;
    } else {
        const std::int32_t c = chooseRegion(me);
        me.semitone = refinedSemitone(me, c);
        me.clarity = me.regions[std::size_t(c)].peak_value;
    }
    report(me);
}

} // namespace

int ko_sst__create(double sample_rate_hz, float f0_hz, std::int32_t step_nsamp, ko_sst_t** out) {
    static const char* const function = "ko_sst__create";
    if (out) {
        *out = nullptr;
    }
    if (!(sample_rate_hz > 0.0)) {
        kx_log_d("%s -- error: specified sample_rate_hz is %f; it should be greater than zero",
                 function, sample_rate_hz);
        return 1;
    }
    if (step_nsamp <= 0) {
        kx_log_d("%s -- error: specified step_nsamp is %i; it should be greater than zero",
                 function, step_nsamp);
        return 1;
    }
    if (!(f0_hz > 0.0f)) {
        kx_log_d("%s -- error: specified f0_hz is %f; it should be greater than zero", function,
                 double(f0_hz));
        return 1;
    }
    const auto log2n = std::int32_t(std::ceil(std::log2(3.0f * float(step_nsamp))));
    auto fft = KROFFT::create(unsigned(log2n));
    if (!fft) {
        kx_log_d("%s -- couldn't create fft_setup", function);
        return 1;
    }
    std::unique_ptr<ko_sst_t> me(new (std::nothrow) ko_sst_t);
    if (!me) {
        kx_log_d("%s -- couldn't malloc() me", function);
        return 1;
    }
    const std::size_t s = std::size_t(step_nsamp);
    me->sample_rate_hz = sample_rate_hz;
    me->step_nsamp = step_nsamp;
    me->f0_hz = f0_hz;
    me->dt_sec = 1.0 / sample_rate_hz;
    me->window_nsamp = 2 * step_nsamp;
    me->fft_log2n = log2n;
    me->fft_n = std::int32_t(fft->size());
    me->fft_setup = std::move(fft);
    me->regions_cap = me->fft_n / 20;
    const std::size_t bins = std::size_t(me->fft_n) / 2 + 1;
    me->ibuf.assign(2 * s, 0.0f);
    me->ir_t.assign(2 * s, 0.0f);
    me->f_fz_real.assign(bins, 0.0f);
    me->f_fz_imag.assign(bins, 0.0f);
    me->c_t.assign(std::size_t(me->fft_n), 0.0f);
    me->ir2_t.assign(2 * s, 0.0f);
    me->irvm2_t.assign(s, 0.0f);
    me->irvm_t.assign(s, 0.0f);
    me->norm_t.assign(s, 0.0f);
    me->cn_t.assign(s, 0.0f);
    me->regions.assign(std::size_t(me->regions_cap), Region{});
    if (out) {
        *out = me.release();
    }
    return 0;
}

int ko_sst__destroy(ko_sst_t* context) {
    if (refuseNull(context, "ko_sst__destroy")) {
        return 1;
    }
    delete context;
    return 0;
}

int ko_sst__set_foo(ko_sst_t* context, float foo) {
    if (refuseNull(context, "ko_sst__set_foo")) {
        return 1;
    }
    if (!(foo >= 0.0f)) {
        kx_log_d("%s -- error: specified foo is %f; it should be >= 0.0", "ko_sst__set_foo",
                 double(foo));
        return 1;
    }
    context->foo = foo;
    return 0;
}

int ko_sst__set_output_destination(ko_sst_t* context, ko_sst_out_fn_t out_fn, void* out_ctx) {
    if (refuseNull(context, "ko_sst__set_output_destination")) {
        return 1;
    }
    context->out_fn = out_fn;
    context->out_ctx = out_ctx;
    return 0;
}

int ko_sst__process_input_samples(ko_sst_t* context, const float* samples, std::int32_t in_n_samp,
                                  std::int64_t position) {
    static const char* const function = "ko_sst__process_input_samples";
    if (refuseNull(context, function)) {
        return 1;
    }
    if (!samples) {
        kx_log_d("%s -- error: specified input sample array is NULL", function);
        return 1;
    }
    if (in_n_samp <= 0) {
        kx_log_d("%s -- error: specified in_n_samp is %i; it should be greater than zero", function,
                 in_n_samp);
        return 1;
    }
    ko_sst_t& me = *context;
    const std::int32_t window = me.window_nsamp;
    std::int32_t left = in_n_samp;
    while (left > 0) {
        const std::int32_t piece = std::min(left, window - me.ibuf_cursor);
        std::copy_n(samples, piece, me.ibuf.data() + me.ibuf_cursor);
        samples += piece;
        left -= piece;
        me.ibuf_cursor += piece;
        if (me.ibuf_cursor == window) {
            analyse(me);
            std::copy_n(me.ibuf.data() + me.step_nsamp, me.step_nsamp, me.ibuf.data());
            me.ibuf_cursor = me.step_nsamp;
        }
    }
    me.last_position = position - 1 + in_n_samp;
    return 0;
}
