#include "WaitingEvents.h"

#include "ClassLog.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <cstdio>

namespace {

DB::NewEvent toRow(const JsonObject& event) {
    DB::NewEvent row;
    row.bootCount = static_cast<long>(event.optInteger("boot-count", 0));
    row.standbyCount = static_cast<long>(event.optInteger("standby-count", 0));
    row.kernelTime = event.optInteger("kernel-time", 0);
    row.type = event.optString("event-type");
    row.data = event.getStringRep();
    return row;
}

}  // namespace

void WaitingEvents::add(JsonObject event, Handover handover) {
    // Moved: jansson's counts must not be touched by two threads.
    m_setAside.push_back(std::move(event));
    handOver(m_setAside.size() >= kMostOfABatch ? Handover::Wait : handover);
}

bool WaitingEvents::handOver(Handover handover) {
    if (m_setAside.empty()) return true;
    std::unique_lock<std::mutex> lock(m_queueMutex, std::defer_lock);
    if (handover == Handover::Wait)
        lock.lock();
    else if (!lock.try_lock())
        return false;
    // All or nothing, should memory be short.
    m_queue.insert(m_queue.end(), std::make_move_iterator(m_setAside.begin()),
                   std::make_move_iterator(m_setAside.end()));
    m_crowded = m_queue.size() >= kMostInMemory;
    std::vector<JsonObject> stored;  // freed after the lock
    stored.swap(m_stored);
    lock.unlock();
    m_setAside.clear();
    return true;
}

bool WaitingEvents::isCrowded() {
    if (!m_crowded) return false;
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    m_crowded = m_queue.size() >= kMostInMemory;
    return m_crowded;
}

std::size_t WaitingEvents::size() const {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    return m_queue.size();
}

WaitingEvents::Progress WaitingEvents::storeBatch(const Store& store) {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    if (m_queue.empty()) {
        freeMemory();
        return {0, false};
    }
    // Rows that a batch left when it ended early go at once: ahead of the pruner that it called.
    if (m_rows.empty()) readFront();
    m_stored.reserve(m_stored.size() + m_rows.size());  // nothing may throw after the commit
    const std::size_t taken = store(m_rows);
    takeOut(taken);
    return {taken, taken > 0 && (m_queue.size() >= kMostOfABatch || !m_rows.empty())};
}

void WaitingEvents::readFront() {
    m_rows.reserve(std::min(m_queue.size(), kMostOfABatch));
    for (const JsonObject& event : m_queue) {
        if (m_rows.size() == kMostOfABatch) break;
        m_rows.push_back(toRow(event));
        if (m_log.isVerbose()) {
            std::printf("%s message read from queue: %s\n", m_log.tag(),
                        m_rows.back().data.c_str());
        }
    }
}

void WaitingEvents::takeOut(std::size_t count) {
    m_rows.erase(m_rows.begin(), m_rows.begin() + static_cast<std::ptrdiff_t>(count));
    const auto end = m_queue.begin() + static_cast<std::ptrdiff_t>(std::min(count, m_queue.size()));
    std::move(m_queue.begin(), end, std::back_inserter(m_stored));
    m_queue.erase(m_queue.begin(), end);
}

void WaitingEvents::freeMemory() {
    std::vector<JsonObject>().swap(m_stored);
    Rows().swap(m_rows);
}

void WaitingEvents::discard() {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    m_queue.clear();
    m_rows.clear();
}
