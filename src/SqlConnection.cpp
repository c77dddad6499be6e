#include "SqlConnection.h"

#include "SqlFiles.h"
#include "SqlResult.h"

#include <utility>

#include <cerrno>
#include <cstdio>

#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

/// For readers of other processes, which bar a COMMIT as long as they read.
constexpr int kBusyTimeoutMs = 1000;

/// No text or statement is longer: above the largest store, and little enough to hold in memory.
constexpr int kLongestText = 4 * 1024 * 1024;

/// Instructions of SQLite's machine between two questions whether to go on.
constexpr int kInstructionsBetweenQuestions = 1000;

/// Whether nothing can be written beside the file, and everything that was written is in it.
bool isOnReadOnlyDisk(const std::string& file) {
    struct stat log {};
    const bool hasLog = ::stat((file + "-wal").c_str(), &log) == 0 && log.st_size > 0;
    return !hasLog && ::access(file.c_str(), W_OK) != 0 && errno == EROFS;
}

/// The address under which SQLite reads the file without its log.
std::string asUnchanging(const std::string& path) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string address = "file:";
    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '%' || character == '?' || character == '#') {
            address += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
        } else {
            address += character;
        }
    }
    return address + "?immutable=1";
}

struct FreeText {
    void operator()(char* text) const { sqlite3_free(text); }
};

}  // namespace

void SqlConnection::Close::operator()(sqlite3* handle) const {
    sqlite3_close(handle);
}

SqlConnection::SqlConnection(Recorder recordFailure) : m_recordFailure(std::move(recordFailure)) {}

// --- opening --------------------------------------------------------------------------------

SqlConnection::~SqlConnection() {
    close();
}

std::string SqlConnection::open(const std::string& path, OnLock onLock, Purpose purpose) {
    close();
    m_closedByOthers = false;
    m_path = path;
    std::string failure = connect(purpose);
    if (!failure.empty()) return failure;
    configure(onLock, purpose);
    if (m_obstacle == Obstacle::None) return "";
    const bool unwritable = m_obstacle == Obstacle::LogNeedsWriting;
    close();
    if (!unwritable) leaveWal();
    failure = connect(purpose, unwritable ? asUnchanging(m_path) : m_path);
    if (!failure.empty()) return failure;
    configure(onLock, purpose);
    if (unwritable) askForAnother();  // it sees no change, not even that it may be written again
    return "";
}

std::string SqlConnection::connect(Purpose purpose) {
    return connect(purpose, m_path);
}

std::string SqlConnection::connect(Purpose purpose, const std::string& name) {
    const bool mayCreate = purpose == Purpose::Store || purpose == Purpose::Copy;
    const int flags = SQLITE_OPEN_READWRITE | (mayCreate ? SQLITE_OPEN_CREATE : 0);
    const bool isAddress = name != m_path;
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(
        name.c_str(), &handle, isAddress ? SQLITE_OPEN_READONLY | SQLITE_OPEN_URI : flags, nullptr);
    m_handle.reset(handle);
    if (result != SQLITE_OK) {
        std::string why = lastError();
        m_handle.reset();
        return why;
    }
    const char* const file = sqlite3_db_filename(handle, "main");
    m_file = file != nullptr ? file : "";
    m_results = SqlStatement::Results(purpose == Purpose::Salvage ? "" : m_file);
    m_obstacle = Obstacle::None;
    const bool mayBeClosed = purpose == Purpose::Store;
    const std::function<void()> closing = [this] {
        close();
        m_closedByOthers = true;
    };
    SqlFiles::add(this, m_file, handle, mayBeClosed ? closing : nullptr);
    return "";
}

void SqlConnection::close() {
    if (m_handle == nullptr) return;
    SqlFiles::remove(this);
    m_handle.reset();
}

void SqlConnection::configure(OnLock onLock, Purpose purpose) {
    restrict(purpose);
    switch (purpose) {
        case Purpose::Store:
        case Purpose::Cursor:
            keepSafe();
            break;
        case Purpose::Copy:
            readText("PRAGMA journal_mode=MEMORY");
            readText("PRAGMA synchronous=OFF");
            break;
        case Purpose::Salvage:
            readText("PRAGMA writable_schema=ON");  // read past entries that make no sense
            break;
    }
    // Only now: the set-up does not wait for a lock, it does without what it cannot have.
    m_busyTimeoutMs = onLock == OnLock::Wait ? kBusyTimeoutMs : 0;
    sqlite3_busy_timeout(m_handle.get(), m_busyTimeoutMs);
}

/// The file may be anybody's work: nothing in it may run, and nothing be too long for the memory.
void SqlConnection::restrict(Purpose purpose) {
    sqlite3* const handle = m_handle.get();
    sqlite3_limit(handle, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, kLongestText);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, purpose == Purpose::Salvage ? 0 : 1,
                      nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    readText("PRAGMA cell_size_check=ON");
}

/// A power cut must take back no transaction. The log's sync is enough for that; a rollback
/// journal's removal must be synced, too.
void SqlConnection::keepSafe() {
    const bool log = !SqlFiles::refusesWal(m_file) && hasWal();
    readText(log ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=EXTRA");
    // Also where this connection did not get it: another one may, for the same file.
    readText("PRAGMA wal_autocheckpoint=256");
    readText("PRAGMA journal_size_limit=1048576");
}

/// Asks for the log. The answer alone is not enough: whether its index can be mapped shows only
/// when it is read.
bool SqlConnection::hasWal() {
    const bool granted = readText("PRAGMA journal_mode=WAL") == "wal";
    if (isReadable()) return granted;
    if (isMappingRefused()) m_obstacle = Obstacle::IndexCannotBeMapped;
    if (lastErrorCode() == SQLITE_CANTOPEN && isOnReadOnlyDisk(m_file)) {
        m_obstacle = Obstacle::LogNeedsWriting;
    }
    return false;
}

/// Not for want of room or memory, which may come.
bool SqlConnection::isMappingRefused() const {
    if (sqlite3_extended_errcode(m_handle.get()) != SQLITE_IOERR_SHMMAP) return false;
    const int reason = sqlite3_system_errno(m_handle.get());
    return reason == ENODEV || reason == EINVAL;  // as the file system's own way is
}

/// Brings a file back to the rollback journal whose log cannot be used here. That takes no index
/// when nobody else may use the file meanwhile.
void SqlConnection::leaveWal() {
    SqlConnection alone;
    alone.m_path = m_path;
    if (!alone.connect(Purpose::Cursor).empty()) return;
    alone.readText("PRAGMA locking_mode=EXCLUSIVE");
    if (alone.readText("PRAGMA journal_mode=DELETE") != "delete") return;
    if (alone.isReadable()) SqlFiles::noteThatWalIsRefused(m_file);
}

bool SqlConnection::isReadable() {
    return prepare("SELECT COUNT(*) FROM sqlite_master").step() == SQLITE_ROW;
}

/// The first column of the first row; "" without one.
std::string SqlConnection::readText(const char* sql) {
    SqlStatement statement = prepare(sql);
    return statement.step() == SQLITE_ROW ? statement.columnText(0) : "";
}

// --- running statements ---------------------------------------------------------------------

int SqlConnection::printRow(void*, int columns, char** values, char** names) {
    if (!m_log.isVerbose()) return 0;
    std::printf("*** sql callback: %s", m_log.tag());
    for (int i = 0; i < columns; ++i) {
        std::printf(" %s = %s\n", names[i], values[i] != nullptr ? values[i] : "NULL");
    }
    std::printf("\n");
    return 0;
}

int SqlConnection::run(const char* sql, char** message) {
    return m_results.note(sqlite3_exec(m_handle.get(), sql, printRow, nullptr, message));
}

int SqlConnection::execute(const std::string& sql, const char* failureText, OnFailure onFailure) {
    char* text = nullptr;
    const int result = run(sql.c_str(), &text);
    const std::unique_ptr<char, FreeText> message(text);
    m_lastResult = result;
    if (result != SQLITE_OK) {
        reportFailure(failureText, message ? message.get() : sqlite3_errstr(result), onFailure);
    }
    return result;
}

int SqlConnection::execute(SqlStatement& statement, const char* failureText, OnFailure onFailure) {
    const int result = statement.step();
    m_lastResult = result == SQLITE_DONE ? SQLITE_OK : result;
    const std::string message = m_lastResult == SQLITE_OK ? std::string() : lastError();
    statement.resetAndClear();  // before anybody hears of a failure: it bars a ROLLBACK otherwise
    if (m_lastResult != SQLITE_OK) reportFailure(failureText, message.c_str(), onFailure);
    return m_lastResult;
}

SqlStatement SqlConnection::prepare(const std::string& sql) const {
    return SqlStatement(m_handle.get(), sql, &m_results);
}

int SqlConnection::readPragma(const char* pragma) const {
    SqlStatement statement = prepare(pragma);
    return statement.step() == SQLITE_ROW ? static_cast<int>(statement.columnInt64(0)) : 0;
}

void SqlConnection::reportFailure(const char* failureText, const char* message,
                                  OnFailure onFailure) const {
    m_log.error(failureText, ClassLog::foreign(message));  // it quotes a sender's text
    if (onFailure == OnFailure::Record && m_recordFailure) m_recordFailure(message);
}

void SqlConnection::rollBack() {
    // The result does not matter: where it fails, SQLite has ended the transaction itself.
    run("ROLLBACK", nullptr);
}

// --- what is known of it --------------------------------------------------------------------

std::string SqlConnection::lastError() const {
    const char* const text = m_handle ? sqlite3_errmsg(m_handle.get()) : nullptr;
    return text != nullptr ? text : "no open database";
}

int SqlConnection::lastErrorCode() const {
    return m_handle ? sqlite3_errcode(m_handle.get()) : SQLITE_MISUSE;
}

bool SqlConnection::metLock() const {
    return m_lastResult == SQLITE_BUSY;
}

bool SqlConnection::failedForNow() const {
    return !isOpen() || SqlResult::mayPass(m_lastResult);
}

bool SqlConnection::isReadOnly() const {
    return m_handle && sqlite3_db_readonly(m_handle.get(), "main") == 1;
}

bool SqlConnection::isInUse() const {
    return m_handle && (isInTransaction() || sqlite3_next_stmt(m_handle.get(), nullptr) != nullptr);
}

int SqlConnection::flush() {
    return m_handle ? m_results.note(sqlite3_db_cacheflush(m_handle.get())) : SQLITE_MISUSE;
}

void SqlConnection::runWhile(std::function<bool()> goesOn) {
    m_goesOn = std::move(goesOn);
    const auto ends = [](void* self) {
        return static_cast<SqlConnection*>(self)->m_goesOn() ? 0 : 1;
    };
    if (!m_handle) return;
    if (m_goesOn)
        sqlite3_progress_handler(m_handle.get(), kInstructionsBetweenQuestions, ends, this);
    else
        sqlite3_progress_handler(m_handle.get(), 0, nullptr, nullptr);
}

bool SqlConnection::isInTransaction() const {
    return m_handle && sqlite3_get_autocommit(m_handle.get()) == 0;
}

void SqlConnection::releaseMemory() {
    if (m_handle) sqlite3_db_release_memory(m_handle.get());
}

// --- transactions ---------------------------------------------------------------------------

SqlConnection::Transaction::Transaction(SqlConnection& connection, const char* beginning,
                                        std::function<void()> inDoubt, OnFailure onFailure)
    : m_connection(connection),
      m_inDoubt(std::move(inDoubt)),
      m_onFailure(onFailure),
      m_begun(connection.execute(beginning, "SQL error (begin transaction): ", onFailure) ==
              SQLITE_OK) {}

SqlConnection::Transaction::~Transaction() {
    if (!m_begun || hasEnded()) return;
    m_connection.rollBack();
    doubt();
}

bool SqlConnection::Transaction::execute(const std::string& sql, const char* failureText) {
    if (m_connection.execute(sql, failureText, m_onFailure) == SQLITE_OK) return true;
    m_connection.rollBack();
    return false;
}

bool SqlConnection::Transaction::commit() {
    if (m_connection.execute("COMMIT", "SQL error (commit): ", m_onFailure) == SQLITE_OK) {
        return true;
    }
    doubt();
    return false;
}

void SqlConnection::Transaction::doubt() const {
    if (m_inDoubt) m_inDoubt();
}

// --- waiting for locks ------------------------------------------------------------------------

SqlConnection::NoWaiting::NoWaiting(SqlConnection& connection) : m_connection(connection) {
    if (connection.isOpen()) sqlite3_busy_timeout(connection.m_handle.get(), 0);
}

SqlConnection::NoWaiting::~NoWaiting() {
    if (!m_connection.isOpen()) return;
    sqlite3_busy_timeout(m_connection.m_handle.get(), m_connection.m_busyTimeoutMs);
}
