#include "KernelTime.h"

#include <thread>

#include <gtest/gtest.h>

namespace {

timespec time(time_t seconds, long nanoseconds) {
    timespec value{};
    value.tv_sec = seconds;
    value.tv_nsec = nanoseconds;
    return value;
}

std::int64_t inMs(const timespec& value) {
    return std::int64_t{1000} * value.tv_sec + value.tv_nsec / 1000000;
}

}  // namespace

static bool operator==(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// The kernel time is the monotonic clock in milliseconds, truncated.
TEST(KernelTime, IsTheMonotonicClockInMilliseconds) {
    timespec before{};
    timespec after{};
    ::clock_gettime(CLOCK_MONOTONIC, &before);
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    ::clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(now, inMs(before));
    EXPECT_LE(now, inMs(after));
}

/// The kernel time is the monotonic clock in milliseconds, truncated.
TEST(KernelTime, Grows) {
    const std::int64_t first = KernelTime::getTimeMonotonicAsInt64();
    std::int64_t last = first;
    while (last == first) {
        std::this_thread::yield();
        last = KernelTime::getTimeMonotonicAsInt64();
    }
    EXPECT_GT(last, first);
}

/// The kernel's own reading is the monotonic clock, to the nanosecond.
TEST(KernelTime, GivesTheMonotonicClockAsTheKernelHasIt) {
    timespec before{};
    timespec after{};
    ::clock_gettime(CLOCK_MONOTONIC, &before);
    const timespec now = KernelTime::getTimeMonotonic();
    ::clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(timeDiff(now, before).tv_sec, 0);
    EXPECT_GE(timeDiff(after, now).tv_sec, 0);
}

/// `timeAdd` carries nanoseconds above 999999999 into a second.
TEST(TimeAdd, CarriesNanosecondsIntoSeconds) {
    EXPECT_TRUE(timeAdd(time(1, 600000000), time(1, 600000000)) == time(3, 200000000));
    EXPECT_TRUE(timeAdd(time(1, 999999999), time(1, 999999999)) == time(3, 999999998));
    EXPECT_TRUE(timeAdd(time(1, 500000000), time(1, 500000000)) == time(3, 0));
}

/// `timeAdd` carries nanoseconds above 999999999 into a second.
TEST(TimeAdd, AddsWithoutCarryBelowASecond) {
    EXPECT_TRUE(timeAdd(time(1, 1), time(2, 999999998)) == time(3, 999999999));
    EXPECT_TRUE(timeAdd(time(0, 0), time(0, 0)) == time(0, 0));
}

/// `timeDiff` borrows a second where the nanoseconds are fewer.
TEST(TimeDiff, BorrowsASecondForNanoseconds) {
    EXPECT_TRUE(timeDiff(time(5, 100), time(3, 200)) == time(1, 999999900));
    EXPECT_TRUE(timeDiff(time(5, 0), time(3, 999999999)) == time(1, 1));
}

/// `timeDiff` borrows a second where the nanoseconds are fewer.
TEST(TimeDiff, SubtractsPlainlyOtherwise) {
    EXPECT_TRUE(timeDiff(time(5, 200), time(3, 100)) == time(2, 100));
    EXPECT_TRUE(timeDiff(time(5, 200), time(5, 200)) == time(0, 0));
}

/// `timeDiff` does not ask which moment is the later one.
TEST(TimeDiff, DoesNotCheckTheOrderOfItsArguments) {
    EXPECT_TRUE(timeDiff(time(3, 200), time(5, 100)) == time(-2, 100));
    EXPECT_TRUE(timeDiff(time(3, 100), time(5, 200)) == time(-3, 999999900));
}
