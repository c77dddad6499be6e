#include "WaitingEvents.h"

#include "ClassLog.h"
#include "Status.h"

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

EventPruner::Moment momentOf(const DB::NewEvent& row) {
    return {Cycle(row.bootCount, row.standbyCount), row.kernelTime};
}

EventPruner::Moment momentOf(const JsonObject& event) {
    const Cycle cycle(event.optInteger("boot-count", 0), event.optInteger("standby-count", 0));
    return {cycle, event.optInteger("kernel-time", 0)};
}

void widen(std::optional<EventPruner::Range>& range, const EventPruner::Range& by) {
    if (!range) range = by;
    range->lowest = std::min(range->lowest, by.lowest);
    range->highest = std::max(range->highest, by.highest);
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
    // With a store that fails the mutex is never held for long.
    if (handover == Handover::Wait || m_failing)
        lock.lock();
    else if (!lock.try_lock())
        return false;
    // All or nothing, should memory be short.
    m_queue.insert(m_queue.end(), std::make_move_iterator(m_setAside.begin()),
                   std::make_move_iterator(m_setAside.end()));
    std::vector<JsonObject> stored;  // freed after the lock
    if (m_failing)
        dropOldest();
    else
        stored.swap(m_stored);  // an attempt without the lock counts on its room
    m_crowded = isFull();
    lock.unlock();
    m_setAside.clear();
    return true;
}

bool WaitingEvents::isCrowded() {
    if (!m_crowded) return false;
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    m_crowded = isFull();
    return m_crowded;
}

bool WaitingEvents::isFull() const {
    return !m_failing && m_queue.size() >= kMostInMemory;
}

std::size_t WaitingEvents::size() const {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    return m_queue.size();
}

// --- storing --------------------------------------------------------------------------------

WaitingEvents::Progress WaitingEvents::storeBatch(const Store& store, const NameLost& nameLost) {
    std::unique_lock<std::mutex> lock(m_queueMutex);
    if (m_queue.empty()) {
        freeMemory();
        return {0, false};
    }
    prepareBatch();
    const bool failed = m_failing;
    if (failed) lock.unlock();  // nobody waits for a store that fails
    const std::size_t taken = attempt(store, nameLost);
    if (failed) lock.lock();
    takeOut(taken);
    const bool works = taken > 0;
    const bool backlog = failed ? !m_queue.empty() : m_queue.size() >= kMostOfABatch;
    const Progress progress = {taken, works && (backlog || !m_rows.empty())};
    if (works != failed) return progress;
    setFailing(!works);
    const std::size_t kept = taken + m_queue.size();
    const std::size_t dropped = works ? std::exchange(m_dropped, 0) : 0;
    lock.unlock();
    reportChange(kept, dropped);
    return progress;
}

void WaitingEvents::prepareBatch() {
    takeOut(0);
    // Rows that a batch left when it ended early go at once: ahead of the pruner that it called.
    if (m_rows.empty()) readFront();
    m_stored.reserve(m_stored.size() + m_rows.size());  // nothing may throw after the commit
    if (!m_lost) return;
    widen(m_naming, *m_lost);
    m_lost.reset();
}

std::size_t WaitingEvents::attempt(const Store& store, const NameLost& nameLost) {
    if (m_naming && !nameLost(*m_naming)) return 0;
    m_naming.reset();
    return store(m_rows);
}

void WaitingEvents::reportChange(std::size_t kept, std::size_t dropped) const {
    if (m_failing) {
        m_log.error("Events are kept in memory: the store fails");
        Status::failed(Status::Store, DB::lastErrorMessage());
    } else {
        m_log.error("The store works again: ", kept, " events kept, ", dropped, " dropped");
        Status::succeeded(Status::Store);
    }
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
    const std::size_t dropped = std::exchange(m_droppedRows, 0);
    for (std::size_t i = count; i < dropped; ++i) lose(momentOf(m_rows[i]));
    const std::size_t rows = std::max(count, dropped);
    m_rows.erase(m_rows.begin(), m_rows.begin() + static_cast<std::ptrdiff_t>(rows));
    const std::size_t events = std::min(rows - dropped, m_queue.size());
    const auto end = m_queue.begin() + static_cast<std::ptrdiff_t>(events);
    std::move(m_queue.begin(), end, std::back_inserter(m_stored));
    m_queue.erase(m_queue.begin(), end);
}

// --- a store that fails -----------------------------------------------------------------------

void WaitingEvents::setFailing(bool failing) {
    m_failing = failing;
    if (failing) dropOldest();
    m_crowded = isFull();
}

void WaitingEvents::dropOldest() {
    while (m_queue.size() > kMostInMemory) {
        // Where its row is in the store's hands, `takeOut` decides whether it is lost.
        if (m_droppedRows < m_rows.size())
            ++m_droppedRows;
        else
            lose(momentOf(m_queue.front()));
        m_queue.pop_front();
    }
}

void WaitingEvents::lose(const EventPruner::Moment& moment) {
    widen(m_lost, {moment, moment});
    ++m_dropped;
    Status::count(Status::Dropped);
}

void WaitingEvents::freeMemory() {
    std::vector<JsonObject>().swap(m_stored);
    Rows().swap(m_rows);
}

void WaitingEvents::discard() {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    m_queue.clear();
    m_rows.clear();
    m_droppedRows = 0;
    m_lost.reset();
    m_naming.reset();
}
