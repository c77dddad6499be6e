#include "EventTable.h"

#include "EventPruner.h"
#include "JsonObject.h"
#include "SqlConnection.h"
#include "SqlStatement.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <cstdlib>

#include <sqlite3.h>

namespace {

constexpr const ClassLog& s_log = SqlConnection::m_log;

/// How long a batch may wait for another process's lock to end. The senders wait with it; after
/// this time each of its events is tried once more and lost if that fails, so that they can go on.
constexpr std::chrono::seconds kLongestWait(30);

template <typename Row>
std::string deletionOf(const std::string& table, const std::vector<Row>& rows) {
    std::string sql = "DELETE FROM " + table + " WHERE ROWID IN (";
    const char* separator = "";
    for (const Row row : rows) {
        sql += separator + std::to_string(row);
        separator = ",";
    }
    return sql + ");";
}

std::string insertion(const Cycle& cycle, long long kernelTime, const std::string& type,
                      const std::string& data) {
    std::string sql;
    sql.reserve(type.size() + data.size() + 192);
    sql = "INSERT INTO Events (bootCount, standbyCount, kernelTime, type, status, data) VALUES (";
    sql.append(std::to_string(cycle.bootCount)).append(", ");
    sql.append(std::to_string(cycle.standbyCount)).append(", ");
    sql.append(std::to_string(kernelTime)).append(", '");
    sql.append(type).append("', 0, '");
    sql.append(data).append("' );");
    return sql;
}

}  // namespace

EventTable::EventTable(SqlConnection& connection, const Shared& shared)
    : m_connection(connection), m_shared(shared) {}

EventTable::Guard EventTable::lockFor(const char* operation) const {
    s_log.info("Take lock for ", operation);
    return Guard(m_shared.lock);
}

// --- insert ---------------------------------------------------------------------------------

long EventTable::addEvent(NewEvent event) {
    PrunerThreads::letWaitingOneGoFirst(m_shared.lock);
    const long total = storeEvent(event);
    startPrunerAbove(total);
    return total;
}

long EventTable::storeEvent(const NewEvent& event) {
    long total = 0;
    {
        const Guard lock = lockFor("adding event");
        if (insertEvent(event)) {
            total = incrementEventSize(static_cast<long>(event.data.length() + 1));
            s_log.info("Records created successfully");
            m_shared.failed = false;
        } else {
            total = m_shared.totalSize;
        }
    }
    s_log.info(" Updated total event size to: ", total);
    return total;
}

bool EventTable::insertEvent(const NewEvent& event) {
    const std::string sql = insertion(Cycle(event.bootCount, event.standbyCount), event.kernelTime,
                                      event.type, event.data);
    s_log.info("Query is ", sql);
    const bool quoted =
        event.type.find('\'') != std::string::npos || event.data.find('\'') != std::string::npos;
    if (quoted) return refuseQuotedEvent(sql);
    return m_connection.execute(sql, "SQL error (insert event): ") == SQLITE_OK;
}

bool EventTable::refuseQuotedEvent(const std::string& statement) {
    // The text comes from other processes: with a quote in it, it may end the value and bring
    // statements of its own. SQLite says what it thinks of it, but it is never run.
    const SqlStatement attempt = m_connection.prepare(statement);
    const std::string message =
        attempt.isPrepared() ? "single quote in the event's text" : m_connection.lastError();
    m_connection.reportFailure("SQL error (insert event): ", message.c_str(),
                               SqlConnection::OnFailure::Record);
    return false;
}

void EventTable::startPrunerAbove(long total) {
    if (total > m_pruneThreshold) m_pruners.start([this] { pruneAboveSize(m_pruneTarget); });
}

// --- batches --------------------------------------------------------------------------------

long EventTable::addEvents(const std::vector<NewEvent>& events, std::size_t& taken) {
    taken = 0;
    long total = m_shared.totalSize;
    if (events.empty()) return total;
    const bool ahead = PrunerThreads::takeHeadStart();
    if (!ahead) PrunerThreads::letWaitingOneGoFirst(m_shared.lock);
    {
        const Guard lock = lockFor("adding events");
        if (!storeInOneTransaction(events, ahead, taken, total)) {
            if (batchCanWait())
                taken = 0;
            else
                storeSingly(events, taken, total);
        }
        if (total < 0 || taken == 0) total = recountedSize();
    }
    startPrunerAbove(total);
    return total;
}

bool EventTable::storeInOneTransaction(const std::vector<NewEvent>& events, bool ahead,
                                       std::size_t& taken, long& total) {
    const std::size_t most = std::min(events.size(), kMostEventsOfABatch);
    const long limit = sizeThatEndsABatch(ahead);
    taken = most;
    SqlConnection::Transaction batch(m_connection, "BEGIN IMMEDIATE TRANSACTION",
                                     [this] { forgetSize(); });
    if (!batch.hasBegun()) return false;
    for (std::size_t i = 0; i < most; ++i) {
        total = storeEvent(events[i]);
        if (total <= limit && !batch.hasEnded()) continue;
        taken = i + 1;
        break;
    }
    if (batch.hasEnded()) {
        // The failure took the whole transaction along, with the events before.
        forgetSize();
        return false;
    }
    if (!batch.commit()) return false;
    m_busySince.reset();
    return true;
}

long EventTable::sizeThatEndsABatch(bool ahead) {
    // Ahead of a pruner that waits, at most as much again as it is going to remove.
    const long total = ahead ? totalEventSize() : 0;
    return ahead ? total + (m_pruneThreshold - m_pruneTarget) : m_pruneThreshold;
}

/// Whether the last statement met another process's lock, and not for too long: it may end soon.
bool EventTable::batchCanWait() {
    using Clock = std::chrono::steady_clock;
    if (!m_connection.metLock()) {
        m_busySince.reset();
        return false;
    }
    if (!m_busySince) m_busySince = Clock::now();
    return Clock::now() - *m_busySince < kLongestWait;
}

/// Stores what can be stored of a failed batch. It does not wait for another process's lock: the
/// batch, and its senders, have waited for it already.
void EventTable::storeSingly(const std::vector<NewEvent>& events, std::size_t count, long& total) {
    const SqlConnection::NoWaiting noWaiting(m_connection);
    for (std::size_t i = 0; i < count; ++i) {
        try {
            total = storeEvent(events[i]);
        } catch (const std::exception& error) {  // costs this event alone
            s_log.error("Event could not be stored: ", error.what());
            total = m_shared.totalSize;
        }
    }
}

// --- sizes ----------------------------------------------------------------------------------

long EventTable::incrementEventSize(long bytes) {
    const Guard lock(m_shared.lock);
    if (m_shared.totalSize < 0) return totalEventSize();
    m_shared.totalSize += static_cast<std::int32_t>(bytes);
    return m_shared.totalSize;
}

long EventTable::totalEventSize() {
    const Guard lock = lockFor("totalEventSize");
    if (m_shared.totalSize < 0) {
        SqlStatement sum = m_connection.prepare("SELECT SUM(length(data)+1)+1 FROM Events;");
        while (sum.step() == SQLITE_ROW) {
            if (sum.columnIsNull(0)) continue;
            // NOLINTNEXTLINE(cert-err34-c): text without a number counts as 0
            m_shared.totalSize = static_cast<std::int32_t>(std::atol(sum.columnText(0).c_str()));
        }
    }
    return m_shared.totalSize;
}

/// Throws nothing: the events are stored by now. -1 when it stays unknown.
long EventTable::recountedSize() {
    try {
        return totalEventSize();
    } catch (const std::exception& error) {
        s_log.error("Events could not be counted: ", error.what());
        return -1;
    }
}

void EventTable::forgetSize() {
    m_shared.totalSize = -1;
}

// --- reading and deleting -------------------------------------------------------------------

EventSet EventTable::getEvents(bool oneCycleOnly) {
    const Guard lock(m_shared.lock);
    std::string query;
    if (!oneCycleOnly) {
        query = "SELECT ROWID,data FROM Events ORDER BY bootCount,standbyCount,kernelTime;";
    } else {
        SqlStatement oldest = m_connection.prepare(
            "SELECT bootCount,standbyCount FROM Events ORDER BY bootCount,standbyCount LIMIT 1");
        if (oldest.columnCount() == 2 && oldest.step() == SQLITE_ROW) {
            query = "SELECT ROWID,data FROM Events WHERE bootCount=" +
                    std::to_string(oldest.columnInt64(0)) +
                    " AND standbyCount=" + std::to_string(oldest.columnInt64(1)) +
                    " ORDER BY kernelTime;";
        }
    }
    return EventSet(m_connection.path(), query);
}

std::string EventTable::getOldestEvent() {
    const Guard lock = lockFor("getOldestEvent");
    std::string text;
    SqlStatement oldest = m_connection.prepare(
        "SELECT data FROM EVENTS ORDER BY bootCount,standbyCount,kernelTime LIMIT 1;");
    if (oldest.columnCount() != 1) return text;
    while (oldest.step() == SQLITE_ROW) text = oldest.columnText(0);
    return text;
}

bool EventTable::deleteMarkedEvents(const EventSet& set) {
    s_log.info("Query is ", [&set] { return deletionOf("Events", set.marksStillStored()); });
    s_log.info("Taking lock for deleteMarkedEvents");
    bool deleted = false;
    {
        const Guard lock(m_shared.lock);
        // Asked again: pruning may have deleted marked rows while this thread waited.
        const std::string deletion = deletionOf("Events", set.marksStillStored());
        SqlConnection::Transaction transaction(m_connection, "BEGIN EXCLUSIVE TRANSACTION",
                                               [this] { forgetSize(); });
        deleted = transaction.hasBegun() && transaction.execute(deletion, "SQL error (delete): ") &&
                  transaction.commit();
        if (deleted) {
            m_shared.failed = true;  // set on success, as the reports expect it; the trims clear it
            s_log.info("Records deleted successfully");
        }
        forgetSize();
    }
    trimCycles();
    return deleted;
}

// --- pruning --------------------------------------------------------------------------------

void EventTable::pruneAboveSize(long limit) {
    if (replaceOldestEvents(limit)) trimCycles();
}

bool EventTable::replaceOldestEvents(long limit) {
    const Guard lock = lockFor("pruneAboveSize");
    PrunerThreads::tookTheLock();
    const long total = totalEventSize();
    s_log.info(" PruneAboveSize invoked for limit ", limit, " while size is ", total);
    if (total <= limit) return false;
    const EventPruner victims(m_connection, total, limit);
    s_log.info(" Found ", victims.rows().size(), " events to be deleted, totalling ",
               victims.freed(), " bytes");
    if (victims.rows().empty()) return false;
    replaceByOverflowEvent(victims);
    return true;
}

void EventTable::replaceByOverflowEvent(const EventPruner& victims) {
    const std::string deletion = deletionOf("Events", victims.rows());
    const JsonObject event = victims.overflowEvent();
    s_log.info(" Adding new event: ", event);
    const std::string data = event.dumpAsString();
    const EventPruner::Moment& oldest = victims.lowest();
    const std::string overflow =
        insertion(oldest.cycle, oldest.kernelTime, EventPruner::overflowType(), data);
    SqlConnection::Transaction pruning(m_connection, "BEGIN IMMEDIATE TRANSACTION",
                                       [this] { forgetSize(); });
    if (!pruning.hasBegun()) return;
    if (!pruning.execute(deletion, "SQL error (delete events): ")) return;
    if (!pruning.execute(overflow, "SQL error (insert overflow event): ")) return;
    s_log.info("Completing pruning transaction ...");
    if (!pruning.commit()) return;
    m_shared.failed = false;
    m_shared.totalSize +=
        static_cast<std::int32_t>(static_cast<long>(data.length()) + 1 - victims.freed());
    EventSet::rowsWerePruned(victims.rows());
}

void EventTable::trimCycles() {
    pruneSessionBasedTable("TimeOffsets");
    pruneSessionBasedTable("OpTimes");
}

void EventTable::pruneSessionBasedTable(const std::string& table) {
    const Guard lock = lockFor("pruneSessionBasedTable");
    const std::string deletion =
        deletionOf(table, EventPruner::rowsOfForgottenCycles(m_connection, table));
    const std::string failureText = "SQL error (delete from " + table + "): ";
    SqlConnection::Transaction trim(m_connection, "BEGIN EXCLUSIVE TRANSACTION",
                                    [this] { forgetSize(); });
    if (!trim.hasBegun()) return;
    if (!trim.execute(deletion, failureText.c_str()) || !trim.commit()) return;
    m_shared.failed = false;
    s_log.info("Records in ", table, " deleted successfully");
}

void EventTable::waitForPruners() {
    m_pruners.waitForAll();
}
