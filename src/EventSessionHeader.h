#pragma once

#include <string>

#include "JsonObject.h"
#include "UtcTimeMs.h"

/// The JSON text that opens a session block of a record: what device, which software, which
/// clocks and where (docs/record-format.md). Built whole in the constructor, on the upload thread,
/// without network access.
class EventSessionHeader {
  public:
    /// @param startTime the UTC of the block's first event
    EventSessionHeader(unsigned int bootCount, unsigned int standbyCount, UtcTimeMs startTime);

    /// One JSON object; "(no json object)" never: an empty text when it could not be packed.
    const std::string& text() const { return m_text; }

    /// Names the database that holds the operating times; called at start-up.
    static void setDbPath(const std::string& path);

  private:
    friend struct EventSessionHeaderPeer;

    static std::string countryOf(const std::string& deviceCountry);
    static unsigned int operatingMinutes(unsigned int bootCount, unsigned int standbyCount);
    static JsonObject location();

    std::string m_text;

    static std::string m_DbPath;
};
