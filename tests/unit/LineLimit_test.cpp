#include "LineLimit.h"

#include "support/LineLimitPeer.h"

#include <string>

#include <gtest/gtest.h>

namespace {

/// A line that was not written in the last 10 s may be written.
TEST(LineLimitTest, AdmitsALineOnceIn10Seconds) {
    LineLimit limit;
    EXPECT_EQ(limit.admit("a"), 0UL);
    EXPECT_EQ(limit.admit("a"), std::nullopt);
    EXPECT_EQ(limit.admit("b"), 1UL) << "the second a";
    LineLimitPeer::pass(limit, LineLimit::spanMs - 1000);
    EXPECT_EQ(limit.admit("a"), std::nullopt);
    LineLimitPeer::pass(limit, 1000);
    EXPECT_EQ(limit.admit("a"), 1UL);
    EXPECT_EQ(limit.admit("a"), std::nullopt);
}

/// The next line that is written says how many were left out.
TEST(LineLimitTest, CountsWhatIsLeftOut) {
    LineLimit limit;
    limit.admit("a");
    for (int i = 0; i < 57; ++i) EXPECT_EQ(limit.admit("a"), std::nullopt);
    LineLimitPeer::pass(limit, LineLimit::spanMs);
    EXPECT_EQ(limit.admit("a"), 57UL);
    LineLimitPeer::pass(limit, LineLimit::spanMs);
    EXPECT_EQ(limit.admit("a"), 0UL);
}

/// Of different lines ten may be written in 10 s.
TEST(LineLimitTest, AdmitsTenDifferentLinesIn10Seconds) {
    LineLimit limit;
    unsigned long admitted = 0;
    for (int i = 0; i < 1000; ++i) admitted += limit.admit(std::to_string(i)).has_value() ? 1 : 0;
    EXPECT_EQ(admitted, LineLimit::mostLines);
    LineLimitPeer::pass(limit, LineLimit::spanMs);
    EXPECT_EQ(limit.admit("next"), 1000 - LineLimit::mostLines);
}

}  // namespace
