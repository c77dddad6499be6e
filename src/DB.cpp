#include "DB.h"

#include "Cycle.h"
#include "DBToken.h"
#include "SqlFiles.h"
#include "SqlStatement.h"
#include "StoreRescue.h"
#include "StoreSchema.h"

#include <optional>
#include <utility>

#include <cstdio>

#include <malloc.h>

#include <sqlite3.h>

namespace {

constexpr ClassLog& s_log = SqlConnection::m_log;
constexpr int kSystemTime = 0;  ///< the source of a start time without one

/// A store that fails is not opened more often.
constexpr auto kBetweenOpenings = std::chrono::seconds(5);

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

std::atomic<bool> DB::m_damageUnreported{false};
bool DB::m_hasUncommittedIdentity = false;

// --- opening --------------------------------------------------------------------------------

DB::DB()
    : m_connection([this](const char* message) { checkErrorCondition(message); }),
      m_files(m_connection),
      m_events(m_connection,
               {m_PruneLock, m_TotalEventSize, m_dbError, m_makeReady, &m_damageUnreported}) {}

DB::~DB() {
    m_events.waitForPruners();
    const Guard lock(m_PruneLock);  // another thread may be closing the connection
    if (m_connection.isOpen()) s_log.info("Destructor: close DB ", m_connection.address());
    m_connection.close();
}

void DB::open(std::string path, bool recreateIfUnusable) {
    if (!openConnection(path)) return;
    s_log.info("Take lock for creating tables");
    const Guard lock(m_PruneLock);
    setUp(recreateIfUnusable);
}

void DB::setUp(bool recreateIfUnusable) {
    StoreSchema schema(m_connection);
    schema.limitPages(m_maxDatabaseSize);
    std::optional<SqlConnection::NoWaiting> waitedEnough;
    if (m_connection.metLock()) waitedEnough.emplace(m_connection);
    if (recreateIfUnusable && m_connection.foundDamage()) {
        if (replaceDamagedFile()) {
            open(std::string(m_connection.path()), false);
            return;
        }
    } else if (recreateIfUnusable) {
        const std::string damage = schema.findDamage();
        if (!damage.empty()) {
            s_log.error("Database ", m_connection.path(),
                        " is damaged: ", ClassLog::foreign(damage));
            SqlFiles::noteDamage(m_connection.file());
            if (replaceDamagedFile()) {
                open(std::string(m_connection.path()), false);
                return;
            }
        }
    }
    m_isComplete = schema.bringUpToDate([this] { makeNewIdentity(); });
    if (m_isComplete) m_hasUncommittedIdentity = false;
}

/// Once for each new file, however often its making has to be tried.
void DB::makeNewIdentity() {
    if (!m_hasUncommittedIdentity) DBToken::loadDBUUIDFile(true);
    m_hasUncommittedIdentity = true;
}

bool DB::openConnection(const std::string& path) {
    const Guard lock(m_PruneLock);  // a pruner of this object may be using the old connection
    m_openedLast = Clock::now();
    m_isComplete = false;
    std::string failure = StoreRescue::finish(path);
    if (failure.empty()) failure = m_connection.open(path, SqlConnection::OnLock::Wait);
    if (!failure.empty()) {
        s_log.error("Can't open database ", path, ": ", failure);
        return false;
    }
    s_log.info("Opened database ", path, " successfully: ", m_connection.address());
    m_TotalEventSize = -1;
    return true;
}

void DB::makeReady() {
    // Amid an operation on this connection there is nothing to be done, and before `open` neither.
    if (m_connection.path().empty() || m_connection.isInUse()) return;
    if (SqlFiles::isDamaged(m_connection.file())) replaceDamagedFile();
    if (!shouldOpenAgain()) return;
    // What the connections of a process share (the index of a log that was read-only when it was
    // opened) goes with the last of them only; each opens again when it is next used.
    if (m_connection.isStuck()) SqlFiles::closeAll(m_connection.file());
    if (openConnection(std::string(m_connection.path()))) setUp(false);
}

bool DB::shouldOpenAgain() const {
    if (m_connection.wasClosedByOthers()) return true;
    const bool fails = !m_isComplete || m_connection.isStuck();
    return fails && Clock::now() - m_openedLast >= kBetweenOpenings;
}

/// Whether the next operation finds the store open and without known faults.
bool DB::isReady() const {
    return m_connection.isOpen() && m_isComplete && !m_connection.isStuck() &&
           !SqlFiles::isDamaged(m_connection.file());
}

/// @return false when it is not possible now: somebody reads, or it was tried a moment ago, or it
/// fails
bool DB::replaceDamagedFile() {
    const std::string file = m_connection.file();
    if (!StoreRescue::isDue(file) || !SqlFiles::closeAll(file)) return false;
    const StoreRescue::Result result = StoreRescue(file, m_maxDatabaseSize).run();
    m_dbError = true;
    if (!result.problem.empty()) {
        m_DBErrorMessage = "Can't replace damaged database: " + result.problem;
        s_log.error("Can't replace damaged database ", file, ": ",
                    ClassLog::foreign(result.problem));
        return false;
    }
    m_damageUnreported = true;
    m_TotalEventSize = -1;
    SqlFiles::forgetDamage(file);
    EventSet::onlyTheseRowsRemain(result.eventRows);
    m_DBErrorMessage =
        "Damaged database replaced, carried over: " + std::to_string(result.eventRows.size()) +
        " events, " + std::to_string(result.files) + " files, " + std::to_string(result.otherRows) +
        " other rows";
    s_log.error(m_DBErrorMessage, "; the old one is ", StoreRescue::damagedName(file));
    return true;
}

void DB::returnFreeMemory() {
    {
        const Guard lock(m_PruneLock);
        m_connection.releaseMemory();
    }
    ::malloc_trim(0);  // free pages between used ones, too, which free() never returns
}

DB::Turn DB::lockFor(const char* operation) const {
    s_log.info("Take lock for ", operation);
    return Turn(m_PruneLock, m_makeReady);
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

bool DB::addOverflowEvent(const EventPruner::Range& range) {
    return m_events.addOverflowEvent(range);
}

bool DB::works() {
    const Turn lock = lockFor("works");
    if (!m_events.works()) return false;
    m_dbError = m_damageUnreported = false;
    return true;
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
    const Turn lock = lockFor("getNumberOfFiles");
    return m_files.count();
}

std::unique_ptr<DB::PendingUpload> DB::getFirstUpload() {
    const Turn lock = lockFor("getFirstUpload");
    return m_files.first();
}

bool DB::removeUpload(std::string id) {
    const Turn lock = lockFor("removeUpload");
    return m_files.remove(id);
}

bool DB::isUploadGone(const std::string& id) {
    const Turn lock = lockFor("isUploadGone");
    return m_files.isGone(id);
}

bool DB::addFile(std::string id, std::string url, std::string info) {
    const Turn lock = lockFor("addFile");
    return m_files.add({id, url, info}) == FilesTable::Outcome::Registered;
}

FilesTable::Outcome DB::registerFile(const FilesTable::Announcement& file) {
    const Turn lock = lockFor("addFile");
    const SqlConnection::NoWaiting atOnce(m_connection);
    return m_files.add(file);
}

FilesTable::Outcome DB::registerFileAtOnce(const FilesTable::Announcement& file) {
    s_log.info("Take lock for addFile");
    const std::unique_lock<std::recursive_mutex> lock(m_PruneLock, std::try_to_lock);
    if (!lock.owns_lock() || !isReady()) return FilesTable::Outcome::NotNow;
    const SqlConnection::NoWaiting atOnce(m_connection);
    return m_files.add(file);
}

void DB::retryUpload(std::string id) {
    const Turn lock = lockFor("retryUpload");
    m_files.countFailure(id);
}

// --- start times, operating times, location ---------------------------------------------------

long long DB::getStartTime(long bootCount, long standbyCount, int source) const {
    const Turn lock = lockFor("getStartTime");
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
    const Turn lock = lockFor("setStartTime");
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
    const Turn lock = lockFor("setOpTime");
    SqlStatement insert = m_connection.prepare(
        "INSERT OR REPLACE INTO OpTimes (bootCount, standbyCount, opTime) "
        "VALUES (?1, ?2, ?3)");
    bindCycle(insert, Cycle(bootCount, standbyCount));
    insert.bind(3, std::int64_t{opTime});
    if (insert.step() == SQLITE_DONE) return;
    s_log.error("Can't Insert into table OpTimes: ", ClassLog::foreign(m_connection.lastError()));
}

unsigned int DB::getOpTime(long bootCount, long standbyCount) const {
    const Turn lock = lockFor("getOpTime");
    SqlStatement select =
        m_connection.prepare("SELECT opTime FROM OpTimes WHERE bootCount=? AND standbyCount=?");
    bindCycle(select, Cycle(bootCount, standbyCount));
    return static_cast<unsigned int>(readNumber(select, "OpTimes"));
}

bool DB::setLocation(double longitude, double latitude, const std::string& ip,
                     const std::string& city, const std::string& region,
                     const std::string& countryCode) {
    const Turn lock = lockFor("setLocation");
    const SqlConnection::NoWaiting atOnce(m_connection);
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
    const bool stored = insert.step() == SQLITE_DONE;
    const std::string failure = stored ? "" : m_connection.lastError();
    if (!stored && failure != m_locationFailure) {
        s_log.error("Can't Insert into table Location: ", ClassLog::foreign(failure));
    }
    m_locationFailure = failure;
    return stored;
}

bool DB::getLocation(double& longitude, double& latitude, std::string& ip, std::string& city,
                     std::string& region, std::string& countryCode) const {
    const Turn lock = lockFor("getLocation");
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
        s_log.error("Can't read from table ", table, ": ",
                    ClassLog::foreign(m_connection.lastError()));
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
