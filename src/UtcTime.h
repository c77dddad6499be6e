#pragma once

#include <cstdint>
#include <string>

#include <time.h>

/// UTC in whole seconds since 1970-01-01T00:00:00Z, held in 32 bits.
class UtcTime {
  public:
    explicit UtcTime(std::int32_t seconds = 0) : m_seconds(seconds) {}
    /// Parses `text`; text of no known form gives 0 and a line on `cerrdbg`.
    explicit UtcTime(const std::string& text);

    std::int32_t seconds() const { return m_seconds; }

    /// `text` by one `strptime` format, which must consume it whole; -1 when it does not match.
    time_t parseTime(const std::string& text, const char* format) const;
    /// `text` by the first format that matches (the HTTP date of RFC 9110 first); 0 and a line on
    /// `cerrdbg` when none does.
    time_t parseTime(const std::string& text) const;

    /// "2019-03-07T10:15:02.000Z" (ISO 8601); empty, with an error line, when it cannot be made.
    std::string getString() const;
    /// "2019-03-07"; empty, with an error line, when it cannot be made.
    std::string getDateString() const;

  private:
    std::string format(const char* pattern) const;

    std::int32_t m_seconds;
};
