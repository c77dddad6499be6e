#pragma once

#include <string>

/// Owns one file descriptor and closes it at its end. Can be moved, not copied; what was moved
/// from owns nothing.
///
/// Its end and `close` are not cancellation points: they may stand where their thread can be
/// cancelled. Not thread safe. Throws nothing.
class Descriptor {
  public:
    Descriptor() = default;  ///< owns nothing
    /// Takes over `fd`; a negative one, as calls that failed return, is nothing.
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    /// Closes what it owned before.
    Descriptor& operator=(Descriptor&& other) noexcept;

    bool isOpen() const { return m_fd >= 0; }
    /// Still owned; negative when it owns nothing.
    int get() const { return m_fd; }
    /// Gives the descriptor to the caller, who closes it; negative when it owned nothing.
    int release();
    /// Closes at once, for callers who must know the outcome.
    /// @return false, with errno, when the last of the data could not be written; true when it
    /// owned nothing
    bool close();

    /// Writes all of `text`, from the descriptor's position on.
    /// @return false, with errno, when that failed; a part may have been written
    bool writeAll(const std::string& text) const;

  private:
    static constexpr int kNone = -1;

    int m_fd = kNone;
};
