#pragma once

#include <cstdint>
#include <string>

#include "JsonObject.h"

class CycleTimes;

/// Gives a stored event its UTC time before it leaves the device. For the upload thread.
class EventTimeRework {
  public:
    /// @param event the event's JSON text; may be rewritten with "utc-time" and "utc-src"
    /// @param dropUnknown whether "utc-time" is deleted when the time is unknown
    /// @return UTC milliseconds; 0 when unknown
    static std::int64_t reworkEventTime(std::string& event, bool dropUnknown);

    /// The same for one event of many, which was parsed before.
    /// @param event is changed; a null handle where the text could not be parsed
    /// @param text the event as it is stored, for the lines
    /// @param times those of the packet that the event is for
    static std::int64_t reworkEventTime(JsonObject& event, const std::string& text,
                                        bool dropUnknown, CycleTimes& times);
};
