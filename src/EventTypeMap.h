#pragma once

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// The closed table of event names and identifiers. Immutable after construction: any thread.
class EventTypeMap {
  public:
    EventTypeMap();

    bool isKnownId(long id) const;
    bool isKnownName(const char* name) const;
    /// The identifier of a known name; otherwise the name read as a decimal number (trailing text
    /// ignored), 0 when it does not begin with one.
    long getId(const char* name) const;
    /// The name; an unknown identifier as decimal text that lives as long as the calling thread.
    const char* getName(long id) const;

    /// The one map of the process, ready before `main`.
    static const EventTypeMap& instance();

    static const std::vector<std::pair<long, const char*>> mEventTypeList;

  private:
    struct ByText {
        bool operator()(const char* a, const char* b) const { return std::strcmp(a, b) < 0; }
    };
    std::map<long, const char*> m_names;
    std::map<const char*, long, ByText> m_ids;
};
