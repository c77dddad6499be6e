#pragma once

#include <cstdint>
#include <mutex>

/// The least time between two attempts at something that fails: 10 s after the first failure,
/// twice as long after each further one, 300 s at most.
///
/// It neither waits nor schedules: whoever is about to try asks first. Measured with the monotonic
/// clock. Any thread, under a mutex of its own, a leaf.
class RetryPause {
  public:
    static constexpr std::int64_t shortestMs = 10000;
    static constexpr std::int64_t longestMs = 300000;

    /// Milliseconds until the next attempt may be made; 0: now.
    std::int64_t leftMs() const;
    /// An attempt failed, or is made and may throw: the next pause begins.
    void lengthen();
    /// The pause that `lengthen` began before the attempt counts from its end: now.
    void beginAnew();
    /// An attempt succeeded, or another matter begins: no pause.
    void forget();

  private:
    friend struct RetryPausePeer;

    mutable std::mutex m_mutex;      ///< guards the two members below
    std::int64_t m_lengthMs = 0;     ///< of the pause that was begun last; 0: none since a success
    std::int64_t m_endKernelMs = 0;  ///< monotonic
};
