#include "EventTable.h"

#include "JsonObject.h"
#include "SqlConnection.h"
#include "SqlStatement.h"
#include "Status.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <cstdlib>

#include <sqlite3.h>

namespace {

constexpr const ClassLog& s_log = SqlConnection::m_log;
constexpr const char* kInsertFailure = "SQL error (insert event): ";

/// Far below the longest statement that SQLite takes, which depends on how it was built.
constexpr std::size_t kLongestBound = 65536;

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

bool hasQuote(const std::string& text) {
    return text.find('\'') != std::string::npos;
}

/// Whether `text` between quotes in a statement stands for just itself, so that the row is the same
/// when it is bound.
bool meansItself(const std::string& text) {
    return text.size() <= kLongestBound && !hasQuote(text) && text.find('\0') == std::string::npos;
}

}  // namespace

EventTable::EventTable(SqlConnection& connection, const Shared& shared)
    : m_connection(connection), m_shared(shared) {}

EventTable::Turn EventTable::lockFor(const char* operation) const {
    s_log.info("Take lock for ", operation);
    return turn();
}

// --- insert ---------------------------------------------------------------------------------

long EventTable::addEvent(NewEvent event) {
    PrunerThreads::letWaitingOneGoFirst(m_shared.lock);
    long total = 0;
    SqlStatement none;
    storeEvent(event, none, total);
    startPrunerAbove(total);
    return total;
}

EventTable::Outcome EventTable::storeEvent(const NewEvent& event, SqlStatement& prepared,
                                           long& total) {
    Outcome outcome = Outcome::Stored;
    {
        const Turn lock = lockFor("adding event");
        outcome = insertEvent(event, prepared);
        if (outcome == Outcome::Stored) {
            total = incrementEventSize(static_cast<long>(event.data.length() + 1));
            s_log.info("Records created successfully");
            clearFailure();
        } else {
            total = m_shared.totalSize;
        }
    }
    s_log.info(" Updated total event size to: ", total);
    return outcome;
}

EventTable::Outcome EventTable::insertEvent(const NewEvent& event, SqlStatement& prepared) {
    const Cycle cycle(event.bootCount, event.standbyCount);
    const auto written = [&] { return insertion(cycle, event.kernelTime, event.type, event.data); };
    s_log.info("Query is ", written);
    if (prepared.isPrepared() && meansItself(event.type) && meansItself(event.data)) {
        prepared.bind(1, std::int64_t{cycle.bootCount});
        prepared.bind(2, std::int64_t{cycle.standbyCount});
        prepared.bind(3, std::int64_t{event.kernelTime});
        prepared.bindBorrowed(4, event.type);
        prepared.bindBorrowed(5, event.data);
        return outcomeOf(m_connection.execute(prepared, kInsertFailure));
    }
    const std::string sql = written();
    if (hasQuote(event.type) || hasQuote(event.data)) {
        refuseQuotedEvent(sql);
        return Outcome::Refused;
    }
    return outcomeOf(m_connection.execute(sql, kInsertFailure));
}

EventTable::Outcome EventTable::outcomeOf(int result) {
    if (result == SQLITE_OK) return Outcome::Stored;
    return m_connection.failedForNow() || isMissing() ? Outcome::NotNow : Outcome::Refused;
}

/// For many events: the parsing of a written statement is most of what an insertion takes.
SqlStatement EventTable::preparedInsertion() {
    return m_connection.prepare(
        "INSERT INTO Events (bootCount, standbyCount, kernelTime, type, status, data) "
        "VALUES (?1, ?2, ?3, ?4, 0, ?5)");
}

/// Whether the table itself is not there: it could not be made, or somebody took it away. The next
/// opening makes it.
bool EventTable::isMissing() {
    if (m_connection.prepare("SELECT ROWID FROM Events").isPrepared()) return false;
    m_connection.askForAnother();
    return true;
}

void EventTable::refuseQuotedEvent(const std::string& statement) {
    // The text comes from other processes: with a quote in it, it may end the value and bring
    // statements of its own. SQLite says what it thinks of it, but it is never run.
    const SqlStatement attempt = m_connection.prepare(statement);
    const std::string message =
        attempt.isPrepared() ? "single quote in the event's text" : m_connection.lastError();
    Status::count(Status::NotStorable);
    m_connection.reportFailure(kInsertFailure, message.c_str(), SqlConnection::OnFailure::Record);
}

bool EventTable::addOverflowEvent(const EventPruner::Range& range) {
    PrunerThreads::letWaitingOneGoFirst(m_shared.lock);
    const std::string data = EventPruner::overflowEvent(range).dumpAsString();
    const Cycle& cycle = range.lowest.cycle;
    const NewEvent event = {cycle.bootCount, cycle.standbyCount, range.lowest.kernelTime,
                            EventPruner::overflowType(), data};
    long total = 0;
    SqlStatement none;
    const bool stored = storeEvent(event, none, total) == Outcome::Stored;
    startPrunerAbove(total);
    return stored;
}

bool EventTable::works() {
    const Turn lock = turn();
    SqlConnection::Transaction probe(m_connection, "BEGIN IMMEDIATE TRANSACTION");
    const std::string row = insertion(Cycle(), 0, "", "");
    if (!probe.hasBegun() || !probe.execute(row, kInsertFailure)) return false;
    // Without this the row would never leave the memory, and a full disk pass for one that works.
    const int flushed = m_connection.flush();
    if (flushed == SQLITE_OK) return true;
    m_connection.reportFailure(kInsertFailure, sqlite3_errstr(flushed),
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
        const Turn lock = lockFor("adding events");
        if (!storeInOneTransaction(events, ahead, taken, total)) storeSingly(events, taken, total);
        if (total < 0 || taken == 0) total = recountedSize();
    }
    startPrunerAbove(total);
    return total;
}

/// @param taken how many events are handled, or are to be stored singly
/// @return false when what it stored of them is gone again
bool EventTable::storeInOneTransaction(const std::vector<NewEvent>& events, bool ahead,
                                       std::size_t& taken, long& total) {
    const std::size_t most = std::min(events.size(), kMostEventsOfABatch);
    const long limit = sizeThatEndsABatch(ahead);
    SqlConnection::Transaction batch(m_connection, "BEGIN IMMEDIATE TRANSACTION",
                                     [this] { forgetSize(); });
    if (!batch.hasBegun()) {
        taken = m_connection.failedForNow() ? 0 : most;
        return taken == 0;
    }
    SqlStatement prepared = most > 1 ? preparedInsertion() : SqlStatement();
    for (taken = 0; taken < most;) {
        const Outcome outcome = storeEvent(events[taken], prepared, total);
        if (outcome != Outcome::NotNow || batch.hasEnded()) ++taken;
        if (total > limit || outcome == Outcome::NotNow || batch.hasEnded()) break;
    }
    if (batch.hasEnded()) {
        // The failure took the whole transaction along, with the events before.
        forgetSize();
        return false;
    }
    if (taken == 0 || batch.commit()) return true;
    if (!m_connection.metLock()) return false;
    taken = 0;
    return true;
}

long EventTable::sizeThatEndsABatch(bool ahead) {
    // Ahead of a pruner that waits, at most as much again as it is going to remove.
    const long total = ahead ? totalEventSize() : 0;
    return ahead ? total + (m_pruneThreshold - m_pruneTarget) : m_pruneThreshold;
}

/// Stores what can be stored of a failed batch, up to the first event that meets a store that
/// fails. It does not wait for another process's lock: the batch has waited for it already.
void EventTable::storeSingly(const std::vector<NewEvent>& events, std::size_t& taken, long& total) {
    const SqlConnection::NoWaiting noWaiting(m_connection);
    SqlStatement none;
    const std::size_t count = taken;
    for (taken = 0; taken < count; ++taken) {
        try {
            if (storeEvent(events[taken], none, total) == Outcome::NotNow) return;
        } catch (const std::exception& error) {  // costs this event alone
            s_log.error("Event could not be stored: ", error.what());
            total = m_shared.totalSize;
        }
    }
}

// --- sizes ----------------------------------------------------------------------------------

long EventTable::incrementEventSize(long bytes) {
    const Turn lock = turn();
    if (m_shared.totalSize < 0) return totalEventSize();
    m_shared.totalSize += static_cast<std::int32_t>(bytes);
    return m_shared.totalSize;
}

long EventTable::totalEventSize() {
    const Turn lock = lockFor("totalEventSize");
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

void EventTable::clearFailure() {
    const bool kept = m_shared.mustBeReported != nullptr && *m_shared.mustBeReported;
    if (!kept) m_shared.failed = false;
}

// --- reading and deleting -------------------------------------------------------------------

EventSet EventTable::getEvents(bool oneCycleOnly) {
    const Turn lock = turn();
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
    const Turn lock = lockFor("getOldestEvent");
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
        const Turn lock = turn();
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
    trimCycles(deleted ? Before::Committed : Before::Failed);
    return deleted;
}

// --- pruning --------------------------------------------------------------------------------

void EventTable::pruneAboveSize(long limit) {
    if (const auto outcome = replaceOldestEvents(limit)) trimCycles(*outcome);
}

/// @return what became of the replacement; none when there was nothing to replace
std::optional<EventTable::Before> EventTable::replaceOldestEvents(long limit) {
    const Turn lock = lockFor("pruneAboveSize");
    PrunerThreads::tookTheLock();
    const long total = totalEventSize();
    s_log.info(" PruneAboveSize invoked for limit ", limit, " while size is ", total);
    if (total <= limit) return std::nullopt;
    const EventPruner victims(m_connection, total, limit);
    s_log.info(" Found ", victims.rows().size(), " events to be deleted, totalling ",
               victims.freed(), " bytes");
    if (victims.rows().empty()) return std::nullopt;
    return replaceByOverflowEvent(victims) ? Before::Committed : Before::Failed;
}

bool EventTable::replaceByOverflowEvent(const EventPruner& victims) {
    const std::string deletion = deletionOf("Events", victims.rows());
    const JsonObject event = victims.overflowEvent();
    s_log.info(" Adding new event: ", event);
    const std::string data = event.dumpAsString();
    const EventPruner::Moment& oldest = victims.lowest();
    const std::string overflow =
        insertion(oldest.cycle, oldest.kernelTime, EventPruner::overflowType(), data);
    SqlConnection::Transaction pruning(m_connection, "BEGIN IMMEDIATE TRANSACTION",
                                       [this] { forgetSize(); });
    if (!pruning.hasBegun()) return false;
    if (!pruning.execute(deletion, "SQL error (delete events): ")) return false;
    if (!pruning.execute(overflow, "SQL error (insert overflow event): ")) return false;
    s_log.info("Completing pruning transaction ...");
    if (!pruning.commit()) return false;
    Status::count(Status::Pruned, victims.rows().size());
    clearFailure();
    m_shared.totalSize +=
        static_cast<std::int32_t>(static_cast<long>(data.length()) + 1 - victims.freed());
    EventSet::rowsWerePruned(victims.rows());
    return true;
}

void EventTable::trimCycles(Before before) {
    trim("TimeOffsets", before);
    trim("OpTimes", before);
}

void EventTable::pruneSessionBasedTable(const std::string& table) {
    trim(table, Before::Failed);
}

void EventTable::trim(const std::string& table, Before before) {
    const Turn lock = lockFor("pruneSessionBasedTable");
    const auto rows = EventPruner::rowsOfForgottenCycles(m_connection, table);
    if (!rows.empty()) {
        const std::string failureText = "SQL error (delete from " + table + "): ";
        SqlConnection::Transaction trim(m_connection, "BEGIN EXCLUSIVE TRANSACTION",
                                        [this] { forgetSize(); });
        if (!trim.hasBegun()) return;
        if (!trim.execute(deletionOf(table, rows), failureText.c_str()) || !trim.commit()) return;
    }
    // Nothing to delete proves nothing of the store by itself: what was committed before does.
    if (!rows.empty() || before == Before::Committed) clearFailure();
    s_log.info("Records in ", table, " deleted successfully");
}

void EventTable::waitForPruners() {
    m_pruners.waitForAll();
}
