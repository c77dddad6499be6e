#pragma once

#include <cstdint>
#include <string>

/// UTC in milliseconds since 1970-01-01T00:00:00Z. Converts freely from and to its number.
class UtcTimeMs {
  public:
    UtcTimeMs(std::int64_t ms = 0) : m_ms(ms) {}    // NOLINT: a number with a text form
    operator std::int64_t() const { return m_ms; }  // NOLINT

    /// "2019-03-07T10:15:02.347Z" (ISO 8601).
    std::string getString() const;

    /// The milliseconds between the two, whichever is later; right for numbers of any size.
    std::uint64_t distanceTo(UtcTimeMs other) const;

  private:
    std::int64_t m_ms;
};
