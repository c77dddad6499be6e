#include "SqlConnection.h"

#include <utility>

#include <cstdio>

#include <sqlite3.h>

namespace {

/// For readers of other processes, which bar a COMMIT as long as they read.
constexpr int kBusyTimeoutMs = 1000;

struct FreeText {
    void operator()(char* text) const { sqlite3_free(text); }
};

}  // namespace

void SqlConnection::Close::operator()(sqlite3* handle) const {
    sqlite3_close(handle);
}

SqlConnection::SqlConnection(Recorder recordFailure) : m_recordFailure(std::move(recordFailure)) {}

// --- opening --------------------------------------------------------------------------------

std::string SqlConnection::open(const std::string& path, OnLock onLock) {
    close();
    m_path = path;
    m_results = {};
    sqlite3* handle = nullptr;
    const int result = m_results.note(sqlite3_open(path.c_str(), &handle));
    m_handle.reset(handle);
    if (result != SQLITE_OK) {
        std::string why = lastError();
        close();
        return why;
    }
    configure(onLock);
    return "";
}

void SqlConnection::close() {
    m_handle.reset();
}

void SqlConnection::configure(OnLock onLock) {
    sqlite3_limit(m_handle.get(), SQLITE_LIMIT_ATTACHED, 0);
    m_busyTimeoutMs = onLock == OnLock::Wait ? kBusyTimeoutMs : 0;
    sqlite3_busy_timeout(m_handle.get(), m_busyTimeoutMs);
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
    m_metLock = result == SQLITE_BUSY;
    if (result != SQLITE_OK) {
        reportFailure(failureText, message ? message.get() : sqlite3_errstr(result), onFailure);
    }
    return result;
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
    m_log.error(failureText, message);
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

bool SqlConnection::isInTransaction() const {
    return m_handle && sqlite3_get_autocommit(m_handle.get()) == 0;
}

void SqlConnection::releaseMemory() {
    if (m_handle) sqlite3_db_release_memory(m_handle.get());
}

// --- transactions ---------------------------------------------------------------------------

SqlConnection::Transaction::Transaction(SqlConnection& connection, const char* beginning,
                                        std::function<void()> inDoubt)
    : m_connection(connection),
      m_inDoubt(std::move(inDoubt)),
      m_begun(connection.execute(beginning, "SQL error (begin transaction): ") == SQLITE_OK) {}

SqlConnection::Transaction::~Transaction() {
    if (!m_begun || hasEnded()) return;
    m_connection.rollBack();
    doubt();
}

bool SqlConnection::Transaction::execute(const std::string& sql, const char* failureText) {
    if (m_connection.execute(sql, failureText) == SQLITE_OK) return true;
    m_connection.rollBack();
    return false;
}

bool SqlConnection::Transaction::commit() {
    if (m_connection.execute("COMMIT", "SQL error (commit): ") == SQLITE_OK) return true;
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
