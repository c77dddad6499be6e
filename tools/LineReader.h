#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// The lines of standard input, of any length; it keeps no more than `kept` bytes of one.
///
/// Used by one thread. An input that cannot be read is a Failure of the status System.
class LineReader {
  public:
    explicit LineReader(std::size_t kept) : m_kept(kept) {}

    /// Reads the next line, the last with or without its end; false at the end of the input.
    bool next();

    const std::string& text() const { return m_text; }
    std::size_t size() const { return m_size; }  ///< bytes, also those not kept
    bool whole() const { return m_size == m_text.size(); }
    bool blank() const;
    std::string label() const;  ///< "line 3: "

  private:
    std::size_t m_kept;
    std::string m_text;
    std::size_t m_size = 0;
    std::uint64_t m_number = 0;
};
