#pragma once

#include "JsonObject.h"

#include <string>

/// What an event filter decides on one event, and which of its rules is the reason, by the daemon's
/// own filter classes.
///
/// Only a function; it keeps nothing.
class FilterReason {
  public:
    struct Verdict {
        bool kept;
        std::string why;  ///< "rule 2 of include matches"
    };

    /// @param filter the value of "event-filter" or "file-filter": an object
    static Verdict judge(const JsonObject& filter, const JsonObject& event);
};
