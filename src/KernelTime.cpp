#include "KernelTime.h"

namespace {

constexpr long kNanosecondsPerSecond = 1000000000;

}  // namespace

std::int64_t KernelTime::getTimeMonotonicAsInt64() {
    const timespec now = getTimeMonotonic();
    return now.tv_nsec / 1000000 + std::int64_t{1000} * now.tv_sec;
}

timespec KernelTime::getTimeMonotonic() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

timespec timeAdd(timespec a, timespec b) {
    timespec sum{};
    sum.tv_sec = a.tv_sec + b.tv_sec;
    sum.tv_nsec = a.tv_nsec + b.tv_nsec;
    if (sum.tv_nsec >= kNanosecondsPerSecond) {
        sum.tv_sec += 1;
        sum.tv_nsec -= kNanosecondsPerSecond;
    }
    return sum;
}

timespec timeDiff(timespec a, timespec b) {
    timespec difference{};
    difference.tv_sec = a.tv_sec - b.tv_sec;
    // Borrowed before the subtraction: the sum fits a 32-bit long.
    if (a.tv_nsec < b.tv_nsec) {
        difference.tv_sec -= 1;
        a.tv_nsec += kNanosecondsPerSecond;
    }
    difference.tv_nsec = a.tv_nsec - b.tv_nsec;
    return difference;
}
