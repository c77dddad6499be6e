#pragma once

#include <cstdint>
#include <string>

/// The status document: a small JSON file with what `Status` knows, for kivstat. Written only where
/// the environment variable "KIV_STATUS_FILE" names it, and only on a file system in memory; what
/// lies on another one is refused with a line, so that nothing wears out the flash.
///
/// It gathers nothing itself. Owned and used by one thread, which calls `write` as often as it
/// likes. A reader sees the old or the new text whole. Errors: one line for each new one; the
/// next change tries again.
class StatusDocument {
  public:
    /// Takes the path from the environment.
    StatusDocument();

    /// Writes when something has changed, at most once a second.
    void write();

    /// The text as of now.
    static std::string text();

  private:
    friend struct StatusDocumentPeer;

    std::string replace() const;

    const std::string m_path;         ///< "": nothing is written
    std::string m_failure;            ///< of the last attempt; "": it worked
    std::uint64_t m_written = 0;      ///< `Status::changes` at the last attempt
    std::int64_t m_earliestNext = 0;  ///< monotonic ms
};
