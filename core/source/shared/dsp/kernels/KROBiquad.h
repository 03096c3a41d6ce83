// vDSP_biquadm as plain functions: a cascade of biquad sections applied to
// several channels at once, with each channel's state kept between calls.
// Each section computes, in double precision,
//     y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] - a1 y[n-1] - a2 y[n-2].
// Only create allocates; processing neither allocates nor locks.
#pragma once

#include <cstddef>

extern "C" {

typedef struct kro_biquadm_setup kro_biquadm_setup;

// coefficients: five numbers (b0, b1, b2, a1, a2) for each channel of the
// first section, then of the next section, and so on: 5 x sections x
// channels in all. Null when either count is 0 or memory runs out.
kro_biquadm_setup* kro_biquadm_create_setup(const double* coefficients, std::size_t sections,
                                            std::size_t channels);
void kro_biquadm_destroy_setup(kro_biquadm_setup* setup);
// Every channel's state back to silence.
void kro_biquadm_reset_state(kro_biquadm_setup* setup);
// n samples of each channel c from x[c] to y[c], each with its stride; y may
// be x. A state that has decayed below 1e-30 is set to zero after each call,
// so that a tail fading into silence never reaches the subnormal numbers,
// whose arithmetic is many times slower, whatever the processor's
// flush-to-zero mode.
void kro_biquadm(kro_biquadm_setup* setup, const float* const* x, std::size_t xstride,
                 float* const* y, std::size_t ystride, std::size_t n);
}
