#pragma once

#include <chrono>
#include <cstdint>

namespace Aws {
namespace Utils {
namespace RateLimits {

/// Slows transfers down to a number of bytes per second.
class RateLimiterInterface {
  public:
    using DelayType = std::chrono::milliseconds;

    virtual ~RateLimiterInterface() = default;

    /// Books `cost` bytes and returns how long to wait for what was booked before.
    virtual DelayType ApplyCost(int64_t cost) = 0;
    /// Books `cost` bytes and sleeps as long as `ApplyCost` says.
    virtual void ApplyAndPayForCost(int64_t cost) = 0;
    /// Sets the bytes per second, at least 1; on `resetAccumulator` with a full budget.
    virtual void SetRate(int64_t rate, bool resetAccumulator = false) = 0;
};

}  // namespace RateLimits
}  // namespace Utils
}  // namespace Aws
