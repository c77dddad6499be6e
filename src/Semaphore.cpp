#include "Semaphore.h"

#include <algorithm>

namespace {

// A far deadline is waited for in pieces: it need not fit the host's time_t.
constexpr std::chrono::hours kLongestSleep(24);

}  // namespace

void Semaphore::notify() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count;
    m_condition.notify_one();
}

void Semaphore::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait(lock, [this] { return m_count > 0; });
    --m_count;
}

bool Semaphore::waitUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_count == 0) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        m_condition.wait_until(
            lock, std::min<std::chrono::steady_clock::time_point>(deadline, now + kLongestSleep));
    }
    --m_count;
    return true;
}
