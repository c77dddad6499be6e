#pragma once

#include <cstdint>

#include <time.h>

/// The monotonic clock of the kernel.
class KernelTime {
  public:
    /// CLOCK_MONOTONIC in milliseconds, truncated.
    static std::int64_t getTimeMonotonicAsInt64();
    /// CLOCK_MONOTONIC as the kernel gives it.
    static timespec getTimeMonotonic();
};

/// a + b of two normalised times, carried into seconds once.
timespec timeAdd(timespec a, timespec b);
/// a - b of two normalised times; no check that a >= b.
timespec timeDiff(timespec a, timespec b);
