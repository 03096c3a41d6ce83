#include "kx_dsp_gdp.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>

#include "KROVectorOps.h"
#include "kx_log.h"

// Every product and sum is rounded on its own, as written, so that the gain
// is the same on every processor.
#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

namespace {

// The floor of the measured power, 2^-23 (about -69.2 dB), and its ceiling,
// the largest float.
constexpr float powerFloor = 1.1920928955078125e-07f;
constexpr float powerCeiling = 3.4028234663852886e+38f;
// A sample's power is taken as at most 2^64 (a sample of 2^32), far above
// any level a table reads, so that sums of powers stay finite.
constexpr float samplePowerCeiling = 18446744073709551616.0f;
// Targets are kept within 2^+-250 of power, so that the gain, 2^(target / 2),
// stays a finite float whatever the table holds.
constexpr float targetLimit = 250.0f;

// What a frame reads of the settings. The host's copy is written by the
// setters; the frame's copy is refreshed from it at the start of a frame.
struct Settings {
    float in_pwr_lpf_l_sec = 0.001f;
    float attack_tau_sec = 0.01f;
    float release_tau_sec = 0.01f;
    double attack_rate = 0.0;
    double release_rate = 0.0;
    float* pxf_lut = nullptr;
    std::int32_t pxf_n_el = 0;
    float pxf_in_min = 0.0f;
    float pxf_in_range = 0.0f;
    float* ipfiltu = nullptr;
    float* ipfiltn = nullptr;
};

float* allocateFloats(std::size_t count) {
    return static_cast<float*>(std::calloc(count == 0 ? 1 : count, sizeof(float)));
}

} // namespace

struct kx_dsp_gdp {
    double sample_rate_hz = 0.0;
    std::int32_t n_channels = 0;
    std::int32_t frame_nsamp = 0;
    std::int32_t in_delay_nsamp = 0;
    std::int32_t pxf_cap = 0;
    double dt_sec = 0.0;
    kx_dsp_gdp_out_fn_t out_fn = nullptr;
    void* out_ctx = nullptr;
    std::int32_t frame_cursor = 0;

    Settings frame;
    Settings host;
    std::mutex hostLock;
    std::atomic<bool> hostChanged{false};
    int holds = 0;
    std::atomic<float> publishedGain{0.0f};

    float** ibufs = nullptr;
    float** obufs = nullptr;
    float* iip = nullptr;
    float* irp = nullptr;
    float* irl = nullptr;
    float* orl = nullptr;
    float* gtl2 = nullptr;
    float* gl2 = nullptr;
    float* dgl2 = nullptr;
    float* glin = nullptr;
    float* tmp = nullptr;
};

namespace {

void freeSettings(Settings& settings) {
    std::free(settings.pxf_lut);
    std::free(settings.ipfiltu);
    std::free(settings.ipfiltn);
}

void freeContext(kx_dsp_gdp* me) {
    if (!me) {
        return;
    }
    freeSettings(me->frame);
    freeSettings(me->host);
    for (float** channels : {me->ibufs, me->obufs}) {
        if (channels) {
            for (std::int32_t channel = 0; channel < me->n_channels; ++channel) {
                std::free(channels[channel]);
            }
            std::free(channels);
        }
    }
    for (float* array :
         {me->iip, me->irp, me->irl, me->orl, me->gtl2, me->gl2, me->dgl2, me->glin, me->tmp}) {
        std::free(array);
    }
    delete me;
}

// Allocates one array of a settings copy; logs its name on failure.
bool allocateInto(float*& array, std::size_t count, const char* name) {
    array = allocateFloats(count);
    if (!array) {
        kx_log_d("%s -- couldn't malloc() %s", "kx_dsp_gdp__create", name);
    }
    return array != nullptr;
}

bool allocateSettings(Settings& settings, std::size_t cap, std::size_t taps) {
    return allocateInto(settings.pxf_lut, cap, "pxf_lut") &&
           allocateInto(settings.ipfiltu, taps, "ipfiltu") &&
           allocateInto(settings.ipfiltn, taps, "ipfiltn");
}

// An array of one float array per channel. An empty pointer array logs the
// ibufs line whichever it is: the text is shared on purpose.
float** allocateChannels(std::int32_t channels, std::size_t count, const char* name) {
    auto** arrays = static_cast<float**>(std::calloc(std::size_t(channels), sizeof(float*)));
    if (!arrays) {
        kx_log_d("%s -- couldn't malloc() ibufs", "kx_dsp_gdp__create");
        return nullptr;
    }
    for (std::int32_t channel = 0; channel < channels; ++channel) {
        arrays[channel] = allocateFloats(count);
        if (!arrays[channel]) {
            kx_log_d("%s -- couldn't malloc %s[%i]", "kx_dsp_gdp__create", name, channel);
            for (std::int32_t made = 0; made < channel; ++made) {
                std::free(arrays[made]);
            }
            std::free(arrays);
            return nullptr;
        }
    }
    return arrays;
}

bool allocateArrays(kx_dsp_gdp* me) {
    const auto frame = std::size_t(me->frame_nsamp);
    const auto taps = std::size_t(me->in_delay_nsamp);
    const auto cap = std::size_t(me->pxf_cap);
    if (!allocateSettings(me->frame, cap, taps) || !allocateSettings(me->host, cap, taps)) {
        return false;
    }
    me->ibufs = allocateChannels(me->n_channels, taps + frame, "ibufs");
    if (!me->ibufs) {
        return false;
    }
    me->obufs = allocateChannels(me->n_channels, frame, "obufs");
    if (!me->obufs) {
        return false;
    }
    const std::pair<float**, const char*> arrays[] = {
        {&me->iip, "iip"},   {&me->irp, "irp"},   {&me->irl, "irl"},
        {&me->orl, "orl"},   {&me->gtl2, "gtl2"}, {&me->gl2, "gl2"},
        {&me->dgl2, "dgl2"}, {&me->glin, "glin"}, {&me->tmp, "tmp"}};
    for (const auto& [array, name] : arrays) {
        *array = allocateFloats(array == &me->iip ? taps + frame : frame);
        if (!*array) {
            kx_log_d("%s -- couldn't malloc() %s", "kx_dsp_gdp__create", name);
            return false;
        }
    }
    return true;
}

bool contextIsMissing(const kx_dsp_gdp* me, const char* function) {
    if (!me) {
        kx_log_d("%s -- error: specified module context is NULL", function);
    }
    return !me;
}

// Marks the host's settings as changed, so that the next frame takes them.
void publish(kx_dsp_gdp* me) {
    me->hostChanged.store(true, std::memory_order_release);
}

// At the start of a frame: takes the host's settings when they changed, are
// not held, and the host is not writing them at this moment (then the next
// frame takes them).
void refreshSettings(kx_dsp_gdp* me) {
    if (!me->hostChanged.load(std::memory_order_acquire) || !me->hostLock.try_lock()) {
        return;
    }
    if (me->holds == 0 && me->hostChanged.load(std::memory_order_relaxed)) {
        Settings& from = me->host;
        Settings& to = me->frame;
        to.in_pwr_lpf_l_sec = from.in_pwr_lpf_l_sec;
        to.attack_tau_sec = from.attack_tau_sec;
        to.release_tau_sec = from.release_tau_sec;
        to.attack_rate = from.attack_rate;
        to.release_rate = from.release_rate;
        to.pxf_n_el = from.pxf_n_el;
        to.pxf_in_min = from.pxf_in_min;
        to.pxf_in_range = from.pxf_in_range;
        std::memcpy(to.pxf_lut, from.pxf_lut, std::size_t(me->pxf_cap) * sizeof(float));
        const std::size_t taps = std::size_t(me->in_delay_nsamp) * sizeof(float);
        std::memcpy(to.ipfiltu, from.ipfiltu, taps);
        std::memcpy(to.ipfiltn, from.ipfiltn, taps);
        me->hostChanged.store(false, std::memory_order_relaxed);
    }
    me->hostLock.unlock();
}

// Step 1: the power of every channel summed into the new part of iip. A
// sample that is not a number counts as silence, and an infinite one as 2^64.
void measurePower(kx_dsp_gdp* me) {
    const std::int32_t frame = me->frame_nsamp;
    float* const power = me->iip + me->in_delay_nsamp;
    kro_vclr(power, std::size_t(frame));
    for (std::int32_t channel = 0; channel < me->n_channels; ++channel) {
        const float* const samples = me->ibufs[channel] + me->in_delay_nsamp;
        for (std::int32_t i = 0; i < frame; ++i) {
            const float square = samples[i] * samples[i];
            const float bounded = square <= samplePowerCeiling  ? square
                                  : square > samplePowerCeiling ? samplePowerCeiling
                                                                : 0.0f;
            power[i] = power[i] + bounded;
        }
    }
}

// Steps 2 to 8: the filtered power, the input level, the table's output level
// and the target gain, all log2 of power.
void computeTargets(kx_dsp_gdp* me) {
    const auto frame = std::size_t(me->frame_nsamp);
    const Settings& settings = me->frame;
    kro_conv(me->iip, settings.ipfiltn, me->irp, frame, std::size_t(me->in_delay_nsamp));
    kro_vclip(me->irp, powerFloor, powerCeiling, me->irp, frame);
    // The square root of the channel count, not the count: the level of a
    // signal in every channel reads above the level of one channel.
    kro_vsdiv(me->irp, std::sqrt(static_cast<float>(me->n_channels)), me->tmp, frame);
    for (std::size_t i = 0; i < frame; ++i) {
        me->irl[i] = std::log2(me->tmp[i]);
    }
    kro_vclip(me->irl, settings.pxf_in_min, settings.pxf_in_min + settings.pxf_in_range, me->irl,
              frame);
    if (settings.pxf_n_el == 0) {
        std::memcpy(me->orl, me->irl, frame * sizeof(float));
    } else {
        const auto scale = static_cast<float>(static_cast<double>(settings.pxf_n_el - 1) /
                                              static_cast<double>(settings.pxf_in_range));
        const float offset = -(scale * settings.pxf_in_min);
        kro_vsmsa(me->irl, scale, offset, me->tmp, frame);
        kro_vlint(settings.pxf_lut, me->tmp, me->orl, frame, std::size_t(settings.pxf_n_el));
    }
    kro_vsub(me->orl, me->irl, me->gtl2, frame);
    // A target that is not a number (a filter or a table that could not be
    // made) is unity.
    for (std::size_t i = 0; i < frame; ++i) {
        const float target = me->gtl2[i];
        me->gtl2[i] = target == target ? target : 0.0f;
    }
    kro_vclip(me->gtl2, -targetLimit, targetLimit, me->gtl2, frame);
}

// A rate whose Euler step would overshoot is taken as the fastest step that
// does not: one sample's worth, which reaches the target in two samples.
// Slower rates, all that a time constant above a sample's length gives, are
// used as they are.
double stableRate(double rate, double dt) {
    return rate * dt > 1.0 ? 1.0 / dt : rate;
}

// Step 9: the critically damped follower, x'' = -2wx' - w^2 (x - target), one
// explicit Euler step a sample with the position moved by the old velocity.
void followTargets(kx_dsp_gdp* me) {
    const std::int32_t frame = me->frame_nsamp;
    const auto dt = static_cast<float>(me->dt_sec);
    const double attack = stableRate(me->frame.attack_rate, me->dt_sec);
    const double release = stableRate(me->frame.release_rate, me->dt_sec);
    const auto attackDamping = static_cast<float>(attack * -2.0);
    const auto attackStiffness = static_cast<float>(attack * attack);
    const auto releaseDamping = static_cast<float>(release * -2.0);
    const auto releaseStiffness = static_cast<float>(release * release);
    float* const gl2 = me->gl2;
    float* const dgl2 = me->dgl2;
    const float* const gtl2 = me->gtl2;
    // The first sample follows on from the previous frame's last, but is
    // compared with this frame's last target, already known: kept, as the
    // gain's path depends on it.
    std::int32_t p = frame - 1;
    for (std::int32_t i = 0; i < frame; ++i) {
        const float position = gl2[p];
        const float velocity = dgl2[p];
        const float target = gtl2[p];
        const bool falling = position > target;
        const float damping = falling ? attackDamping : releaseDamping;
        const float stiffness = falling ? attackStiffness : releaseStiffness;
        gl2[i] = velocity * dt + position;
        dgl2[i] = velocity + (damping * velocity - (position - target) * stiffness) * dt;
        p = i;
    }
}

// Steps 10 to 12: the gain from power to amplitude, the delayed audio times
// the gain, and the history moved to the front for the next frame.
void applyGain(kx_dsp_gdp* me) {
    const auto frame = std::size_t(me->frame_nsamp);
    const auto taps = std::size_t(me->in_delay_nsamp);
    for (std::size_t i = 0; i < frame; ++i) {
        me->glin[i] = std::exp2(me->gl2[i] * 0.5f);
    }
    me->publishedGain.store(me->glin[0], std::memory_order_relaxed);
    for (std::int32_t channel = 0; channel < me->n_channels; ++channel) {
        kro_vmul(me->glin, me->ibufs[channel] + taps / 2, me->obufs[channel], frame);
        std::memmove(me->ibufs[channel], me->ibufs[channel] + frame, taps * sizeof(float));
    }
    std::memmove(me->iip, me->iip + frame, taps * sizeof(float));
}

void runFrame(kx_dsp_gdp* me) {
    refreshSettings(me);
    measurePower(me);
    computeTargets(me);
    followTargets(me);
    applyGain(me);
}

} // namespace

extern "C" {

int kx_dsp_gdp__create(double sample_rate_hz, std::int32_t n_channels, std::int32_t frame_nsamp,
                       std::int32_t in_delay_nsamp, std::int32_t pxf_cap, kx_dsp_gdp_t** out) {
    const char* const function = __func__;
    if (out) {
        *out = nullptr;
    }
    if (!(sample_rate_hz > 0.0)) {
        kx_log_d("%s -- error: specified sample_rate_hz is %f; it should be greater than zero",
                 function, sample_rate_hz);
        return 1;
    }
    if (n_channels <= 0) {
        kx_log_d("%s -- error: specified n_channels is %i; it should be greater than zero",
                 function, n_channels);
        return 1;
    }
    if (frame_nsamp <= 0) {
        kx_log_d("%s -- error: specified frame_nsamp is %i; it should be greater than zero",
                 function, frame_nsamp);
        return 1;
    }
    if (in_delay_nsamp <= 0) {
        kx_log_d("%s -- error: specified in_delay_nsamp is %i; it should be greater than zero",
                 function, in_delay_nsamp);
        return 1;
    }
    // The text says 2 is allowed; the test refuses it. Kept as it is: hosts
    // read the text, tables are always longer.
    if (pxf_cap <= 2) {
        kx_log_d("%s -- error: specified pxf_cap is %i; it should be greater or equal to 2",
                 function, pxf_cap);
        return 1;
    }
    if (!out) {
        kx_log_d("%s -- error: specified module context is NULL", function);
        return 1;
    }
    auto* me = new (std::nothrow) kx_dsp_gdp;
    if (!me) {
        kx_log_d("%s -- couldn't malloc() me", function);
        return 1;
    }
    me->sample_rate_hz = sample_rate_hz;
    me->n_channels = n_channels;
    me->frame_nsamp = frame_nsamp;
    me->in_delay_nsamp = in_delay_nsamp;
    me->pxf_cap = pxf_cap;
    me->dt_sec = 1.0 / sample_rate_hz;
    if (!allocateArrays(me)) {
        freeContext(me);
        return 1;
    }
    Settings& settings = me->frame;
    settings.attack_rate = 1.0 / static_cast<double>(settings.attack_tau_sec);
    settings.release_rate = 1.0 / static_cast<double>(settings.release_tau_sec);
    kx_dsp_gdp__calculate_lowpass_fir_coeffs(1.0f / settings.in_pwr_lpf_l_sec, sample_rate_hz,
                                             settings.ipfiltu, settings.ipfiltn, in_delay_nsamp);
    Settings& host = me->host;
    host.attack_rate = settings.attack_rate;
    host.release_rate = settings.release_rate;
    const std::size_t taps = std::size_t(in_delay_nsamp) * sizeof(float);
    std::memcpy(host.ipfiltu, settings.ipfiltu, taps);
    std::memcpy(host.ipfiltn, settings.ipfiltn, taps);
    *out = me;
    return 0;
}

int kx_dsp_gdp__destroy(kx_dsp_gdp_t* context) {
    if (contextIsMissing(context, __func__)) {
        return 1;
    }
    freeContext(context);
    return 0;
}

int kx_dsp_gdp__set_input_power_lpf_wavelength_sec(kx_dsp_gdp_t* context, float in_pwr_lpf_l_sec) {
    if (contextIsMissing(context, __func__)) {
        return 1;
    }
    if (!(in_pwr_lpf_l_sec >= 0.0f)) {
        kx_log_d("%s -- error: specified in_pwr_lpf_l_sec is %f; it should be >= 0.0", __func__,
                 static_cast<double>(in_pwr_lpf_l_sec));
        return 1;
    }
    const std::lock_guard guard(context->hostLock);
    Settings& host = context->host;
    kx_dsp_gdp__calculate_lowpass_fir_coeffs(1.0f / in_pwr_lpf_l_sec, context->sample_rate_hz,
                                             host.ipfiltu, host.ipfiltn, context->in_delay_nsamp);
    host.in_pwr_lpf_l_sec = in_pwr_lpf_l_sec;
    publish(context);
    return 0;
}

int kx_dsp_gdp__set_attack_time_constant_sec(kx_dsp_gdp_t* context, float tau) {
    if (contextIsMissing(context, __func__)) {
        return 1;
    }
    if (!(tau >= 0.001f)) {
        kx_log_d("%s -- error: specified set_attack_tau_sec is %f; it should be >= 0.001", __func__,
                 static_cast<double>(tau));
        return 1;
    }
    const std::lock_guard guard(context->hostLock);
    context->host.attack_tau_sec = tau;
    context->host.attack_rate = 1.0 / static_cast<double>(tau);
    publish(context);
    return 0;
}

int kx_dsp_gdp__set_release_time_constant_sec(kx_dsp_gdp_t* context, float tau) {
    if (contextIsMissing(context, __func__)) {
        return 1;
    }
    if (!(tau >= 0.0f)) {
        kx_log_d("%s -- error: specified release_tau_sec is %f; it should be >= 0.0", __func__,
                 static_cast<double>(tau));
        return 1;
    }
    const std::lock_guard guard(context->hostLock);
    context->host.release_tau_sec = tau;
    context->host.release_rate = 1.0 / static_cast<double>(tau);
    publish(context);
    return 0;
}

int kx_dsp_gdp__set_power_transfer_function(kx_dsp_gdp_t* context, float in_pwr_l2o_at_elmin,
                                            float in_pwr_l2o_at_elmax,
                                            const float* out_pwr_l2o_array, std::int32_t n_el) {
    const char* const function = __func__;
    if (contextIsMissing(context, function)) {
        return 1;
    }
    if (n_el < 2) {
        kx_log_d("%s -- error: specified n_el is %i; it should be greater than or equal to 2",
                 function, n_el);
        return 1;
    }
    if (n_el > context->pxf_cap) {
        kx_log_d("%s -- error: specified n_el is %i; it should be less than or equal to the "
                 "capacity specifiedat module creation time, which was%i.",
                 function, n_el, context->pxf_cap);
        return 1;
    }
    if (!(in_pwr_l2o_at_elmin < in_pwr_l2o_at_elmax)) {
        kx_log_d("%s -- error: specified in_pwr_l2o_at_elmin is not less than specified "
                 "in_pwr_l2o_at_elmax",
                 function);
        return 1;
    }
    if (!out_pwr_l2o_array) {
        kx_log_d("%s -- error: specified out_pwr_l2o_array is NULL", function);
        return 1;
    }
    const std::lock_guard guard(context->hostLock);
    Settings& host = context->host;
    std::memcpy(host.pxf_lut, out_pwr_l2o_array, std::size_t(n_el) * sizeof(float));
    host.pxf_n_el = n_el;
    host.pxf_in_min = in_pwr_l2o_at_elmin;
    host.pxf_in_range = in_pwr_l2o_at_elmax - in_pwr_l2o_at_elmin;
    publish(context);
    return 0;
}

int kx_dsp_gdp__set_output_destination(kx_dsp_gdp_t* context, kx_dsp_gdp_out_fn_t out_fn,
                                       void* out_ctx) {
    // The line names the processing function: its text was shared from there
    // and hosts match on it.
    if (contextIsMissing(context, "kx_dsp_gdp__process_input_samples")) {
        return 1;
    }
    context->out_fn = out_fn;
    context->out_ctx = out_ctx;
    return 0;
}

int kx_dsp_gdp__begin_settings(kx_dsp_gdp_t* context) {
    if (contextIsMissing(context, __func__)) {
        return 1;
    }
    const std::lock_guard guard(context->hostLock);
    ++context->holds;
    return 0;
}

int kx_dsp_gdp__end_settings(kx_dsp_gdp_t* context) {
    if (contextIsMissing(context, __func__)) {
        return 1;
    }
    const std::lock_guard guard(context->hostLock);
    if (context->holds > 0) {
        --context->holds;
    }
    return 0;
}

int kx_dsp_gdp__process_input_samples(kx_dsp_gdp_t* context, const float* const* in,
                                      std::int32_t in_n_ch, std::int32_t in_n_samp,
                                      std::int64_t position) {
    const char* const function = __func__;
    if (contextIsMissing(context, function)) {
        return 1;
    }
    bool missing = !in;
    for (std::int32_t channel = 0; !missing && channel < in_n_ch; ++channel) {
        missing = !in[channel];
    }
    if (missing) {
        kx_log_d("%s -- error: specified input sample array is NULL", function);
        return 1;
    }
    if (in_n_ch != context->n_channels) {
        kx_log_d("%s -- error: specified in_n_ch is %i; which does not match the number of "
                 "channels specified at module creation time (%i)",
                 function, in_n_ch, context->n_channels);
        return 1;
    }
    if (in_n_samp <= 0) {
        kx_log_d("%s -- error: specified in_n_samp is %i; it should be greater than zero", function,
                 in_n_samp);
        return 1;
    }
    kx_dsp_gdp* const me = context;
    const std::int32_t frame = me->frame_nsamp;
    std::int32_t consumed = 0;
    while (consumed < in_n_samp) {
        const std::int32_t piece = std::min(in_n_samp - consumed, frame - me->frame_cursor);
        for (std::int32_t channel = 0; channel < me->n_channels; ++channel) {
            std::memcpy(me->ibufs[channel] + me->in_delay_nsamp + me->frame_cursor,
                        in[channel] + consumed, std::size_t(piece) * sizeof(float));
        }
        me->frame_cursor += piece;
        consumed += piece;
        if (me->frame_cursor == frame) {
            runFrame(me);
            me->frame_cursor = 0;
            if (me->out_fn) {
                const std::int64_t first =
                    std::int64_t(consumed - frame) + position - (me->in_delay_nsamp >> 1);
                me->out_fn(me->out_ctx, me->obufs, me->n_channels, frame, first);
            }
        }
    }
    return 0;
}

float kx_dsp_gdp__gain(const kx_dsp_gdp_t* context) {
    return context ? context->publishedGain.load(std::memory_order_relaxed) : 0.0f;
}

int kx_dsp_gdp__calculate_lowpass_fir_coeffs(float fc, double fs, float* ipfiltu, float* ipfiltn,
                                             std::int32_t n) {
    if (!ipfiltu || !ipfiltn || n <= 0) {
        kx_log_d("%s -- error: specified filter arrays are NULL or empty", __func__);
        return 1;
    }
    const auto f2 = static_cast<double>(fc + fc);
    const auto half = static_cast<std::uint32_t>(n) / 2;
    ipfiltu[0] = 0.0f;
    ipfiltu[half] = static_cast<float>(f2 / fs);
    if (n > 3) {
        const auto a = static_cast<float>(f2 * M_PI / fs);
        const auto b = static_cast<float>(M_PI / fs);
        for (std::uint32_t k = 1; k < half; ++k) {
            const auto kf = static_cast<float>(k);
            const auto v = static_cast<float>(static_cast<double>(std::sin(a * kf)) /
                                              (static_cast<double>(std::sin(kf * b)) * fs));
            ipfiltu[half - k] = v;
            ipfiltu[half + k] = v;
        }
    }
    const float sum = kro_sve(ipfiltu, std::size_t(n));
    kro_vsdiv(ipfiltu, sum, ipfiltn, std::size_t(n));
    return 0;
}
}
