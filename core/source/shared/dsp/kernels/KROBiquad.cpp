#include "KROBiquad.h"

#include <cmath>
#include <new>
#include <vector>

struct kro_biquadm_setup {
    std::size_t sections = 0;
    std::size_t channels = 0;
    // Five coefficients for each section and channel.
    std::vector<double> coefficients;
    // x[n-1], x[n-2], y[n-1], y[n-2] for each section and channel.
    std::vector<double> state;
};

namespace {

constexpr double kSilentState = 1e-30;

void flushSilentState(double* state) {
    for (int i = 0; i < 4; ++i) {
        if (std::fabs(state[i]) < kSilentState) {
            state[i] = 0.0;
        }
    }
}

} // namespace

kro_biquadm_setup* kro_biquadm_create_setup(const double* coefficients, std::size_t sections,
                                            std::size_t channels) {
    if (!coefficients || sections == 0 || channels == 0) {
        return nullptr;
    }
    try {
        auto* setup = new kro_biquadm_setup;
        setup->sections = sections;
        setup->channels = channels;
        setup->coefficients.assign(coefficients, coefficients + 5 * sections * channels);
        setup->state.assign(4 * sections * channels, 0.0);
        return setup;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void kro_biquadm_destroy_setup(kro_biquadm_setup* setup) {
    delete setup;
}

void kro_biquadm_reset_state(kro_biquadm_setup* setup) {
    if (setup) {
        setup->state.assign(setup->state.size(), 0.0);
    }
}

void kro_biquadm(kro_biquadm_setup* setup, const float* const* x, std::size_t xstride,
                 float* const* y, std::size_t ystride, std::size_t n) {
    if (!setup || !x || !y) {
        return;
    }
    for (std::size_t channel = 0; channel < setup->channels; ++channel) {
        const float* in = x[channel];
        float* out = y[channel];
        if (!in || !out) {
            continue;
        }
        std::size_t inStride = xstride;
        for (std::size_t section = 0; section < setup->sections; ++section) {
            const std::size_t at = section * setup->channels + channel;
            const double* c = &setup->coefficients[5 * at];
            double* s = &setup->state[4 * at];
            double x1 = s[0], x2 = s[1], y1 = s[2], y2 = s[3];
            for (std::size_t i = 0; i < n; ++i) {
                const double input = in[i * inStride];
                const double output = c[0] * input + c[1] * x1 + c[2] * x2 - c[3] * y1 - c[4] * y2;
                x2 = x1;
                x1 = input;
                y2 = y1;
                y1 = output;
                out[i * ystride] = static_cast<float>(output);
            }
            s[0] = x1;
            s[1] = x2;
            s[2] = y1;
            s[3] = y2;
            flushSilentState(s);
            // Later sections work on the output, in place.
            in = out;
            inStride = ystride;
        }
    }
}
