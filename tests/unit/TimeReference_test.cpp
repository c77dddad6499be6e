#include "TimeReference.h"

#include "CGlobalInfoImpl.h"
#include "KernelTime.h"
#include "Singleton.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string printed(const TimeReference& ref) {
    std::ostringstream out;
    out << ref;
    return out.str();
}

}  // namespace

/// It takes the monotonic milliseconds and the device's counts of now.
TEST(TimeReference, TakesTheKernelTimeOfNow) {
    const std::int64_t before = KernelTime::getTimeMonotonicAsInt64();
    const TimeReference now;
    EXPECT_GE(now.kernelTime, before);
    EXPECT_LE(now.kernelTime, KernelTime::getTimeMonotonicAsInt64());
}

/// It takes the monotonic milliseconds and the device's counts of now.
TEST(TimeReference, TakesTheCountsOfTheDevice) {
    const Singleton<CGlobalInfoImpl> info;
    info->setBootCounts(12, 3);
    const TimeReference first;
    EXPECT_EQ(first.bootCount, 12U);
    EXPECT_EQ(first.standbyCount, 3U);

    info->setBootCounts(4294967295U, 4);
    const TimeReference second;
    EXPECT_EQ(second.bootCount, 4294967295U);
    EXPECT_EQ(second.standbyCount, 4U);
    EXPECT_EQ(first.bootCount, 12U);
}

/// It holds the device information only while it is taken; without one the counts are 0.
TEST(TimeReference, HoldsTheDeviceInformationOnlyWhileItIsTaken) {
    const int before = Singleton<CGlobalInfoImpl>::m_RefCount;
    const TimeReference now;
    EXPECT_EQ(Singleton<CGlobalInfoImpl>::m_RefCount, before);
    EXPECT_GE(now.kernelTime, 0);
}

/// It holds the device information only while it is taken; without one the counts are 0.
TEST(TimeReference, CountsAreZeroWithoutDeviceInformation) {
    ASSERT_EQ(Singleton<CGlobalInfoImpl>::m_RefCount, 0);
    const TimeReference now;
    EXPECT_EQ(now.bootCount, 0U);
    EXPECT_EQ(now.standbyCount, 0U);
}

/// It prints as (boot,standby,kernel time) without blanks.
TEST(TimeReference, PrintsWithoutBlanks) {
    EXPECT_EQ(printed(TimeReference(12, 3, 456789)), "(12,3,456789)");
    EXPECT_EQ(printed(TimeReference(0, 0, 5000000000)), "(0,0,5000000000)");
}

/// The counts print as signed 32-bit numbers.
TEST(TimeReference, PrintsTheCountsAsSignedNumbers) {
    EXPECT_EQ(printed(TimeReference(4294967295U, 2147483648U, -1)), "(-1,-2147483648,-1)");
}

/// A moment belongs to the cycle of its counts, which the tables keep as signed 32-bit numbers.
TEST(TimeReference, BelongsToTheCycleOfItsCounts) {
    EXPECT_EQ(TimeReference(12, 3, 456789).cycle(), Cycle(12, 3));
    EXPECT_EQ(TimeReference(4294967295U, 2147483648U, 0).cycle().bootCount, -1);
    EXPECT_EQ(TimeReference(4294967295U, 2147483648U, 0).cycle().standbyCount, INT32_MIN);
}
