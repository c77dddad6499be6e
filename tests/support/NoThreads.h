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
        // More than any address space, also one of 32 bits, in whole pages.
        const std::size_t most = std::numeric_limits<std::size_t>::max();
        m_done = ::pthread_attr_setstacksize(&huge, most / 8 * 7 & ~std::size_t{0xffff}) == 0 &&
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
