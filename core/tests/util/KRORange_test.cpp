// Part 8.6 Algorithm 3: the long and double ranges.
#include <gtest/gtest.h>

#include "KRORange.h"

TEST(Part_8_6_Ranges, LongUnionRunsFromTheSmallerLocationToTheLargerEnd) {
    EXPECT_EQ(NSUnionLongRange({10, 5}, {2, 3}), (NSLongRange{2, 13}));
    EXPECT_EQ(NSUnionLongRange({0, 0}, {7, 1}), (NSLongRange{0, 8}));
    EXPECT_EQ(NSUnionLongRange({4, 10}, {6, 2}), (NSLongRange{4, 10}));
}

TEST(Part_8_6_Ranges, LongIntersectionRunsFromTheLargerLocationToTheSmallerEnd) {
    EXPECT_EQ(NSIntersectionLongRange({0, 10}, {5, 10}), (NSLongRange{5, 5}));
    EXPECT_EQ(NSIntersectionLongRange({5, 10}, {0, 10}), (NSLongRange{5, 5}));
    EXPECT_EQ(NSIntersectionLongRange({0, 100}, {20, 3}), (NSLongRange{20, 3}));
}

TEST(Part_8_6_Ranges, ALongIntersectionWhoseStartLiesAfterItsEndIsLocation0Length0) {
    EXPECT_EQ(NSIntersectionLongRange({0, 4}, {9, 2}), (NSLongRange{0, 0}));
}

TEST(Part_8_6_Ranges, ALongIntersectionWhoseStartEqualsItsEndKeepsThatLocation) {
    EXPECT_EQ(NSIntersectionLongRange({0, 4}, {4, 2}), (NSLongRange{4, 0}));
    EXPECT_EQ(NSIntersectionLongRange({7, 0}, {0, 100}), (NSLongRange{7, 0}));
}

TEST(Part_8_6_Ranges, DoubleUnionAndIntersection) {
    EXPECT_EQ(NSUnionDoubleRange({1.5, 1.0}, {0.25, 0.5}), (NSDoubleRange{0.25, 2.25}));
    EXPECT_EQ(NSIntersectionDoubleRange({0.0, 2.0}, {1.5, 2.0}), (NSDoubleRange{1.5, 0.5}));
}

TEST(Part_8_6_Ranges, AnEmptyDoubleIntersectionIsLocation0Length0) {
    EXPECT_EQ(NSIntersectionDoubleRange({0.0, 1.0}, {2.0, 1.0}), (NSDoubleRange{0.0, 0.0}));
    EXPECT_EQ(NSIntersectionDoubleRange({0.0, 1.0}, {1.0, 1.0}), (NSDoubleRange{0.0, 0.0}));
}
