#include "DB.h"

#include "DBToken.h"
#include "DbgOut.h"
#include "EventPruner.h"
#include "JsonObject.h"
#include "SqlStatement.h"
#include "TimeReference.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

char kTag[] = "kivDB: ";  // not const: SQLite hands it to the callback as void*
constexpr int kSchemaVersion = 2;
constexpr std::size_t kMostEventsOfABatch = 256;
/// For readers of other processes, which bar a COMMIT as long as they read.
constexpr int kBusyTimeoutMs = 1000;
/// For a batch: longer than that, and the senders, who wait too, are worth more than its events.
constexpr std::chrono::seconds kLongestWait(30);
constexpr int kSystemTime = 0;  ///< the source of a start time without one

struct Table {
    const char* createdName;
    const char* failureText;
    const char* statement;
};

constexpr Table kTables[] = {
    {"Event", "SQL error (create Events table): ",
     "CREATE TABLE IF NOT EXISTS Events(bootCount INT, standbyCount INT, kernelTime INT, "
     "type TEXT, status INT, data BLOB);"},
    {"Files", "SQL error (create Files table): ",
     "CREATE TABLE IF NOT EXISTS Files(id TEXT PRIMARY KEY, url TEXT, status INT, retries INT, "
     "lastfail INT, info BLOB);"},
    {"TimeOffsets", "SQL error (create TimeOffsets table): ",
     "CREATE TABLE IF NOT EXISTS TimeOffsets(bootCount INT, standbyCount INT, source INT, "
     "startTime INT, status INT, PRIMARY KEY(bootCount,standbyCount,source));"},
    {"OpTimes", "SQL error (create OpTimes table): ",
     "CREATE TABLE IF NOT EXISTS OpTimes(bootCount INT, standbyCount INT, opTime INT, "
     "PRIMARY KEY(bootCount, standbyCount))"},
    {"Location", "SQL error (create Location table): ",
     "CREATE TABLE IF NOT EXISTS Location(id INT PRIMARY KEY, longitude REAL, latitude REAL, "
     "IP TEXT, city TEXT, region TEXT, countryCode TEXT)"},
};

std::atomic<bool> s_verbose{false};

struct FreeText {
    void operator()(char* text) const { sqlite3_free(text); }
};

template <typename... Pieces>
void trace(const Pieces&... pieces) {
    if (s_verbose) ((coutdbg << kTag) << ... << pieces) << std::endl;
}

template <typename... Pieces>
void failureLine(const Pieces&... pieces) {
    ((cerrdbg << kTag) << ... << pieces) << std::endl;
}

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

/// Counts are kept as on a set, whose `long` has 32 bits: from 2^31 on they are negative there, and
/// here too.
std::int32_t asOnASet(long count) {
    return static_cast<std::int32_t>(count);
}

std::string insertion(long long bootCount, long long standbyCount, long long kernelTime,
                      const std::string& type, const std::string& data) {
    std::string sql;
    sql.reserve(type.size() + data.size() + 192);
    sql = "INSERT INTO Events (bootCount, standbyCount, kernelTime, type, status, data) VALUES (";
    sql.append(std::to_string(bootCount)).append(", ");
    sql.append(std::to_string(standbyCount)).append(", ");
    sql.append(std::to_string(kernelTime)).append(", '");
    sql.append(type).append("', 0, '");
    sql.append(data).append("' );");
    return sql;
}

}  // namespace

std::recursive_mutex DB::m_PruneLock;
std::atomic<std::int32_t> DB::m_TotalEventSize{-1};
std::atomic<bool> DB::m_dbError{false};
std::string DB::m_DBErrorMessage;
std::function<void()> DB::m_dbFullCb;

/// Is rolled back, and the cached size unknown, unless it has ended before. With m_PruneLock held.
class DB::Transaction {
  public:
    Transaction(DB& store, const char* beginning)
        : m_store(store),
          m_begun(store.execute(beginning, "SQL error (begin transaction): ") == SQLITE_OK) {}

    ~Transaction() {
        if (!m_begun || hasEnded()) return;
        m_store.rollBack();
        m_TotalEventSize = -1;
    }

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool begun() const { return m_begun; }
    /// Whether SQLite has ended it by itself, as at an error that leaves no way to go on.
    bool hasEnded() const { return sqlite3_get_autocommit(m_store.m_connection.get()) != 0; }

    bool commit() {
        if (m_store.execute("COMMIT", "SQL error (commit): ") == SQLITE_OK) return true;
        m_TotalEventSize = -1;
        return false;
    }

  private:
    DB& m_store;
    bool m_begun;
};

void DB::CloseConnection::operator()(sqlite3* connection) const {
    sqlite3_close(connection);
}

// --- opening --------------------------------------------------------------------------------

DB::DB() = default;

DB::~DB() {
    m_pruners.waitForAll();
    if (m_connection) trace("Destructor: close DB ", m_connection.get());
}

void DB::open(std::string path, bool recreateIfUnusable) {
    if (!openConnection(path)) return;
    const PruneGuard lock = lockFor("creating tables");
    const int limited = limitPages();
    const bool unusable = limited == SQLITE_CORRUPT || limited == SQLITE_NOTADB;
    if (unusable && recreateIfUnusable) {
        recreate(path);
        return;
    }
    createTables();
    migrate();
}

void DB::returnFreeMemory() {
    {
        const PruneGuard lock(m_PruneLock);
        if (m_connection) sqlite3_db_release_memory(m_connection.get());
    }
    ::malloc_trim(0);  // free pages between used ones, too, which free() never returns
}

bool DB::openConnection(const std::string& path) {
    const PruneGuard lock(m_PruneLock);  // a pruner of this object may be using the old connection
    m_path = path;
    m_connection.reset();
    sqlite3* connection = nullptr;
    const int result = sqlite3_open(path.c_str(), &connection);
    m_connection.reset(connection);
    if (result != SQLITE_OK) {
        failureLine("Can't open database ", path, ": ", lastErrorOfConnection());
        m_connection.reset();
        return false;
    }
    sqlite3_limit(connection, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_busy_timeout(connection, kBusyTimeoutMs);
    trace("Opened database ", path, " successfully: ", connection);
    m_TotalEventSize = -1;
    return true;
}

void DB::recreate(const std::string& path) {
    m_connection.reset();
    if (::unlink(path.c_str()) != 0) {
        failureLine("Can't delete database ", path, ": ", ::strerror(errno));
    }
    m_dbError = false;
    open(path, false);
}

int DB::limitPages() {
    // A page size that cannot be read leaves 0, which SQLite takes as no new limit; the statement
    // runs all the same, because it is the one that finds a file unusable.
    const int pageSize = readPragma("PRAGMA page_size");
    const int pages = pageSize > 0 ? (m_maxDatabaseSize + pageSize - 1) / pageSize : 0;
    return execute("PRAGMA max_page_count = " + std::to_string(pages),
                   "SQL error (max_page_count): ", OnFailure::ReportOnly);
}

int DB::readPragma(const char* pragma) const {
    SqlStatement statement(m_connection.get(), pragma);
    return statement.step() == SQLITE_ROW ? static_cast<int>(statement.columnInt64(0)) : 0;
}

void DB::createTables() {
    for (const Table& table : kTables) {
        if (execute(table.statement, table.failureText, OnFailure::ReportOnly) == SQLITE_OK) {
            trace("Table ", table.createdName, " created successfully");
        }
    }
}

void DB::migrate() {
    const int version = readPragma("PRAGMA user_version");
    if (version == kSchemaVersion) return;
    if (version == 0) DBToken::loadDBUUIDFile(true);  // a new database gets a new identity
    if (version == 1) {
        execute("ALTER TABLE Files ADD COLUMN info BLOB;",
                "SQL error (ALTER TABLE Files): ", OnFailure::ReportOnly);
    }
    setUserVersion();
}

void DB::setUserVersion() {
    execute("PRAGMA user_version = " + std::to_string(kSchemaVersion),
            "SQL error (user_version): ", OnFailure::ReportOnly);
}

// --- running statements ---------------------------------------------------------------------

int DB::execCallback(void* prefix, int columns, char** values, char** names) {
    if (!s_verbose) return 0;
    ::printf("*** sql callback: %s", static_cast<const char*>(prefix));
    for (int i = 0; i < columns; ++i) {
        ::printf(" %s = %s\n", names[i], values[i] != nullptr ? values[i] : "NULL");
    }
    ::printf("\n");
    return 0;
}

DB::PruneGuard DB::lockFor(const char* operation) {
    trace("Take lock for ", operation);
    return PruneGuard(m_PruneLock);
}

int DB::execute(const std::string& sql, const char* failureText, OnFailure onFailure) {
    char* text = nullptr;
    const int result = sqlite3_exec(m_connection.get(), sql.c_str(), execCallback, kTag, &text);
    const std::unique_ptr<char, FreeText> message(text);
    m_busy = result == SQLITE_BUSY;
    if (result != SQLITE_OK) {
        reportFailure(failureText, message ? message.get() : sqlite3_errstr(result), onFailure);
    }
    return result;
}

void DB::reportFailure(const char* failureText, const char* message, OnFailure onFailure) {
    failureLine(failureText, message);
    if (onFailure == OnFailure::Record) checkErrorCondition(message);
}

void DB::checkErrorCondition(const char* message) {
    const int code = m_connection ? sqlite3_errcode(m_connection.get()) : SQLITE_MISUSE;
    m_dbError = true;
    m_DBErrorMessage = message != nullptr ? message : "";
    const auto databaseIsFull = m_dbFullCb;  // a copy: the call may replace it
    if (code == SQLITE_FULL && databaseIsFull) databaseIsFull();
}

bool DB::executeOrRollBack(const std::string& sql, const char* failureText) {
    if (execute(sql, failureText) == SQLITE_OK) return true;
    rollBack();
    return false;
}

void DB::rollBack() {
    // The result does not matter: where it fails, SQLite has ended the transaction itself.
    sqlite3_exec(m_connection.get(), "ROLLBACK", execCallback, kTag, nullptr);
}

std::string DB::lastErrorOfConnection() const {
    const char* const text = m_connection ? sqlite3_errmsg(m_connection.get()) : nullptr;
    return text != nullptr ? text : "no open database";
}

// --- events ---------------------------------------------------------------------------------

long DB::addEvent(long bootCount, long standbyCount, long long kernelTime, std::string type,
                  std::string data) {
    PrunerThreads::letWaitingOneGoFirst();
    const long total =
        storeEvent({bootCount, standbyCount, kernelTime, std::move(type), std::move(data)});
    startPrunerAbove(total);
    return total;
}

long DB::addEvents(const std::vector<NewEvent>& events, std::size_t& taken) {
    taken = 0;
    long total = m_TotalEventSize;
    if (events.empty()) return total;
    const bool ahead = PrunerThreads::takeHeadStart();
    if (!ahead) PrunerThreads::letWaitingOneGoFirst();
    {
        const PruneGuard lock = lockFor("adding events");
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

/// Throws nothing: the events are stored by now. -1 when it stays unknown.
long DB::recountedSize() {
    try {
        return totalEventSize();
    } catch (const std::exception& error) {
        failureLine("Events could not be counted: ", error.what());
        return -1;
    }
}

/// Whether the last statement met another process's lock, and not for too long: it may end soon.
bool DB::batchCanWait() {
    using Clock = std::chrono::steady_clock;
    if (!m_busy) {
        m_busySince.reset();
        return false;
    }
    if (!m_busySince) m_busySince = Clock::now();
    return Clock::now() - *m_busySince < kLongestWait;
}

/// Whatever of a failed batch can be stored is stored. Nothing waits here: the senders have.
void DB::storeSingly(const std::vector<NewEvent>& events, std::size_t count, long& total) {
    if (m_connection) sqlite3_busy_timeout(m_connection.get(), 0);
    for (std::size_t i = 0; i < count; ++i) {
        try {
            total = storeEvent(events[i]);
        } catch (const std::exception& error) {  // costs this event alone
            failureLine("Event could not be stored: ", error.what());
            total = m_TotalEventSize;
        }
    }
    if (m_connection) sqlite3_busy_timeout(m_connection.get(), kBusyTimeoutMs);
}

bool DB::storeInOneTransaction(const std::vector<NewEvent>& events, bool ahead, std::size_t& taken,
                               long& total) {
    const std::size_t most = std::min(events.size(), kMostEventsOfABatch);
    const long limit = sizeThatEndsABatch(ahead);
    taken = most;
    Transaction batch(*this, "BEGIN IMMEDIATE TRANSACTION");
    if (!batch.begun()) return false;
    for (std::size_t i = 0; i < most; ++i) {
        total = storeEvent(events[i]);
        if (total <= limit && !batch.hasEnded()) continue;
        taken = i + 1;
        break;
    }
    if (batch.hasEnded()) {
        // The failure took the whole transaction along, with the events before.
        m_TotalEventSize = -1;
        return false;
    }
    if (!batch.commit()) return false;
    m_busySince.reset();
    return true;
}

long DB::sizeThatEndsABatch(bool ahead) {
    // Ahead of a pruner that waits, at most as much again as it is going to remove.
    const long total = ahead ? totalEventSize() : 0;
    return ahead ? total + (m_pruneThreshold - m_pruneTarget) : m_pruneThreshold;
}

long DB::storeEvent(const NewEvent& event) {
    long total = 0;
    {
        const PruneGuard lock = lockFor("adding event");
        if (insertEvent(event)) {
            total = incrementEventSize(static_cast<long>(event.data.length() + 1));
            trace("Records created successfully");
            m_dbError = false;
        } else {
            total = m_TotalEventSize;
        }
    }
    trace(" Updated total event size to: ", total);
    return total;
}

bool DB::insertEvent(const NewEvent& event) {
    const std::string sql = insertion(asOnASet(event.bootCount), asOnASet(event.standbyCount),
                                      event.kernelTime, event.type, event.data);
    trace("Query is ", sql);
    const bool quoted =
        event.type.find('\'') != std::string::npos || event.data.find('\'') != std::string::npos;
    if (quoted) return refuseQuotedEvent(sql);
    return execute(sql, "SQL error (insert event): ") == SQLITE_OK;
}

bool DB::refuseQuotedEvent(const std::string& statement) {
    // The text comes from other processes: with a quote in it, it may end the value and bring
    // statements of its own. SQLite says what it thinks of it, but it is never run.
    const SqlStatement attempt(m_connection.get(), statement);
    const std::string message =
        attempt.isPrepared() ? "single quote in the event's text" : lastErrorOfConnection();
    reportFailure("SQL error (insert event): ", message.c_str(), OnFailure::Record);
    return false;
}

void DB::startPrunerAbove(long total) {
    if (total > m_pruneThreshold) m_pruners.start([this] { pruneAboveSize(m_pruneTarget); });
}

long DB::incrementEventSize(long bytes) {
    const PruneGuard lock(m_PruneLock);
    if (m_TotalEventSize < 0) return totalEventSize();
    m_TotalEventSize += static_cast<std::int32_t>(bytes);
    return m_TotalEventSize;
}

long DB::totalEventSize() {
    const PruneGuard lock = lockFor("totalEventSize");
    if (m_TotalEventSize < 0) {
        SqlStatement sum(m_connection.get(), "SELECT SUM(length(data)+1)+1 FROM Events;");
        while (sum.step() == SQLITE_ROW) {
            if (sum.columnIsNull(0)) continue;
            // NOLINTNEXTLINE(cert-err34-c): text without a number counts as 0
            m_TotalEventSize = static_cast<std::int32_t>(::atol(sum.columnText(0).c_str()));
        }
    }
    return m_TotalEventSize;
}

DB::EventSet DB::getEvents(bool oneCycleOnly) {
    const PruneGuard lock(m_PruneLock);
    std::string query;
    if (!oneCycleOnly) {
        query = "SELECT ROWID,data FROM Events ORDER BY bootCount,standbyCount,kernelTime;";
    } else {
        SqlStatement oldest(m_connection.get(),
                            "SELECT bootCount,standbyCount FROM Events "
                            "ORDER BY bootCount,standbyCount LIMIT 1");
        if (oldest.columnCount() == 2 && oldest.step() == SQLITE_ROW) {
            query = "SELECT ROWID,data FROM Events WHERE bootCount=" +
                    std::to_string(oldest.columnInt64(0)) +
                    " AND standbyCount=" + std::to_string(oldest.columnInt64(1)) +
                    " ORDER BY kernelTime;";
        }
    }
    return EventSet(m_path, query);
}

bool DB::deleteMarkedEvents(EventSet set) {
    trace("Query is ", deletionOf("Events", set.marksStillStored()));
    trace("Taking lock for deleteMarkedEvents");
    bool deleted = false;
    {
        const PruneGuard lock(m_PruneLock);
        // Asked again: pruning may have deleted marked rows while this thread waited.
        const std::string deletion = deletionOf("Events", set.marksStillStored());
        Transaction transaction(*this, "BEGIN EXCLUSIVE TRANSACTION");
        deleted = transaction.begun() && executeOrRollBack(deletion, "SQL error (delete): ") &&
                  transaction.commit();
        if (deleted) {
            m_dbError = true;  // set on success, as the reports expect it; the trims clear it
            trace("Records deleted successfully");
        }
        m_TotalEventSize = -1;
    }
    pruneSessionBasedTable("TimeOffsets");
    pruneSessionBasedTable("OpTimes");
    return deleted;
}

std::string DB::getOldestEvent() {
    const PruneGuard lock = lockFor("getOldestEvent");
    std::string text;
    SqlStatement oldest(m_connection.get(),
                        "SELECT data FROM EVENTS ORDER BY bootCount,standbyCount,kernelTime "
                        "LIMIT 1;");
    if (oldest.columnCount() != 1) return text;
    while (oldest.step() == SQLITE_ROW) text = oldest.columnText(0);
    return text;
}

// --- pruning --------------------------------------------------------------------------------

void DB::pruneAboveSize(long limit) {
    // Too long a name for the kernel, which then keeps the old one.
    pthread_setname_np(pthread_self(), "DBPruneAboveSizeThread");
    if (!replaceOldestEvents(limit)) return;
    pruneSessionBasedTable("TimeOffsets");
    pruneSessionBasedTable("OpTimes");
}

bool DB::replaceOldestEvents(long limit) {
    const PruneGuard lock = lockFor("pruneAboveSize");
    PrunerThreads::tookTheLock();
    const long total = totalEventSize();
    trace(" PruneAboveSize invoked for limit ", limit, " while size is ", total);
    if (total <= limit) return false;
    const EventPruner victims(m_connection.get(), total, limit);
    trace(" Found ", victims.rows().size(), " events to be deleted, totalling ", victims.freed(),
          " bytes");
    if (victims.rows().empty()) return false;
    replaceByOverflowEvent(victims);
    return true;
}

void DB::replaceByOverflowEvent(const EventPruner& victims) {
    const std::string deletion = deletionOf("Events", victims.rows());
    const JsonObject event = victims.overflowEvent();
    trace(" Adding new event: ", event);
    const std::string data = event.dumpAsString();
    const EventPruner::Moment& oldest = victims.lowest();
    const std::string overflow = insertion(oldest.bootCount, oldest.standbyCount, oldest.kernelTime,
                                           EventPruner::overflowType(), data);
    Transaction pruning(*this, "BEGIN IMMEDIATE TRANSACTION");
    if (!pruning.begun()) return;
    if (!executeOrRollBack(deletion, "SQL error (delete events): ")) return;
    if (!executeOrRollBack(overflow, "SQL error (insert overflow event): ")) return;
    trace("Completing pruning transaction ...");
    if (!pruning.commit()) return;
    m_dbError = false;
    m_TotalEventSize +=
        static_cast<std::int32_t>(static_cast<long>(data.length()) + 1 - victims.freed());
    EventSet::rowsWerePruned(victims.rows());
}

void DB::pruneSessionBasedTable(const std::string& table) {
    const PruneGuard lock = lockFor("pruneSessionBasedTable");
    const std::string deletion =
        deletionOf(table, EventPruner::rowsOfForgottenCycles(m_connection.get(), table));
    const std::string failureText = "SQL error (delete from " + table + "): ";
    Transaction trim(*this, "BEGIN EXCLUSIVE TRANSACTION");
    if (!trim.begun()) return;
    if (!executeOrRollBack(deletion, failureText.c_str()) || !trim.commit()) return;
    m_dbError = false;
    trace("Records in ", table, " deleted successfully");
}

// --- files ----------------------------------------------------------------------------------

int DB::getNumberOfFiles() {
    const PruneGuard lock = lockFor("getNumberOfFiles");
    SqlStatement count(m_connection.get(), "SELECT COUNT(*) FROM Files");
    return static_cast<int>(readNumber(count, "Files"));
}

std::unique_ptr<DB::PendingUpload> DB::getFirstUpload() {
    const PruneGuard lock = lockFor("getFirstUpload");
    SqlStatement first(m_connection.get(),
                       "SELECT id,url,status,retries,lastfail,info FROM Files "
                       "ORDER BY lastfail LIMIT 1");
    if (!hasRow(first, "Files")) return nullptr;
    auto upload = std::make_unique<PendingUpload>();
    upload->id = first.columnText(0);
    upload->url = first.columnText(1);
    upload->status = static_cast<int>(first.columnInt64(2));
    upload->retries = static_cast<int>(first.columnInt64(3));
    upload->lastfail = first.columnInt64(4);
    upload->info = first.columnText(5);
    return upload;
}

void DB::removeUpload(std::string id) {
    const PruneGuard lock = lockFor("removeUpload");
    SqlStatement removal(m_connection.get(), "DELETE FROM Files WHERE id=?");
    removal.bind(1, id);
    if (removal.step() == SQLITE_DONE) return;
    failureLine(" Can't delete from table Files : ", lastErrorOfConnection());
}

void DB::addFile(std::string id, std::string url, std::string info) {
    const PruneGuard lock = lockFor("addFile");
    SqlStatement insert(m_connection.get(),
                        "INSERT INTO Files (id, url, status, retries, lastfail, info) "
                        "VALUES (?1, ?2, ?3, ?3, ?4, ?5)");
    insert.bind(1, id);
    insert.bind(2, url);
    insert.bind(3, std::int64_t{0});
    insert.bind(4, std::int64_t{0});
    if (info.empty()) {
        insert.bindNull(5);
    } else {
        insert.bind(5, info);
    }
    if (insert.step() == SQLITE_DONE) return;
    ::fprintf(stderr, "%s Can't Insert into table Files\n", kTag);
}

void DB::retryUpload(std::string id) {
    const PruneGuard lock = lockFor("retryUpload");
    const TimeReference now;
    SqlStatement update(m_connection.get(),
                        "UPDATE Files SET retries=retries+1, lastfail=?1 WHERE id=?2");
    update.bind(1, std::int64_t{now.kernelTime});
    update.bind(2, id);
    if (update.step() == SQLITE_DONE) return;
    failureLine(" Can't update table Files : ", lastErrorOfConnection());
}

// --- start times, operating times, location ---------------------------------------------------

long long DB::getStartTime(long bootCount, long standbyCount, int source) const {
    const PruneGuard lock = lockFor("getStartTime");
    SqlStatement select(m_connection.get(),
                        "SELECT startTime FROM TimeOffsets "
                        "WHERE bootCount=? AND standbyCount=? AND source=?");
    select.bind(1, std::int64_t{asOnASet(bootCount)});
    select.bind(2, std::int64_t{asOnASet(standbyCount)});
    select.bind(3, std::int64_t{source});
    return readNumber(select, "TimeOffsets");
}

long long DB::getStartTime(long bootCount, long standbyCount) {
    return getStartTime(bootCount, standbyCount, kSystemTime);
}

int DB::setStartTime(long bootCount, long standbyCount, int source, long long startTime) {
    const PruneGuard lock = lockFor("setStartTime");
    SqlStatement insert(m_connection.get(),
                        "INSERT OR REPLACE INTO TimeOffsets "
                        "(bootCount, standbyCount, source, startTime, status) "
                        "VALUES (?1, ?2, ?3, ?4, ?3)");
    insert.bind(1, std::int64_t{asOnASet(bootCount)});
    insert.bind(2, std::int64_t{asOnASet(standbyCount)});
    insert.bind(3, std::int64_t{source});
    insert.bind(4, std::int64_t{startTime});
    const int result = insert.step();
    if (result == SQLITE_DONE) return 0;
    ::fprintf(stderr, "%s Can't Insert into table TimeOffsets : %s\n", kTag,
              lastErrorOfConnection().c_str());
    return result;
}

int DB::setStartTime(long bootCount, long standbyCount, long long startTime) {
    return setStartTime(bootCount, standbyCount, kSystemTime, startTime);
}

void DB::setOpTime(long bootCount, long standbyCount, unsigned int opTime) {
    const PruneGuard lock = lockFor("setOpTime");
    SqlStatement insert(m_connection.get(),
                        "INSERT OR REPLACE INTO OpTimes (bootCount, standbyCount, opTime) "
                        "VALUES (?1, ?2, ?3)");
    insert.bind(1, std::int64_t{asOnASet(bootCount)});
    insert.bind(2, std::int64_t{asOnASet(standbyCount)});
    insert.bind(3, std::int64_t{opTime});
    if (insert.step() == SQLITE_DONE) return;
    failureLine("Can't Insert into table OpTimes: ", lastErrorOfConnection());
}

unsigned int DB::getOpTime(long bootCount, long standbyCount) const {
    const PruneGuard lock = lockFor("getOpTime");
    SqlStatement select(m_connection.get(),
                        "SELECT opTime FROM OpTimes WHERE bootCount=? AND standbyCount=?");
    select.bind(1, std::int64_t{asOnASet(bootCount)});
    select.bind(2, std::int64_t{asOnASet(standbyCount)});
    return static_cast<unsigned int>(readNumber(select, "OpTimes"));
}

bool DB::setLocation(double longitude, double latitude, const std::string& ip,
                     const std::string& city, const std::string& region,
                     const std::string& countryCode) {
    const PruneGuard lock = lockFor("setLocation");
    SqlStatement insert(m_connection.get(),
                        "INSERT OR REPLACE INTO Location "
                        "(id, longitude, latitude, IP, city, region, countryCode) "
                        "VALUES (1, ?1, ?2, ?3, ?4, ?5, ?6)");
    insert.bind(1, longitude);
    insert.bind(2, latitude);
    insert.bind(3, ip);
    insert.bind(4, city);
    insert.bind(5, region);
    insert.bind(6, countryCode);
    if (insert.step() == SQLITE_DONE) return true;
    failureLine("Can't Insert into table Location: ", lastErrorOfConnection());
    return false;
}

bool DB::getLocation(double& longitude, double& latitude, std::string& ip, std::string& city,
                     std::string& region, std::string& countryCode) const {
    const PruneGuard lock = lockFor("getLocation");
    SqlStatement select(m_connection.get(), "SELECT * FROM Location WHERE id=1");
    if (!hasRow(select, "Location")) return false;
    longitude = select.columnDouble(1);
    latitude = select.columnDouble(2);
    ip = select.columnText(3);
    city = select.columnText(4);
    region = select.columnText(5);
    countryCode = select.columnText(6);
    return true;
}

bool DB::hasRow(SqlStatement& query, const char* table) const {
    const int result = query.step();
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        failureLine("Can't read from table ", table, ": ", lastErrorOfConnection());
    }
    return result == SQLITE_ROW;
}

std::int64_t DB::readNumber(SqlStatement& query, const char* table) const {
    return hasRow(query, table) ? query.columnInt64(0) : 0;
}

// --- shared state -----------------------------------------------------------------------------

void DB::setVerbose(bool verbose) {
    s_verbose = verbose;
}

bool DB::getVerbose() {
    return s_verbose;
}

std::string DB::lastErrorMessage() {
    const PruneGuard lock(m_PruneLock);
    return m_DBErrorMessage;
}

void DB::setFullCallback(std::function<void()> callback) {
    const PruneGuard lock(m_PruneLock);
    m_dbFullCb = std::move(callback);
}
