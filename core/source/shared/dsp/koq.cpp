#include "koq.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <vector>

#include "KROFFT.h"
#include "KROLog.h"
#include "KROVectorOps.h"

struct koq_internal_t {
    std::uint32_t resolution = 0;
    std::uint32_t samples_per_output = 0;
    float max_fidelity = 0.0f;
    float fidelity = 0.0f;
    std::uint32_t fir_n = 0;
    std::uint32_t max_taps = 0;
    std::uint32_t delay_base = 0;
    std::uint32_t taps = 0;
    std::uint32_t read_offset = 0;
    std::vector<float> window_coeffs;
    std::vector<float> req_fir_coeffs;
    float req_energy = 1.0f;
    std::vector<float> res_fir_coeffs;
    std::vector<float> vtmp0;
    std::unique_ptr<KROFFT> fft_setup;
    std::mutex fir_lock;
    std::uint32_t in_fifo_n = 0;
    std::uint32_t in_fifo_mask = 0;
    std::uint32_t in_fifo_pos = 0;
    std::vector<float> in_fifo;
    std::uint32_t out_array_n = 0;
    std::uint32_t out_array_count = 0;
    std::vector<float> out_array;
    std::mutex delegate_lock;
    koqDelegate* delegate = nullptr;
    std::uint64_t process_ticks = 0;
    std::uint32_t process_samples = 0;
};

namespace {

// The half-length h of the filter for a fidelity: n * fidelity taps at most,
// one at least, and always an odd count 2h + 1 about the centre.
std::uint32_t halfLength(std::uint32_t n, float fidelity) {
    float t = float(n) * fidelity;
    if (t <= 1.0f) {
        t = 1.0f;
    }
    return static_cast<std::uint32_t>(std::floor((t - 1.0f) * 0.5f));
}

std::uint64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::uint64_t(now.tv_sec) * 1000000000u + std::uint64_t(now.tv_nsec);
}

} // namespace

koq::koq() : me(std::make_unique<koq_internal_t>()) {}

koq::~koq() = default;

bool koq::initWithResolution(std::uint32_t resolution, std::uint32_t samplesPerOutput,
                             float maxFidelity) {
    me->fft_setup = KROFFT::create(resolution);
    if (!me->fft_setup) {
        KROLog("koq -- init -- couldn't create fft_setup");
        return false;
    }
    const std::uint32_t n = std::uint32_t(1) << resolution;
    me->resolution = resolution;
    me->samples_per_output = samplesPerOutput;
    me->max_fidelity = maxFidelity;
    me->fidelity = maxFidelity;
    me->fir_n = n;
    const std::uint32_t hmax = halfLength(n, maxFidelity);
    me->max_taps = 2 * hmax + 1;
    me->delay_base = hmax + 1;
    me->taps = me->max_taps;
    me->read_offset = hmax + me->delay_base;
    me->window_coeffs.assign(n, 0.0f);
    me->req_fir_coeffs.assign(n, 0.0f);
    me->req_fir_coeffs[n / 2] = 1.0f;
    me->req_energy = 1.0f;
    me->res_fir_coeffs = me->req_fir_coeffs;
    me->vtmp0.assign(n, 0.0f);
    me->in_fifo_n = n;
    me->in_fifo_mask = n - 1;
    me->in_fifo_pos = 0;
    me->in_fifo.assign(n, 0.0f);
    me->out_array_n = samplesPerOutput;
    me->out_array_count = 0;
    me->out_array.assign(samplesPerOutput, 0.0f);
    rebuildWindow(hmax);
    return true;
}

std::uint32_t koq::resolution() const {
    return me->resolution;
}

void koq::rebuildWindow(std::uint32_t h) {
    std::fill(me->window_coeffs.begin(), me->window_coeffs.end(), 0.0f);
    kro_hann_window(me->window_coeffs.data() + (me->fir_n / 2 - 1 - h), 2 * std::size_t(h) + 2);
}

void koq::setFidelity(float fidelity) {
    if (!me->fft_setup) {
        return;
    }
    fidelity = fidelity > 0.0f ? std::min(fidelity, 1.0f) : 0.0f;
    // More taps than the maximum fidelity's would reach inputs not yet
    // received, since the delay is fixed at creation.
    const std::uint32_t h = std::min(halfLength(me->fir_n, fidelity), me->delay_base - 1);
    rebuildWindow(h);
    windowAndInstall(fidelity, h);
}

void koq::windowAndInstall(float fidelity, std::uint32_t h) {
    const std::size_t n = me->fir_n;
    kro_vmul(me->window_coeffs.data(), me->req_fir_coeffs.data(), me->vtmp0.data(), n);
    const float energy = kro_svesq(me->vtmp0.data(), n);
    // The window keeps the energy of the requested filter; a window that
    // leaves nothing of it gives silence rather than 0 / 0.
    const float scale = energy > 0.0f ? std::sqrt(me->req_energy / energy) : 0.0f;
    const std::lock_guard<std::mutex> guard(me->fir_lock);
    kro_vsmul(me->vtmp0.data(), scale, me->res_fir_coeffs.data(), n);
    me->fidelity = fidelity;
    me->taps = 2 * h + 1;
    me->read_offset = h + me->delay_base;
}

void koq::setRequestedScalars(const float* scalars) {
    if (!me->fft_setup) {
        return;
    }
    const std::uint32_t n = me->fir_n;
    const std::uint32_t half = n / 2;
    KROFFT& fft = *me->fft_setup;
    for (std::uint32_t k = 0; k <= half; ++k) {
        fft.real()[k] = scalars[k];
        fft.imaginary()[k] = 0.0f;
    }
    fft.inverse();
    const float scale = float(1.0 / n);
    std::vector<float>& requested = me->vtmp0;
    // Half a turn puts the impulse of a flat curve at the centre, n/2.
    for (std::uint32_t i = 0; i < half; ++i) {
        requested[half + i] = fft.time()[i] * scale;
        requested[i] = fft.time()[half + i] * scale;
    }
    // A value that is not finite, or one so large that the energy overflows,
    // leaves an energy that is not finite: nothing is designed.
    const float energy = kro_svesq(requested.data(), n);
    if (!std::isfinite(energy)) {
        return;
    }
    me->req_fir_coeffs.swap(requested);
    me->req_energy = energy;
    const std::uint32_t h = (me->taps - 1) / 2;
    windowAndInstall(me->fidelity, h);
}

void koq::getResultantScalars(float* scalars) {
    if (!me->fft_setup) {
        return;
    }
    const std::uint32_t half = me->fir_n / 2;
    KROFFT& fft = *me->fft_setup;
    {
        const std::lock_guard<std::mutex> guard(me->fir_lock);
        for (std::uint32_t i = 0; i < half; ++i) {
            fft.time()[i] = me->res_fir_coeffs[half + i];
            fft.time()[half + i] = me->res_fir_coeffs[i];
        }
    }
    fft.forward();
    // The filter is symmetric about its centre: its spectrum is real.
    for (std::uint32_t k = 0; k <= half; ++k) {
        scalars[k] = fft.real()[k];
    }
}

void koq::filter(const float* samples, std::uint32_t count, float* out) {
    const std::uint32_t n = me->in_fifo_n;
    const std::uint32_t mask = me->in_fifo_mask;
    const std::uint32_t taps = me->taps;
    const float* const coefficients = me->res_fir_coeffs.data() + (n / 2 - (taps - 1) / 2);
    const float* const fifo = me->in_fifo.data();
    std::uint32_t p = me->in_fifo_pos;
    for (std::uint32_t i = 0; i < count; ++i) {
        me->in_fifo[p & mask] = samples[i];
        ++p;
        // The oldest tap first; the centre tap reads the sample hmax back,
        // whatever the taps in use.
        const std::uint32_t start = (p - me->read_offset) & mask;
        const std::uint32_t first = std::min(taps, n - start);
        float y = kro_dotpr(coefficients, fifo + start, first);
        if (first < taps) {
            y += kro_dotpr(coefficients + first, fifo, taps - first);
        }
        out[i] = y;
    }
}

void koq::processInPlace(float* samples, std::uint32_t count) {
    count = std::min(count, me->out_array_n);
    const std::uint64_t began = monotonicNanoseconds();
    const std::lock_guard<std::mutex> guard(me->fir_lock);
    filter(samples, count, me->out_array.data());
    std::copy_n(me->out_array.data(), count, samples);
    me->process_ticks += monotonicNanoseconds() - began;
    me->process_samples += count;
    me->in_fifo_pos += count;
}

void koq::process(const float* samples, std::uint32_t count) {
    const std::lock_guard<std::mutex> guard(me->fir_lock);
    if (me->out_array_n == 0) {
        return;
    }
    while (count > 0) {
        const std::uint32_t piece = std::min(count, me->out_array_n - me->out_array_count);
        const std::uint64_t began = monotonicNanoseconds();
        filter(samples, piece, me->out_array.data() + me->out_array_count);
        me->process_ticks += monotonicNanoseconds() - began;
        me->process_samples += piece;
        me->in_fifo_pos += piece;
        me->out_array_count += piece;
        samples += piece;
        count -= piece;
        if (me->out_array_count == me->out_array_n) {
            const std::lock_guard<std::mutex> delegateGuard(me->delegate_lock);
            if (me->delegate) {
                me->delegate->koq(*this, me->out_array.data(), me->out_array_n,
                                  me->in_fifo_pos - me->out_array_n - me->delay_base);
            }
            me->out_array_count = 0;
        }
    }
}

void koq::setDelegate(koqDelegate* delegate) {
    const std::lock_guard<std::mutex> guard(me->delegate_lock);
    me->delegate = delegate;
}

std::uint32_t koq::taps() const {
    const std::lock_guard<std::mutex> guard(me->fir_lock);
    return me->taps;
}

std::uint32_t koq::delay() const {
    return me->delay_base - 1;
}

std::uint64_t koq::processNanoseconds() const {
    const std::lock_guard<std::mutex> guard(me->fir_lock);
    return me->process_ticks;
}

std::uint32_t koq::processSamples() const {
    const std::lock_guard<std::mutex> guard(me->fir_lock);
    return me->process_samples;
}
