#pragma once

#include <string>

#include "Cycle.h"
#include "JsonObject.h"
#include "UtcTimeMs.h"

class CycleTimes;

/// The JSON text that opens a session block of a record: what device, which software, which
/// clocks and where (docs/record-format.md). Built whole in the constructor, on the upload thread,
/// without network access.
class EventSessionHeader {
  public:
    /// @param startTime the UTC of the block's first event
    EventSessionHeader(unsigned int bootCount, unsigned int standbyCount, UtcTimeMs startTime);
    /// One of a packet. @param times those of the packet
    EventSessionHeader(const Cycle& cycle, UtcTimeMs startTime, CycleTimes& times);

    /// The text of one JSON object; empty when it could not be packed.
    const std::string& text() const { return m_text; }

    /// Names the database that holds the operating times; called at start-up.
    static void setDbPath(const std::string& path);

  private:
    friend struct EventSessionHeaderPeer;

    static std::string textFor(const Cycle& cycle, UtcTimeMs startTime, CycleTimes& times);
    static std::string countryOf(const std::string& deviceCountry);
    static unsigned int operatingMinutes(const Cycle& cycle, CycleTimes& times);
    static JsonObject location();

    std::string m_text;

    static std::string m_DbPath;
};
