#pragma once

#include "JsonObject.h"

/// Decides by include and exclude rules whether an event is kept. For one thread at a time.
class EventFilter {
  public:
    /// Takes the members "include" and "exclude" of `filterConfig`; absent ones rule nothing.
    explicit EventFilter(const JsonObject& filterConfig);

    bool matches(const JsonObject& event) const;

    static bool m_verbose;  ///< not touched by the command line's switches

  private:
    JsonObject m_include;
    JsonObject m_exclude;
};
