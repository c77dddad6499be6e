#include "RetryPause.h"

#include "KernelTime.h"

#include <algorithm>

std::int64_t RetryPause::leftMs() const {
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_lengthMs == 0) return 0;
    return std::max<std::int64_t>(m_endKernelMs - now, 0);
}

void RetryPause::lengthen() {
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lengthMs = std::clamp(2 * m_lengthMs, shortestMs, longestMs);
    m_endKernelMs = now + m_lengthMs;
}

void RetryPause::beginAnew() {
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_endKernelMs = now + m_lengthMs;
}

void RetryPause::forget() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lengthMs = 0;
}
