#pragma once

#include <cstddef>
#include <string>

/// The text of a small file that other programs of the set write.
///
/// Never waits: what is not a regular file (a pipe without a writer, a device, a directory) counts
/// as unreadable, and so does a file of more than 1 MiB. Not kept open. A plain value afterwards.
/// A regular file that a failing disk, want of memory or a missing right keeps from being read is
/// told from these: later it may be readable.
class RegularFile {
  public:
    static constexpr std::size_t longest = 1048576;  ///< bytes

    /// Reads the file whole.
    explicit RegularFile(const std::string& path);

    bool isRead() const { return m_state == State::Read; }
    /// Whether there is nothing of that name.
    bool isMissing() const { return m_state == State::Missing; }
    /// Whether something is there, it may be a file, and only this attempt failed.
    bool cannotBeReadNow() const { return m_state == State::NotNow; }
    int error() const { return m_error; }               ///< errno of that attempt; else 0
    const std::string& text() const { return m_text; }  ///< empty unless it was read

  private:
    enum class State { Read, Missing, Unreadable, NotNow };

    void read(const std::string& path);
    void failedWith(int error);

    State m_state = State::Unreadable;
    int m_error = 0;
    std::string m_text;
};
