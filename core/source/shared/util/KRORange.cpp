#include "KRORange.h"

#include <algorithm>

NSLongRange NSUnionLongRange(NSLongRange a, NSLongRange b) {
    const std::uint64_t start = std::min(a.location, b.location);
    const std::uint64_t end = std::max(a.location + a.length, b.location + b.length);
    return {start, end - start};
}

NSLongRange NSIntersectionLongRange(NSLongRange a, NSLongRange b) {
    const std::uint64_t start = std::max(a.location, b.location);
    const std::uint64_t end = std::min(a.location + a.length, b.location + b.length);
    if (start > end) {
        return {0, 0};
    }
    return {start, end - start};
}

NSDoubleRange NSUnionDoubleRange(NSDoubleRange a, NSDoubleRange b) {
    const double start = std::min(a.location, b.location);
    const double end = std::max(a.location + a.length, b.location + b.length);
    return {start, end - start};
}

NSDoubleRange NSIntersectionDoubleRange(NSDoubleRange a, NSDoubleRange b) {
    const double start = std::max(a.location, b.location);
    const double end = std::min(a.location + a.length, b.location + b.length);
    if (start >= end) {
        return {0.0, 0.0};
    }
    return {start, end - start};
}
