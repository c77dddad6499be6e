#include "WaitingFiles.h"

#include "ClassLog.h"

#include <algorithm>
#include <utility>
#include <vector>

void WaitingFiles::add(File file) {
    std::vector<std::string> dropped;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto isSame = [&file](const File& other) { return other.id == file.id; };
        if (std::any_of(m_files.begin(), m_files.end(), isSame)) return;
        m_bytes += file.bytes();
        m_files.push_back(std::move(file));
        while (m_files.size() > FilesTable::kMostRows || m_bytes > FilesTable::kMostBytes) {
            m_bytes -= m_files.front().bytes();
            dropped.push_back(std::move(m_files.front().id));
            m_files.pop_front();
        }
    }
    for (const std::string& id : dropped) {
        m_log.error("Too many announced files: dropped ", ClassLog::foreign(id));
    }
}

bool WaitingFiles::isEmpty() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_files.empty();
}

bool WaitingFiles::registerAll(const Register& registerFile) {
    bool any = false;
    for (File file; copyFront(file);) {
        const Outcome outcome = registerFile(file);
        setFailing(outcome == Outcome::NotNow);
        if (outcome == Outcome::NotNow) break;
        if (outcome == Outcome::Refused) {
            m_log.error("File could not be registered: ", ClassLog::foreign(file.url));
        }
        any = true;
        remove(file.id);
    }
    return any;
}

bool WaitingFiles::copyFront(File& file) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_files.empty()) file = m_files.front();
    return !m_files.empty();
}

/// The first, unless it was dropped while the store was asked.
void WaitingFiles::remove(const std::string& id) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_files.empty() || m_files.front().id != id) return;
    m_bytes -= m_files.front().bytes();
    m_files.pop_front();
}

void WaitingFiles::setFailing(bool failing) {
    if (failing == m_failing) return;
    m_failing = failing;
    m_log.error(failing ? "Announced files are kept in memory: the store fails"
                        : "The store takes announced files again");
}
