#pragma once

#include <cstdint>
#include <string>

/// Gives a stored event its UTC time before it leaves the device. For the upload thread.
class EventTimeRework {
  public:
    /// @param event the event's JSON text; may be rewritten with "utc-time" and "utc-src"
    /// @param dropUnknown whether "utc-time" is deleted when the time is unknown
    /// @return UTC milliseconds; 0 when unknown
    static std::int64_t reworkEventTime(std::string& event, bool dropUnknown);
};
