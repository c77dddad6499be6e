#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// A counting semaphore between threads of this process. All operations from any thread.
class Semaphore {
  public:
    /// Adds one to the count and wakes one waiter.
    void notify();
    /// Waits until the count is positive and takes one.
    void wait();
    /// Waits until the count is positive (takes one: true) or `deadline` has passed (false). The
    /// steady clock counts: a wall clock that is set does not delay or hasten it.
    bool waitUntil(std::chrono::steady_clock::time_point deadline);

  private:
    std::mutex m_mutex;  ///< guards m_count
    std::condition_variable m_condition;
    unsigned int m_count = 0;
};
