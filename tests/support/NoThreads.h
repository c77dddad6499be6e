#pragma once

#include <pthread.h>

#include <cstddef>
#include <limits>

/// While it lives no thread can be started: each would need more stack than there is memory.
class NoThreads {
  public:
    NoThreads() {
        ::pthread_getattr_default_np(&m_saved);
        pthread_attr_t huge;
        ::pthread_attr_init(&huge);
        const auto tooMuch = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
        m_done = ::pthread_attr_setstacksize(&huge, tooMuch / 2 + 1) == 0 &&
                 ::pthread_setattr_default_np(&huge) == 0;
        ::pthread_attr_destroy(&huge);
    }
    ~NoThreads() {
        ::pthread_setattr_default_np(&m_saved);
        ::pthread_attr_destroy(&m_saved);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

    /// Whether it took effect.
    bool done() const { return m_done; }

  private:
    pthread_attr_t m_saved{};
    bool m_done = false;
};
