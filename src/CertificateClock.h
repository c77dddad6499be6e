#pragma once

#include <cstdint>
#include <optional>

/// The clock by which the dates of a server's certificate are judged: the application clock once it
/// is known, before that the system clock.
///
/// A set may start in 1970, or in 2110, and learns the time from a server whose certificate is not
/// valid then. So a clock is believed only between the date of this build and 25 years after it.
/// Only functions; any thread.
class CertificateClock {
  public:
    /// UTC seconds: the date of this build, or of what it was built from. What the daemon prints as
    /// its build time is another one.
    static const std::int64_t earliest;

    /// UTC seconds; nothing while no clock can be believed.
    static std::optional<std::int64_t> now();
    static bool isBelievable(std::int64_t utcSeconds);
};
