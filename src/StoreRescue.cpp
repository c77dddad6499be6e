#include "StoreRescue.h"

#include "ClassLog.h"
#include "Descriptor.h"
#include "JsonObject.h"
#include "SqlConnection.h"
#include "SqlResult.h"
#include "SqlStatement.h"
#include "StoreSchema.h"

#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/// For all that is read. A full store takes a tenth of a second on a fast machine; on a slow or
/// busy one its sound rows must not be lost for want of time.
constexpr auto kLongestReading = std::chrono::seconds(5);
constexpr auto kBetweenAttempts = std::chrono::seconds(5);
/// A store that is damaged again so soon is not carried over again.
constexpr auto kSoon = std::chrono::minutes(1);

constexpr std::size_t kRowsBetweenLooks = 8;  ///< at the size of the new file
constexpr std::int64_t kPagesLeft = 4;        ///< in the new file, for the rows between two looks

constexpr const char* kSideFiles[] = {"-wal", "-shm", "-journal"};

/// @return false, with errno, when one is left
bool removeSideFiles(const std::string& file) {
    for (const char* suffix : kSideFiles) {
        if (::unlink((file + suffix).c_str()) != 0 && errno != ENOENT) return false;
    }
    return true;
}

std::string wholeName(const std::string& file) {
    return file + ".rescued";
}

bool syncDirectoryOf(const std::string& file) {
    const std::size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const Descriptor entry(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return entry.isOpen() && (::fsync(entry.get()) == 0 || errno == EINVAL);
}

/// What keeps the whole file from being read at the moment, as another process's lock does; "" when
/// nothing or damage does. The schema would not tell: what is wrong with it is overlooked.
std::string whyUnreadableNow(const SqlConnection& source) {
    SqlStatement probe = source.prepare("PRAGMA user_version");
    const int code = probe.isPrepared() ? probe.step() : source.lastErrorCode();
    return SqlResult::mayPass(code) && !SqlResult::isDamage(code) ? source.lastError() : "";
}

/// Whether the value is of the kind that a column has: 'i' integer, 'r' real, 't' text, 'j' a JSON
/// object as text, 'o' the same or nothing.
bool isOfKind(const SqlStatement& row, int column, char kind) {
    const int type = row.columnType(column);
    switch (kind) {
        case 'i':
            return type == SQLITE_INTEGER;
        case 'r':
            return type == SQLITE_FLOAT;
        case 't':
            return type == SQLITE_TEXT;
        case 'o':
            if (type == SQLITE_NULL) return true;
            [[fallthrough]];
        default:
            return type == SQLITE_TEXT && JsonObject::parse(row.columnText(column)).isObject();
    }
}

}  // namespace

/// What is carried over of a table.
struct StoreRescue::Kept {
    const char* table;
    const char* columns;
    const char* olderColumns;  ///< for a file of version 1, that lacks one; null: the same
    const char* kinds;         ///< one letter for each column
    std::size_t mostRows;
    std::size_t Result::*counter;  ///< null for the events
};

StoreRescue::History& StoreRescue::history() {
    static History all;
    return all;
}

/// The rows of one table in the order of their ROWIDs, past the places that cannot be read.
class StoreRescue::Reader {
  public:
    Reader(const SqlConnection& source, const Kept& table)
        : m_source(source), m_rows(prepare(table.table, table.columns)) {
        if (!m_rows.isPrepared() && table.olderColumns != nullptr) {
            m_rows = prepare(table.table, table.olderColumns);
        }
        if (m_rows.isPrepared()) return;
        // With a damaged name of a column its place tells which it is.
        SqlStatement byPlace = prepare(table.table, "*");
        const std::string kinds = table.kinds;
        if (byPlace.columnCount() == static_cast<int>(kinds.size()) + 1)
            m_rows = std::move(byPlace);
    }

    /// The row that the reading stands on. @return false at the end, and when `problem` is set
    bool next() {
        if (!m_rows.isPrepared()) return hasNoRows();
        while (true) {
            const int code = m_reading ? m_rows.step() : seek(m_next);
            m_reading = true;
            // A damaged tree may lead back to where the reading has been.
            const bool goesOn = code == SQLITE_ROW && m_rows.columnInt64(0) >= m_next;
            if (goesOn && m_rows.columnInt64(0) == kLast) return false;
            if (goesOn) {
                m_next = m_rows.columnInt64(0) + 1;
                return true;
            }
            if (code != SQLITE_ROW && !isDamagedPlace(code)) return ends(code);
            if (!skipDamage()) return false;
        }
    }
    SqlStatement& row() { return m_rows; }
    /// Why nothing more can be read though it may be there.
    const std::string& problem() const { return m_problem; }

  private:
    static constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();

    SqlStatement prepare(const char* table, const char* columns) const {
        return m_source.prepare(std::string("SELECT ROWID,") + columns + " FROM " + table +
                                " NOT INDEXED WHERE ROWID>=? ORDER BY ROWID");
    }
    static bool isDamagedPlace(int code) {
        return SqlResult::isDamage(code) || code == SQLITE_IOERR || code == SQLITE_TOOBIG;
    }
    /// A table that is not there, or whose root cannot be understood.
    bool hasNoRows() {
        const int code = m_source.lastErrorCode();
        if (SqlResult::mayPass(code) && !SqlResult::isDamage(code))
            m_problem = m_source.lastError();
        return false;
    }
    bool ends(int code) {
        if (SqlResult::mayPass(code)) m_problem = m_source.lastError();
        return false;
    }
    int seek(std::int64_t row) {
        m_rows.resetAndClear();
        m_rows.bind(1, row);
        return m_rows.step();
    }
    bool isReadableFrom(std::int64_t row) {
        const int code = seek(row);
        return code == SQLITE_DONE || (code == SQLITE_ROW && m_rows.columnInt64(0) >= row);
    }
    /// Moves `m_next` to the first ROWID past a place that cannot be read: with growing steps, and
    /// then back to where that place ends. @return false when there is none
    bool skipDamage() {
        std::int64_t bad = m_next;
        std::int64_t good = 0;
        for (std::int64_t step = 1; good == 0; step *= 2) {
            if (step > kLast / 4 || m_next > kLast - step) return false;
            if (isReadableFrom(m_next + step))
                good = m_next + step;
            else
                bad = m_next + step;
        }
        while (good - bad > 1) {
            const std::int64_t middle = bad + (good - bad) / 2;
            (isReadableFrom(middle) ? good : bad) = middle;
        }
        m_next = good;
        m_reading = false;
        return true;
    }

    const SqlConnection& m_source;
    SqlStatement m_rows;
    std::int64_t m_next = 1;
    bool m_reading = false;
    std::string m_problem;
};

StoreRescue::StoreRescue(std::string file, std::int32_t maxBytes)
    : m_file(std::move(file)),
      m_newFile(m_file + ".new"),
      m_wholeFile(wholeName(m_file)),
      m_maxBytes(maxBytes) {}

bool StoreRescue::isDue(const std::string& file) {
    const std::lock_guard<std::mutex> lock(history().mutex);
    const auto& tried = history().times[file].tried;
    return !tried || Clock::now() - *tried >= kBetweenAttempts;
}

StoreRescue::Result StoreRescue::run() {
    const Clock::time_point now = Clock::now();
    bool again = false;
    {
        const std::lock_guard<std::mutex> lock(history().mutex);
        History::Times& times = history().times[m_file];
        again = times.replaced && now - *times.replaced < kSoon;
        times.tried = now;
    }
    m_deadline = now + kLongestReading;
    ::unlink(m_newFile.c_str());  // left by a power cut
    removeSideFiles(m_newFile);
    if (!again) carryOver();
    if (!failed() && m_result.isEmpty()) makeEmptyFile();
    if (!failed()) finishNewFile();
    if (!failed()) exchange();
    if (failed()) {
        ::unlink(m_newFile.c_str());
        return std::move(m_result);
    }
    const std::lock_guard<std::mutex> lock(history().mutex);
    history().times[m_file].replaced = Clock::now();
    return std::move(m_result);
}

void StoreRescue::fail(const char* action) {
    const int reason = errno;
    if (!failed()) {
        m_result.problem = std::string("cannot ") + action + ": " + ClassLog::errnoText(reason);
    }
}

// --- carrying over --------------------------------------------------------------------------

void StoreRescue::carryOver() {
    static constexpr Kept kTables[] = {
        {"Location", "id,longitude,latitude,IP,city,region,countryCode", nullptr, "irrtttt", 1,
         &Result::otherRows},
        {"OpTimes", "bootCount,standbyCount,opTime", nullptr, "iii", 4096, &Result::otherRows},
        {"TimeOffsets", "bootCount,standbyCount,source,startTime,status", nullptr, "iiiii", 4096,
         &Result::otherRows},
        {"Files", "id,url,status,retries,lastfail,info", "id,url,status,retries,lastfail,NULL",
         "ttiiio", 256, &Result::files},
        {"Events", "bootCount,standbyCount,kernelTime,type,status,data", nullptr, "iiitij", 20000,
         nullptr},
    };
    using Purpose = SqlConnection::Purpose;
    SqlConnection source;
    SqlConnection copy;
    // Left by an exchange that failed at its last step, when the old log was gone already.
    const bool isWhole = ::access(m_wholeFile.c_str(), F_OK) == 0;
    const std::string& from = isWhole ? m_wholeFile : m_file;
    m_result.problem = source.open(from, SqlConnection::OnLock::Wait, Purpose::Salvage);
    if (failed()) return;
    m_result.problem = copy.open(m_newFile, SqlConnection::OnLock::Fail, Purpose::Copy);
    if (failed()) return;
    m_result.problem = whyUnreadableNow(source);
    if (failed()) return;
    source.runWhile([this] { return isInTime(); });
    StoreSchema schema(copy);
    SqlConnection::Transaction carrying(copy, "BEGIN");
    if (!schema.make()) m_result.problem = copy.lastError();
    for (const Kept& table : kTables) {
        if (!failed()) carry(source, copy, table);
    }
    if (failed() || (!carrying.hasEnded() && carrying.commit())) return;
    m_result.problem = "cannot write the new file: " + copy.lastError();
}

void StoreRescue::carry(const SqlConnection& source, SqlConnection& copy, const Kept& table) {
    const std::string kinds = table.kinds;
    std::string sql = std::string("INSERT OR IGNORE INTO ") + table.table + "(ROWID," +
                      table.columns + ") VALUES(?";
    for (std::size_t i = 0; i < kinds.size(); ++i) sql += ",?";
    SqlStatement insert = copy.prepare(sql + ")");
    Reader reader(source, table);
    for (std::size_t rows = 0; rows < table.mostRows && isInTime() && reader.next();) {
        if (rows % kRowsBetweenLooks == 0 && !hasRoom(copy)) break;
        SqlStatement& row = reader.row();
        bool sound = true;
        for (std::size_t i = 0; sound && i < kinds.size(); ++i) {
            sound = isOfKind(row, static_cast<int>(i + 1), kinds[i]);
        }
        if (!sound) continue;
        for (int i = 0; i <= static_cast<int>(kinds.size()); ++i) insert.bindColumn(i + 1, row, i);
        const int code = insert.step();
        insert.resetAndClear();
        if (code != SQLITE_DONE) break;  // the commit tells why
        ++rows;
        if (table.counter != nullptr)
            ++(m_result.*table.counter);
        else
            m_result.eventRows.push_back(row.columnInt64(0));
    }
    if (!reader.problem().empty()) m_result.problem = reader.problem();
}

/// Asked beforehand: SQLite takes the whole transaction back where its own limit is met.
bool StoreRescue::hasRoom(const SqlConnection& copy) const {
    const auto pages = static_cast<std::int64_t>(copy.readPragma("PRAGMA page_count"));
    return (pages + kPagesLeft) * copy.readPragma("PRAGMA page_size") <= m_maxBytes;
}

// --- files ----------------------------------------------------------------------------------

/// The next opening makes it a new store.
void StoreRescue::makeEmptyFile() {
    const Descriptor file(
        ::open(m_newFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!file.isOpen()) fail("make a new file");
}

/// The new file gets the owner and the mode of the old one, and is on the disk.
void StoreRescue::finishNewFile() {
    const Descriptor file(::open(m_newFile.c_str(), O_RDWR | O_CLOEXEC));
    if (!file.isOpen()) return fail("open the new file");
    struct stat old {};
    if (::stat(m_file.c_str(), &old) == 0) {
        if (::fchown(file.get(), old.st_uid, old.st_gid) != 0) {
            // Only root may give files away; readers go by the mode.
        }
        if (::fchmod(file.get(), old.st_mode & 0777) != 0) return fail("set the new file's mode");
    }
    if (::fsync(file.get()) != 0) fail("sync the new file");
}

/// In an order in which each step may be the last before a power cut.
void StoreRescue::exchange() {
    declareWhole();
    if (!failed()) putAside();
    if (failed()) {
        ::unlink(m_wholeFile.c_str());  // the old file is in its place, with its log
        return;
    }
    m_result.problem = finish(m_file);
}

/// From here on the new file is the store.
void StoreRescue::declareWhole() {
    if (::rename(m_newFile.c_str(), m_wholeFile.c_str()) != 0) return fail("name the new file");
    if (!syncDirectoryOf(m_file)) fail("sync the directory");
}

std::string StoreRescue::finish(const std::string& path) {
    std::error_code error;
    const fs::path plain = fs::weakly_canonical(fs::absolute(path, error), error);
    const std::string file = error ? path : plain.string();
    const std::string whole = wholeName(file);
    if (::access(whole.c_str(), F_OK) != 0) return "";
    const auto problem = [](const char* action) {
        return std::string("cannot ") + action + ": " + ClassLog::errnoText(errno);
    };
    // What is in them would be taken for the new file's.
    if (!removeSideFiles(file)) return problem("remove the old log");
    if (::rename(whole.c_str(), file.c_str()) != 0) return problem("put the new file in its place");
    syncDirectoryOf(file);  // where that fails a power cut may leave this to be done again
    return "";
}

/// By a second name where the file system has such: then there is a store at every moment.
void StoreRescue::putAside() {
    const std::string damaged = damagedName(m_file);
    const std::string second = damaged + ".new";
    ::unlink(second.c_str());
    const bool linked = ::link(m_file.c_str(), second.c_str()) == 0;
    const std::string& from = linked ? second : m_file;
    if (::rename(from.c_str(), damaged.c_str()) != 0) fail("put it aside");
    // Still there also where a power cut left both names to one file: then nothing was renamed.
    if (linked) ::unlink(second.c_str());
}
