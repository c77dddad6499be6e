#pragma once

#include <cstddef>
#include <string>

/// The text of a small file that other programs of the set write.
///
/// Never waits: what is not a regular file (a pipe without a writer, a device, a directory) counts
/// as unreadable, and so does a file of more than 1 MiB. Not kept open. A plain value afterwards.
class RegularFile {
  public:
    static constexpr std::size_t longest = 1048576;  ///< bytes

    /// Reads the file whole.
    explicit RegularFile(const std::string& path);

    bool isRead() const { return m_state == State::Read; }
    /// Whether there is nothing of that name.
    bool isMissing() const { return m_state == State::Missing; }
    const std::string& text() const { return m_text; }  ///< empty unless it was read

  private:
    enum class State { Read, Missing, Unreadable };

    State m_state = State::Unreadable;
    std::string m_text;
};
