#pragma once

#include <string>

/// The type of an event: identifier and name.
class EventType {
  public:
    explicit EventType(long id);
    /// A known name; else a number that is a known identifier; else the name with identifier 0.
    explicit EventType(const std::string& name);

    long getId() const { return m_id; }
    const std::string& getName() const { return m_name; }

    static std::string getEventNameById(long id);
    static long getEventIdByName(const std::string& name);

  private:
    long m_id;
    std::string m_name;
};
