#pragma once

#include "JsonObject.h"

/// A filter: a JSON array of rules, any of which may match. A null handle matches everything, a
/// value that is not an array matches nothing.
class JsonFilter {
  public:
    explicit JsonFilter(const JsonObject& filter);

    bool matches(const JsonObject& event) const;

    static bool m_verbose;

  private:
    JsonObject m_filter;
};
