#pragma once

#include <cstdint>

/// Moves the system clock of this process, as long as the object lives; one at a time. The
/// monotonic clock stays.
class WallClock {
  public:
    /// @param utcSeconds what the system clock says now
    explicit WallClock(std::int64_t utcSeconds);
    ~WallClock();
    WallClock(const WallClock&) = delete;
    WallClock& operator=(const WallClock&) = delete;
};
