#pragma once

#include <chrono>
#include <optional>

/// Spaces the events evenly in time. Time that was lost is not made up by a burst.
/// Used by one thread.
class Pace {
  public:
    /// @param rate events per second; without one nothing waits
    explicit Pace(const std::optional<double>& rate);

    /// Sleeps until the next event may go.
    void waitForTurn();

  private:
    std::chrono::duration<double> m_interval{0};
    std::chrono::steady_clock::time_point m_next = std::chrono::steady_clock::now();
};
