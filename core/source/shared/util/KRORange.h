// The long and double ranges, with their union and intersection.
#pragma once

#include <cstdint>

struct NSLongRange {
    std::uint64_t location = 0;
    std::uint64_t length = 0;

    bool operator==(const NSLongRange&) const = default;
};

struct NSDoubleRange {
    double location = 0.0;
    double length = 0.0;

    bool operator==(const NSDoubleRange&) const = default;
};

inline NSLongRange NSMakeLongRange(std::uint64_t location, std::uint64_t length) {
    return {location, length};
}

inline NSDoubleRange NSMakeDoubleRange(double location, double length) {
    return {location, length};
}

// From the smaller location to the larger end.
NSLongRange NSUnionLongRange(NSLongRange a, NSLongRange b);
// From the larger location to the smaller end; location 0, length 0 when the
// start lies after the end; that location and length 0 when they meet.
NSLongRange NSIntersectionLongRange(NSLongRange a, NSLongRange b);
NSDoubleRange NSUnionDoubleRange(NSDoubleRange a, NSDoubleRange b);
// An empty double intersection is location 0, length 0.
NSDoubleRange NSIntersectionDoubleRange(NSDoubleRange a, NSDoubleRange b);
