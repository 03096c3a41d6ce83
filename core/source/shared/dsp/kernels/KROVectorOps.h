// The vDSP routines that the buffer lists use, one plain loop each, written to
// vDSP's formula with unit strides. Each is one pass over contiguous floats and
// neither allocates nor locks.
//
// NaN in the extremes: kro_maxv, kro_minv and kro_maxmgv behave like the loop
// `if (x > m) m = x` (or `<` for the minimum): a NaN sample never compares
// true, so it is skipped, and a vector of n = 0 or of NaN alone gives the
// starting value (-infinity, +infinity, 0). The sums follow IEEE arithmetic,
// so a NaN or an infinity in the input reaches the result.
//
// The order of summation within one statistic is free: the sums run over
// several partial sums so that they vectorize.
#pragma once

#include <cstddef>

extern "C" {

// vDSP_vclr: c[i] = 0.
void kro_vclr(float* c, std::size_t n);

// vDSP_vsma: d[i] = a[i] * b + c[i]. c and d may be the same vector.
void kro_vsma(const float* a, float b, const float* c, float* d, std::size_t n);

// vDSP_vsmul: c[i] = a[i] * b. a and c may be the same vector.
void kro_vsmul(const float* a, float b, float* c, std::size_t n);

// vDSP_vramp continued from element first: c[i] = a + (first + i) * b, the
// index converted to float. A ramp made in pieces, each piece given the index
// of its first element, equals the ramp made whole.
void kro_vramp(float a, float b, float* c, std::size_t n, std::size_t first);

// vDSP_vadd: c[i] = a[i] + b[i]. c may be the same vector as a or b.
void kro_vadd(const float* a, const float* b, float* c, std::size_t n);

// vDSP_vmul: c[i] = a[i] * b[i]. c may be the same vector as a or b.
void kro_vmul(const float* a, const float* b, float* c, std::size_t n);

// vDSP_vneg: c[i] = -a[i]. a and c may be the same vector.
void kro_vneg(const float* a, float* c, std::size_t n);

// vDSP_vrvrs: reverses c in place.
void kro_vrvrs(float* c, std::size_t n);

// vDSP_maxv: the largest a[i]; -infinity for n = 0.
float kro_maxv(const float* a, std::size_t n);

// vDSP_minv: the smallest a[i]; +infinity for n = 0.
float kro_minv(const float* a, std::size_t n);

// vDSP_maxmgv: the largest |a[i]|; 0 for n = 0.
float kro_maxmgv(const float* a, std::size_t n);

// vDSP_rmsqv: sqrt(sum(a[i]^2) / n); 0 for n = 0.
float kro_rmsqv(const float* a, std::size_t n);

// vDSP_meamgv: sum(|a[i]|) / n; 0 for n = 0.
float kro_meamgv(const float* a, std::size_t n);

// vDSP_svesq: sum(a[i]^2).
float kro_svesq(const float* a, std::size_t n);

// Byte copy of n bytes; the blocks may overlap.
void kro_copy_bytes(void* destination, const void* source, std::size_t n);

// Zeroes n bytes.
void kro_clear_bytes(void* destination, std::size_t n);

// The loops of the loudness meter and the dynamics engine.

// c[i] = a.
void kro_vfill(float a, float* c, std::size_t n);

// c[i] = a[i] - b[i]. c may be the same vector as a or b.
void kro_vsub(const float* a, const float* b, float* c, std::size_t n);

// c[i] = a[i] / b. a and c may be the same vector.
void kro_vsdiv(const float* a, float b, float* c, std::size_t n);

// d[i] = a[i] * b + c, with two scalars. a and d may be the same vector.
void kro_vsmsa(const float* a, float b, float c, float* d, std::size_t n);

// c[i] = low where a[i] < low, high where a[i] > high, else a[i]: a NaN
// passes unchanged. a and c may be the same vector.
void kro_vclip(const float* a, float low, float high, float* c, std::size_t n);

// sum(a[i]); 0 for n = 0.
float kro_sve(const float* a, std::size_t n);

// sum(a[i]) / n; 0 for n = 0.
float kro_meanv(const float* a, std::size_t n);

// sum(a[i]^2) / n; 0 for n = 0.
float kro_measqv(const float* a, std::size_t n);

// A correlation: c[i] = sum over j < p of a[i + j] * f[j], for i < n. a holds
// n + p - 1 elements. The sum for each i runs in the order of j.
void kro_conv(const float* a, const float* f, float* c, std::size_t n, std::size_t p);

// Linear interpolation in a table of m entries at the positions b[i]:
// c[i] = t[k] + (b[i] - k) * (t[k + 1] - t[k]) with k = floor(b[i]). A
// position at or past m - 1 reads the last entry and one below 0 the first,
// so no position reads outside the table. m must be at least 1.
void kro_vlint(const float* t, const float* b, float* c, std::size_t n, std::size_t m);

// The loops of the equaliser and the pitch tracker.

// vDSP_dotpr: sum(a[i] * b[i]); 0 for n = 0.
float kro_dotpr(const float* a, const float* b, std::size_t n);

// vDSP_hann_window, denormalised: c[i] = 0.5 * (1 - cos(2 pi i / n)), whose
// peak of 1.0 stands at i = n / 2.
void kro_hann_window(float* c, std::size_t n);

// vDSP_vswsum: c[i] = sum of a[i .. i + p - 1], for i < n; a holds n + p - 1
// elements. Each sum is carried on from the one before, in double so that
// the error carried along stays far below a float's.
void kro_vswsum(const float* a, float* c, std::size_t n, std::size_t p);
}
