#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

/// Keeps input from outside from filling the log: the same line at most once in 10 s, and at most
/// ten different ones in 10 s.
///
/// It writes nothing: whoever is about to write a line asks first. Measured with the monotonic
/// clock. For one thread.
class LineLimit {
  public:
    static constexpr std::int64_t spanMs = 10000;
    static constexpr std::size_t mostLines = 10;

    /// Whether `line` may be written now.
    /// @return how many lines were left out since the last one that was not; nothing when this one
    /// is left out too
    std::optional<unsigned long> admit(const std::string& line);

  private:
    friend struct LineLimitPeer;

    void forgetOldLines(std::int64_t now);

    std::map<std::string, std::int64_t> m_written;  ///< line: monotonic ms of its writing
    unsigned long m_leftOut = 0;
};
