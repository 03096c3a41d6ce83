// A linked-channel compressor and expander as plain functions, with no
// knowledge of the graph. It measures the total power of all channels through
// a linear-phase low-pass FIR of in_delay_nsamp taps, maps that power through
// a table in the log2 domain, drives the gain towards the table's target with
// a critically damped second-order follower, and delays the audio by half the
// FIR so that each gain sits on the sound that caused it: it looks ahead.
//
// Levels named "l2o" are log2 of power; times are seconds. Every function
// returns 0 on success and 1 on failure; a failure prints one line that starts
// with the function's name to standard error (kx_log_d) and changes nothing.
// All arrays are made by kx_dsp_gdp__create, so processing allocates nothing
// and takes no lock that it would wait for.
//
// Threads: one thread processes. Another may call the setters meanwhile: each
// setting reaches the next frame that starts after it was made, whole, and a
// frame never sees half of a table. Settings made between
// kx_dsp_gdp__begin_settings and kx_dsp_gdp__end_settings reach the same
// frame together. kx_dsp_gdp__gain may be read from any thread.
#pragma once

#include <cstdint>

extern "C" {

typedef struct kx_dsp_gdp kx_dsp_gdp_t;

// Receives each finished frame: frame_nsamp samples of each of n_channels
// output channels, and the position of the frame's first sample counted in
// the positions that the caller gave with its input. Its result is ignored.
typedef int (*kx_dsp_gdp_out_fn_t)(void* out_ctx, float* const* obufs, std::int32_t n_channels,
                                   std::int32_t frame_nsamp, std::int64_t position);

// frame_nsamp is the analysis frame F, in_delay_nsamp the FIR length D; the
// audio comes out D / 2 samples late. pxf_cap is the table's capacity and
// must be above 2. On failure *out is set to none.
int kx_dsp_gdp__create(double sample_rate_hz, std::int32_t n_channels, std::int32_t frame_nsamp,
                       std::int32_t in_delay_nsamp, std::int32_t pxf_cap, kx_dsp_gdp_t** out);
int kx_dsp_gdp__destroy(kx_dsp_gdp_t* context);

// The power filter's cutoff is 1 / wavelength; 0.001 s (1 kHz) at creation.
int kx_dsp_gdp__set_input_power_lpf_wavelength_sec(kx_dsp_gdp_t* context, float in_pwr_lpf_l_sec);
// At least 0.001 s; 0.01 s at creation. The gain falls at the attack rate.
int kx_dsp_gdp__set_attack_time_constant_sec(kx_dsp_gdp_t* context, float tau);
// At least 0 s, where 0 is an infinite rate; 0.01 s at creation. The gain
// rises, or stands, at the release rate.
int kx_dsp_gdp__set_release_time_constant_sec(kx_dsp_gdp_t* context, float tau);
// n_el output levels at evenly spaced input levels from elmin to elmax, all
// log2 of power; the array is copied. With no table the gain is unity.
int kx_dsp_gdp__set_power_transfer_function(kx_dsp_gdp_t* context, float in_pwr_l2o_at_elmin,
                                            float in_pwr_l2o_at_elmax,
                                            const float* out_pwr_l2o_array, std::int32_t n_el);
int kx_dsp_gdp__set_output_destination(kx_dsp_gdp_t* context, kx_dsp_gdp_out_fn_t out_fn,
                                       void* out_ctx);

// Settings made from here on wait, and reach the next frame together at
// kx_dsp_gdp__end_settings. The pairs may nest.
int kx_dsp_gdp__begin_settings(kx_dsp_gdp_t* context);
int kx_dsp_gdp__end_settings(kx_dsp_gdp_t* context);

// Takes in_n_samp samples of each of in_n_ch channels, which must be the
// channel count given at creation; position is the caller's count of its
// first sample. Each completed frame goes to the output destination.
int kx_dsp_gdp__process_input_samples(kx_dsp_gdp_t* context, const float* const* in,
                                      std::int32_t in_n_ch, std::int32_t in_n_samp,
                                      std::int64_t position);

// The linear gain at the start of the last frame; 0 with no context.
float kx_dsp_gdp__gain(const kx_dsp_gdp_t* context);

// The power filter's design: a Dirichlet kernel of n taps for cutoff fc at
// sample rate fs, symmetric about n / 2 with tap 0 at 0 (for an even n), into
// ipfiltu, and the same scaled to a sum of 1 into ipfiltn.
int kx_dsp_gdp__calculate_lowpass_fir_coeffs(float fc, double fs, float* ipfiltu, float* ipfiltn,
                                             std::int32_t n);
}
