// Ranges: union spans both; intersection is what they share, {0, 0} when nothing.
#include <gtest/gtest.h>

#include "KRORange.h"

TEST(KRORange, UnionSpansBothAndIntersectionIsWhatTheyShare) {
    EXPECT_EQ(NSUnionLongRange({10, 5}, {2, 3}), (NSLongRange{2, 13}));
    EXPECT_EQ(NSUnionLongRange({4, 10}, {6, 2}), (NSLongRange{4, 10}));
    EXPECT_EQ(NSIntersectionLongRange({0, 10}, {5, 10}), (NSLongRange{5, 5}));
    EXPECT_EQ(NSIntersectionLongRange({5, 10}, {0, 100}), (NSLongRange{5, 10}));
    EXPECT_EQ(NSIntersectionLongRange({0, 4}, {9, 2}), (NSLongRange{0, 0}));
    EXPECT_EQ(NSIntersectionLongRange({0, 4}, {4, 2}), (NSLongRange{4, 0}));
    EXPECT_EQ(NSIntersectionLongRange({7, 0}, {0, 100}), (NSLongRange{7, 0}));
    EXPECT_EQ(NSUnionDoubleRange({1.5, 1.0}, {0.25, 0.5}), (NSDoubleRange{0.25, 2.25}));
    EXPECT_EQ(NSIntersectionDoubleRange({0.0, 2.0}, {1.5, 2.0}), (NSDoubleRange{1.5, 0.5}));
    EXPECT_EQ(NSIntersectionDoubleRange({0.0, 1.0}, {2.0, 1.0}), (NSDoubleRange{0.0, 0.0}));
    EXPECT_EQ(NSIntersectionDoubleRange({0.0, 1.0}, {1.0, 1.0}), (NSDoubleRange{0.0, 0.0}));
}
