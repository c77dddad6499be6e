#pragma once

#include <chrono>

/// The pause that must lie between two attempts of one job, by the monotonic clock.
///
/// It counts nothing and wakes nobody: who wants to try again asks it first. For one thread.
class Pause {
  public:
    explicit constexpr Pause(std::chrono::milliseconds length) : m_length(length) {}

    /// From now on; one that has begun begins anew.
    void begin();
    /// Milliseconds to wait, rounded up; 0 when it is over or has not begun.
    long left() const;
    bool isOver() const { return left() == 0; }

  private:
    friend struct PausePeer;

    std::chrono::milliseconds m_length;
    bool m_hasBegun = false;
    std::chrono::steady_clock::time_point m_end;
};
