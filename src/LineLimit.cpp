#include "LineLimit.h"

#include "KernelTime.h"

#include <iterator>
#include <utility>

std::optional<unsigned long> LineLimit::admit(const std::string& line) {
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    forgetOldLines(now);
    if (m_written.size() >= mostLines || !m_written.emplace(line, now).second) {
        ++m_leftOut;
        return std::nullopt;
    }
    return std::exchange(m_leftOut, 0);
}

void LineLimit::forgetOldLines(std::int64_t now) {
    for (auto entry = m_written.begin(); entry != m_written.end();) {
        entry = now - entry->second >= spanMs ? m_written.erase(entry) : std::next(entry);
    }
}
