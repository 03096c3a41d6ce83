// Seconds to sample frames, the one rounding that the transport, automation
// and fades share: to the nearest frame, halves away from zero. A value
// beyond the 64-bit frame range stops at its end and NaN gives frame 0, so
// that no input makes the conversion undefined.
#pragma once

#include <cmath>
#include <cstdint>

inline std::int64_t KROFrameForSeconds(double seconds, double sampleRate) {
    const double frames = std::round(seconds * sampleRate);
    if (std::isnan(frames)) {
        return 0;
    }
    // 2^63 is the first double past the range; every double below it fits.
    if (frames >= 9223372036854775808.0) {
        return INT64_MAX;
    }
    if (frames < -9223372036854775808.0) {
        return INT64_MIN;
    }
    return static_cast<std::int64_t>(frames);
}
