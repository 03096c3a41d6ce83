// A monophonic pitch tracker as plain functions, with no knowledge of the
// graph. Every step_nsamp samples it correlates the newest window of S
// samples with the 2S before it through FFTs, normalises the correlation by
// the windows' energies, splits it into positive regions, takes the region of
// the fundamental period and refines it through a clean multiple of it, and
// reports a semitone (0 at f0_hz), a level (log2 of the mean square) and a
// note event number through the output callback. A step with no clear period
// reports 0, 0 and event 0.
//
// Every function returns 0 on success and 1 on failure; a failure prints one
// line that starts with the function's name to standard error (kx_log_d) and
// changes nothing. All arrays are made by ko_sst__create, so processing
// allocates nothing and takes no lock. One thread at a time uses a context.
#pragma once

#include <cstdint>

extern "C" {

typedef struct ko_sst ko_sst_t;

// Receives each step's result; position is the last position fed less S / 2.
typedef void (*ko_sst_out_fn_t)(float semitone, float level, void* out_ctx, std::int64_t position,
                                std::int32_t event_number);

// S = step_nsamp; the FFT size is the power of two at or above 3S. On
// failure *out is set to none.
int ko_sst__create(double sample_rate_hz, float f0_hz, std::int32_t step_nsamp, ko_sst_t** out);
int ko_sst__destroy(ko_sst_t* context);
// Stored and otherwise unused; at least 0.
int ko_sst__set_foo(ko_sst_t* context, float foo);
int ko_sst__set_output_destination(ko_sst_t* context, ko_sst_out_fn_t out_fn, void* out_ctx);
// Feeds in_n_samp samples of one channel; an analysis runs each time the
// window of 2S fills, and the window then moves on by S.
int ko_sst__process_input_samples(ko_sst_t* context, const float* samples, std::int32_t in_n_samp,
                                  std::int64_t position);
}
