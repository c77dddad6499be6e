#include "DB.h"

#include "Cycle.h"
#include "DBToken.h"
#include "SqlStatement.h"
#include "TimeReference.h"

#include <utility>

#include <cerrno>
#include <cstdio>

#include <malloc.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

using OnFailure = SqlConnection::OnFailure;

constexpr ClassLog& s_log = SqlConnection::m_log;
constexpr int kSchemaVersion = 2;
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

void bindCycle(SqlStatement& statement, const Cycle& cycle) {
    statement.bind(1, std::int64_t{cycle.bootCount});
    statement.bind(2, std::int64_t{cycle.standbyCount});
}

}  // namespace

std::recursive_mutex DB::m_PruneLock;
std::atomic<std::int32_t> DB::m_TotalEventSize{-1};
std::atomic<bool> DB::m_dbError{false};
std::string DB::m_DBErrorMessage;
std::function<void()> DB::m_dbFullCb;

// --- opening --------------------------------------------------------------------------------

DB::DB()
    : m_connection([this](const char* message) { checkErrorCondition(message); }),
      m_events(m_connection, {m_PruneLock, m_TotalEventSize, m_dbError}) {}

DB::~DB() {
    m_events.waitForPruners();
    if (m_connection.isOpen()) s_log.info("Destructor: close DB ", m_connection.address());
}

void DB::open(std::string path, bool recreateIfUnusable) {
    if (!openConnection(path)) return;
    const Guard lock = lockFor("creating tables");
    limitPages();
    if (m_connection.foundDamage() && recreateIfUnusable) {
        recreate(path);
        return;
    }
    createTables();
    migrate();
}

void DB::returnFreeMemory() {
    {
        const Guard lock(m_PruneLock);
        m_connection.releaseMemory();
    }
    ::malloc_trim(0);  // free pages between used ones, too, which free() never returns
}

bool DB::openConnection(const std::string& path) {
    const Guard lock(m_PruneLock);  // a pruner of this object may be using the old connection
    const std::string failure = m_connection.open(path, SqlConnection::OnLock::Wait);
    if (!failure.empty()) {
        s_log.error("Can't open database ", path, ": ", failure);
        return false;
    }
    s_log.info("Opened database ", path, " successfully: ", m_connection.address());
    m_TotalEventSize = -1;
    return true;
}

void DB::recreate(const std::string& path) {
    m_connection.close();
    if (::unlink(path.c_str()) != 0) {
        s_log.error("Can't delete database ", path, ": ", ClassLog::errnoText(errno));
    }
    m_dbError = false;
    open(path, false);
}

void DB::limitPages() {
    // A page size that cannot be read leaves 0, which SQLite takes as no new limit; the statement
    // runs all the same, because it is the one that finds a file unusable.
    const int pageSize = m_connection.readPragma("PRAGMA page_size");
    const int pages = pageSize > 0 ? (m_maxDatabaseSize + pageSize - 1) / pageSize : 0;
    m_connection.execute("PRAGMA max_page_count = " + std::to_string(pages),
                         "SQL error (max_page_count): ", OnFailure::ReportOnly);
}

void DB::createTables() {
    for (const Table& table : kTables) {
        if (m_connection.execute(table.statement, table.failureText, OnFailure::ReportOnly) ==
            SQLITE_OK) {
            s_log.info("Table ", table.createdName, " created successfully");
        }
    }
}

void DB::migrate() {
    const int version = m_connection.readPragma("PRAGMA user_version");
    if (version == kSchemaVersion) return;
    if (version == 0) DBToken::loadDBUUIDFile(true);  // a new database gets a new identity
    if (version == 1) {
        m_connection.execute("ALTER TABLE Files ADD COLUMN info BLOB;",
                             "SQL error (ALTER TABLE Files): ", OnFailure::ReportOnly);
    }
    setUserVersion();
}

void DB::setUserVersion() {
    m_connection.execute("PRAGMA user_version = " + std::to_string(kSchemaVersion),
                         "SQL error (user_version): ", OnFailure::ReportOnly);
}

DB::Guard DB::lockFor(const char* operation) {
    s_log.info("Take lock for ", operation);
    return Guard(m_PruneLock);
}

// --- events ---------------------------------------------------------------------------------

long DB::addEvent(long bootCount, long standbyCount, long long kernelTime, std::string type,
                  std::string data) {
    return m_events.addEvent(
        {bootCount, standbyCount, kernelTime, std::move(type), std::move(data)});
}

long DB::addEvents(const std::vector<NewEvent>& events, std::size_t& taken) {
    return m_events.addEvents(events, taken);
}

DB::EventSet DB::getEvents(bool oneCycleOnly) {
    return m_events.getEvents(oneCycleOnly);
}

bool DB::deleteMarkedEvents(EventSet set) {
    return m_events.deleteMarkedEvents(set);
}

long DB::totalEventSize() {
    return m_events.totalEventSize();
}

long DB::incrementEventSize(long bytes) {
    return m_events.incrementEventSize(bytes);
}

std::string DB::getOldestEvent() {
    return m_events.getOldestEvent();
}

void DB::pruneAboveSize(long limit) {
    m_events.pruneAboveSize(limit);
}

void DB::pruneSessionBasedTable(const std::string& table) {
    m_events.pruneSessionBasedTable(table);
}

// --- files ----------------------------------------------------------------------------------

int DB::getNumberOfFiles() {
    const Guard lock = lockFor("getNumberOfFiles");
    SqlStatement count = m_connection.prepare("SELECT COUNT(*) FROM Files");
    return static_cast<int>(readNumber(count, "Files"));
}

std::unique_ptr<DB::PendingUpload> DB::getFirstUpload() {
    const Guard lock = lockFor("getFirstUpload");
    SqlStatement first = m_connection.prepare(
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
    const Guard lock = lockFor("removeUpload");
    SqlStatement removal = m_connection.prepare("DELETE FROM Files WHERE id=?");
    removal.bind(1, id);
    if (removal.step() == SQLITE_DONE) return;
    s_log.error(" Can't delete from table Files : ", m_connection.lastError());
}

void DB::addFile(std::string id, std::string url, std::string info) {
    const Guard lock = lockFor("addFile");
    SqlStatement insert = m_connection.prepare(
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
    std::fprintf(stderr, "%s Can't Insert into table Files\n", s_log.tag());
}

void DB::retryUpload(std::string id) {
    const Guard lock = lockFor("retryUpload");
    const TimeReference now;
    SqlStatement update =
        m_connection.prepare("UPDATE Files SET retries=retries+1, lastfail=?1 WHERE id=?2");
    update.bind(1, std::int64_t{now.kernelTime});
    update.bind(2, id);
    if (update.step() == SQLITE_DONE) return;
    s_log.error(" Can't update table Files : ", m_connection.lastError());
}

// --- start times, operating times, location ---------------------------------------------------

long long DB::getStartTime(long bootCount, long standbyCount, int source) const {
    const Guard lock = lockFor("getStartTime");
    SqlStatement select = m_connection.prepare(
        "SELECT startTime FROM TimeOffsets "
        "WHERE bootCount=? AND standbyCount=? AND source=?");
    bindCycle(select, Cycle(bootCount, standbyCount));
    select.bind(3, std::int64_t{source});
    return readNumber(select, "TimeOffsets");
}

long long DB::getStartTime(long bootCount, long standbyCount) {
    return getStartTime(bootCount, standbyCount, kSystemTime);
}

int DB::setStartTime(long bootCount, long standbyCount, int source, long long startTime) {
    const Guard lock = lockFor("setStartTime");
    SqlStatement insert = m_connection.prepare(
        "INSERT OR REPLACE INTO TimeOffsets "
        "(bootCount, standbyCount, source, startTime, status) "
        "VALUES (?1, ?2, ?3, ?4, ?3)");
    bindCycle(insert, Cycle(bootCount, standbyCount));
    insert.bind(3, std::int64_t{source});
    insert.bind(4, std::int64_t{startTime});
    const int result = insert.step();
    if (result == SQLITE_DONE) return 0;
    std::fprintf(stderr, "%s Can't Insert into table TimeOffsets : %s\n", s_log.tag(),
                 m_connection.lastError().c_str());
    return result;
}

int DB::setStartTime(long bootCount, long standbyCount, long long startTime) {
    return setStartTime(bootCount, standbyCount, kSystemTime, startTime);
}

void DB::setOpTime(long bootCount, long standbyCount, unsigned int opTime) {
    const Guard lock = lockFor("setOpTime");
    SqlStatement insert = m_connection.prepare(
        "INSERT OR REPLACE INTO OpTimes (bootCount, standbyCount, opTime) "
        "VALUES (?1, ?2, ?3)");
    bindCycle(insert, Cycle(bootCount, standbyCount));
    insert.bind(3, std::int64_t{opTime});
    if (insert.step() == SQLITE_DONE) return;
    s_log.error("Can't Insert into table OpTimes: ", m_connection.lastError());
}

unsigned int DB::getOpTime(long bootCount, long standbyCount) const {
    const Guard lock = lockFor("getOpTime");
    SqlStatement select =
        m_connection.prepare("SELECT opTime FROM OpTimes WHERE bootCount=? AND standbyCount=?");
    bindCycle(select, Cycle(bootCount, standbyCount));
    return static_cast<unsigned int>(readNumber(select, "OpTimes"));
}

bool DB::setLocation(double longitude, double latitude, const std::string& ip,
                     const std::string& city, const std::string& region,
                     const std::string& countryCode) {
    const Guard lock = lockFor("setLocation");
    SqlStatement insert = m_connection.prepare(
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
    s_log.error("Can't Insert into table Location: ", m_connection.lastError());
    return false;
}

bool DB::getLocation(double& longitude, double& latitude, std::string& ip, std::string& city,
                     std::string& region, std::string& countryCode) const {
    const Guard lock = lockFor("getLocation");
    SqlStatement select = m_connection.prepare("SELECT * FROM Location WHERE id=1");
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
        s_log.error("Can't read from table ", table, ": ", m_connection.lastError());
    }
    return result == SQLITE_ROW;
}

std::int64_t DB::readNumber(SqlStatement& query, const char* table) const {
    return hasRow(query, table) ? query.columnInt64(0) : 0;
}

// --- shared state -----------------------------------------------------------------------------

void DB::checkErrorCondition(const char* message) {
    m_dbError = true;
    m_DBErrorMessage = message != nullptr ? message : "";
    const auto databaseIsFull = m_dbFullCb;  // a copy: the call may replace it
    if (m_connection.lastErrorCode() == SQLITE_FULL && databaseIsFull) databaseIsFull();
}

void DB::setVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool DB::getVerbose() {
    return s_log.isVerbose();
}

std::string DB::lastErrorMessage() {
    const Guard lock(m_PruneLock);
    return m_DBErrorMessage;
}

void DB::setFullCallback(std::function<void()> callback) {
    const Guard lock(m_PruneLock);
    m_dbFullCb = std::move(callback);
}
