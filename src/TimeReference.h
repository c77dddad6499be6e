#pragma once

#include <cstdint>
#include <ostream>

#include "Cycle.h"

/// A moment named by its boot cycle, its standby cycle within that, and the monotonic kernel time
/// in milliseconds; it needs no wall clock. A plain value.
struct TimeReference {
    /// Now: reads CLOCK_MONOTONIC, then the current counts of the device information.
    TimeReference();
    TimeReference(std::uint32_t boot, std::uint32_t standby, std::int64_t kernelMs)
        : bootCount(boot), standbyCount(standby), kernelTime(kernelMs) {}
    TimeReference(const Cycle& cycle, std::int64_t kernelMs)
        : TimeReference(static_cast<std::uint32_t>(cycle.bootCount),
                        static_cast<std::uint32_t>(cycle.standbyCount), kernelMs) {}

    /// The running time of the set to which the moment belongs.
    Cycle cycle() const { return Cycle(bootCount, standbyCount); }

    std::uint32_t bootCount;
    std::uint32_t standbyCount;
    std::int64_t kernelTime;  ///< milliseconds
};

/// Writes "(boot,standby,kernel)", the counts as signed 32-bit numbers.
std::ostream& operator<<(std::ostream& out, const TimeReference& ref);
