#pragma once

#include <chrono>
#include <string>

#include <semaphore.h>

/// A named semaphore of our own that kivApp posts once it has handled an event.
///
/// Gone from the system with the object. Used by one thread; a refused call is a Failure of the
/// status System.
class SyncSemaphore {
  public:
    SyncSemaphore();
    ~SyncSemaphore();
    SyncSemaphore(const SyncSemaphore&) = delete;
    SyncSemaphore& operator=(const SyncSemaphore&) = delete;

    const std::string& name() const { return m_name; }

    /// Whether it was posted within `time`.
    bool wait(std::chrono::milliseconds time) const;

  private:
    std::string m_name;
    sem_t* m_semaphore;
};
