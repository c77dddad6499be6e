#include "StoreSchema.h"

#include "SqlFiles.h"
#include "SqlStatement.h"

#include <chrono>

#include <unistd.h>

#include <sqlite3.h>

namespace {

using OnFailure = SqlConnection::OnFailure;

constexpr ClassLog& s_log = SqlConnection::m_log;

/// For looking through a file of 3 MiB it takes a tenth of that; a file that may be anything must
/// not hold up the start for longer.
constexpr auto kLongestLook = std::chrono::milliseconds(500);

struct Table {
    const char* createdName;
    const char* failureText;
    const char* statement;
    const char* insertion;  ///< never run: what can be prepared finds all that it names
};

constexpr Table kTables[] = {
    {"Event", "SQL error (create Events table): ",
     "CREATE TABLE IF NOT EXISTS Events(bootCount INT, standbyCount INT, kernelTime INT, "
     "type TEXT, status INT, data BLOB);",
     "INSERT INTO Events(bootCount,standbyCount,kernelTime,type,status,data) "
     "VALUES(?,?,?,?,?,?)"},
    {"Files", "SQL error (create Files table): ",
     "CREATE TABLE IF NOT EXISTS Files(id TEXT PRIMARY KEY, url TEXT, status INT, retries INT, "
     "lastfail INT, info BLOB);",
     "INSERT INTO Files(id,url,status,retries,lastfail,info) VALUES(?,?,?,?,?,?)"},
    {"TimeOffsets", "SQL error (create TimeOffsets table): ",
     "CREATE TABLE IF NOT EXISTS TimeOffsets(bootCount INT, standbyCount INT, source INT, "
     "startTime INT, status INT, PRIMARY KEY(bootCount,standbyCount,source));",
     "INSERT INTO TimeOffsets(bootCount,standbyCount,source,startTime,status) VALUES(?,?,?,?,?)"},
    {"OpTimes", "SQL error (create OpTimes table): ",
     "CREATE TABLE IF NOT EXISTS OpTimes(bootCount INT, standbyCount INT, opTime INT, "
     "PRIMARY KEY(bootCount, standbyCount))",
     "INSERT INTO OpTimes(bootCount,standbyCount,opTime) VALUES(?,?,?)"},
    {"Location", "SQL error (create Location table): ",
     "CREATE TABLE IF NOT EXISTS Location(id INT PRIMARY KEY, longitude REAL, latitude REAL, "
     "IP TEXT, city TEXT, region TEXT, countryCode TEXT)",
     "INSERT INTO Location(id,longitude,latitude,IP,city,region,countryCode) "
     "VALUES(?,?,?,?,?,?,?)"},
};

}  // namespace

void StoreSchema::limitPages(std::int32_t maxBytes) {
    // A page size that cannot be read leaves 0, which SQLite takes as no new limit; the statement
    // runs all the same, because it is the one that finds a file unusable.
    const int pageSize = m_connection.readPragma("PRAGMA page_size");
    const int pages = pageSize > 0 ? (maxBytes + pageSize - 1) / pageSize : 0;
    m_connection.execute("PRAGMA max_page_count = " + std::to_string(pages),
                         "SQL error (max_page_count): ", OnFailure::ReportOnly);
}

std::string StoreSchema::findDamage() {
    const auto end = std::chrono::steady_clock::now() + kLongestLook;
    m_connection.runWhile([end] { return std::chrono::steady_clock::now() < end; });
    std::string finding;
    {
        SqlStatement check = m_connection.prepare("PRAGMA integrity_check(1)");
        if (check.step() == SQLITE_ROW) finding = check.columnText(0);
    }
    m_connection.runWhile(nullptr);
    if (finding == "ok") return isReadOnlyByItsHeader() ? "its header forbids writing" : "";
    if (finding.empty() && m_connection.foundDamage()) return m_connection.lastError();
    return finding;
}

/// A header of a later format is for reading only. Nobody but damage writes one here.
bool StoreSchema::isReadOnlyByItsHeader() const {
    // Not opened to see: closing it would end the locks of all connections of the process.
    return m_connection.isReadOnly() && ::access(m_connection.file().c_str(), W_OK) == 0;
}

bool StoreSchema::bringUpToDate(const std::function<void()>& onNewFile) {
    const std::optional<int> version = readVersion();
    if (!version) {
        createTables();  // each says what it thinks of the file
        s_log.error("SQL error (user_version): ", ClassLog::foreign(m_connection.lastError()));
        return false;
    }
    if (*version == kVersion) return createTables() && hasItsColumns();
    SqlConnection::Transaction making(m_connection, "BEGIN IMMEDIATE TRANSACTION", {},
                                      OnFailure::ReportOnly);
    if (!making.hasBegun()) return false;
    const std::optional<int> lockedVersion = readVersion();  // somebody may have been faster
    if (!createTables() || !lockedVersion) return false;
    migrate(*lockedVersion, onNewFile);
    return !making.hasEnded() && making.commit() && hasItsColumns();
}

/// A flipped bit in the text of a table leaves a file that is sound by itself, and that takes no
/// row any more.
bool StoreSchema::hasItsColumns() {
    for (const Table& table : kTables) {
        if (m_connection.prepare(table.insertion).isPrepared()) continue;
        if (m_connection.lastErrorCode() != SQLITE_ERROR) continue;  // it says nothing of the text
        s_log.error("Database ", m_connection.file(),
                    " is damaged: ", ClassLog::foreign(m_connection.lastError()));
        SqlFiles::noteDamage(m_connection.file());
        return false;
    }
    return true;
}

bool StoreSchema::make() {
    const bool made = createTables();
    setVersion();
    return made;
}

std::optional<int> StoreSchema::readVersion() {
    SqlStatement version = m_connection.prepare("PRAGMA user_version");
    if (version.step() != SQLITE_ROW) return std::nullopt;
    return static_cast<int>(version.columnInt64(0));
}

/// @return false when a table failed for a reason that may pass
bool StoreSchema::createTables() {
    bool done = true;
    for (const Table& table : kTables) {
        if (m_connection.execute(table.statement, table.failureText, OnFailure::ReportOnly) ==
            SQLITE_OK) {
            s_log.info("Table ", table.createdName, " created successfully");
        } else if (m_connection.failedForNow()) {
            done = false;
        }
    }
    return done;
}

void StoreSchema::migrate(int version, const std::function<void()>& onNewFile) {
    if (version == kVersion) return;
    if (version == 0) onNewFile();
    if (version == 1) {
        m_connection.execute("ALTER TABLE Files ADD COLUMN info BLOB;",
                             "SQL error (ALTER TABLE Files): ", OnFailure::ReportOnly);
    }
    setVersion();
}

void StoreSchema::setVersion() {
    m_connection.execute("PRAGMA user_version = " + std::to_string(kVersion),
                         "SQL error (user_version): ", OnFailure::ReportOnly);
}
