#include "Cycle.h"

#include <gtest/gtest.h>

/// A cycle without counts is (0, 0).
TEST(Cycle, StartsAtZero) {
    EXPECT_EQ(Cycle(), Cycle(0, 0));
}

/// Two cycles are the same when both counts are.
TEST(Cycle, ComparesBothCounts) {
    EXPECT_EQ(Cycle(2, 3), Cycle(2, 3));
    EXPECT_NE(Cycle(2, 3), Cycle(2, 4));
    EXPECT_NE(Cycle(2, 3), Cycle(1, 3));
}

/// Cycles are ordered by the boot count, then by the standby count.
TEST(Cycle, IsOrderedByBootThenStandby) {
    EXPECT_LT(Cycle(1, 9), Cycle(2, 1));
    EXPECT_LT(Cycle(2, 1), Cycle(2, 2));
    EXPECT_FALSE(Cycle(2, 2) < Cycle(2, 2));
}

/// Counts from 2^31 on are negative, on every host as on a set.
TEST(Cycle, CutsCountsTo32Bits) {
    const Cycle cycle(2147483648LL, 4294967295LL);
    EXPECT_EQ(cycle.bootCount, -2147483647 - 1);
    EXPECT_EQ(cycle.standbyCount, -1);
    EXPECT_LT(cycle, Cycle(1, 1));
}
