#include "StoreReader.h"

#include <fstream>
#include <functional>
#include <memory>

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

constexpr int kPatienceMs = 20;
constexpr int kTries = 3;

struct Close {
    void operator()(sqlite3* store) const { sqlite3_close(store); }
};
using Store = std::unique_ptr<sqlite3, Close>;
struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;
using Row = std::function<void(sqlite3_stmt*)>;

/// The path as a URI may name it.
std::string escaped(const std::string& path) {
    std::string text;
    for (const char c : path) {
        if (c == '%' || c == '?' || c == '#') {
            constexpr const char* digits = "0123456789ABCDEF";
            const auto byte = static_cast<unsigned char>(c);
            text += {'%', digits[byte >> 4], digits[byte & 15]};
        } else {
            text += c;
        }
    }
    return text;
}

bool isThere(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/// Whether the file's header says that it has a log.
bool hasLog(const std::string& path) {
    constexpr std::size_t versionAt = 18;
    char header[versionAt + 1] = "";
    std::ifstream(path, std::ios::binary).read(header, sizeof header);
    return header[versionAt] == 2;
}

/// A log is read through the index that is there, which is not touched. Where one of the two is
/// missing, SQLite would make it, so the file is read alone, as the last checkpoint left it. A file
/// that has no log, and may be written to meanwhile, takes a reader's lock.
const char* modeFor(const std::string& path, bool daemonRuns) {
    if (isThere(path + "-shm") && isThere(path + "-wal")) return "?mode=ro&readonly_shm=1";
    return daemonRuns && !hasLog(path) ? "?mode=ro" : "?immutable=1";
}

Store openStore(const std::string& path, const char* mode, std::string& error) {
    sqlite3* handle = nullptr;
    const std::string name = "file:" + escaped(path) + mode;
    const int result =
        sqlite3_open_v2(name.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    Store store(handle);
    if (result != SQLITE_OK) {
        error = handle == nullptr ? sqlite3_errstr(result) : sqlite3_errmsg(handle);
        return nullptr;
    }
    sqlite3_busy_timeout(handle, kPatienceMs);
    return store;
}

/// @return SQLite's result: SQLITE_DONE when all rows were given to `take`
int each(sqlite3* store, const char* sql, const Row& take) {
    sqlite3_stmt* prepared = nullptr;
    const int result = sqlite3_prepare_v2(store, sql, -1, &prepared, nullptr);
    const Statement statement(prepared);
    if (result != SQLITE_OK) return result;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(prepared)) == SQLITE_ROW) take(prepared);
    return step;
}

std::string textOf(sqlite3_stmt* row, int column) {
    const unsigned char* text = sqlite3_column_text(row, column);
    return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

/// No index may be changed, and this one has no mark that fits: the next transaction of the daemon
/// sets one.
bool mayPass(int result) {
    return (result & 0xff) == SQLITE_BUSY || result == SQLITE_READONLY_CANTLOCK ||
           result == SQLITE_READONLY_RECOVERY;
}

}  // namespace

StoreReader::StoreReader(const std::string& path, std::int64_t boot, std::int64_t standby,
                         bool daemonRuns) {
    struct stat facts = {};
    if (stat(path.c_str(), &facts) != 0) {
        missing = errno == ENOENT;
        error = strerror(errno);
        return;
    }
    fileBytes = facts.st_size;
    const char* mode = modeFor(path, daemonRuns);
    for (int tries = 0; tries < kTries; ++tries) {
        error.clear();
        const Store store = openStore(path, mode, error);
        if (!store) return;
        read(store.get(), boot, standby);
        if (error.empty() || !mayPass(sqlite3_extended_errcode(store.get()))) return;
        // Last, as any reader does: that may set a mark in the index.
        if (tries == kTries - 2 && daemonRuns) mode = "?mode=ro";
    }
}

void StoreReader::read(sqlite3* store, std::int64_t boot, std::int64_t standby) {
    types.clear();
    files.clear();
    events = 0;
    bytes = 1;
    const auto query = [&](const char* sql, const Row& take) {
        if (error.empty() && each(store, sql, take) != SQLITE_DONE) error = sqlite3_errmsg(store);
    };
    if (sqlite3_exec(store, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(store);
        return;
    }
    query("SELECT type,COUNT(*),SUM(length(data)+1) FROM Events GROUP BY type ORDER BY 2 DESC,1",
          [this](sqlite3_stmt* row) {
              types.push_back(
                  {textOf(row, 0), sqlite3_column_int64(row, 1), sqlite3_column_int64(row, 2)});
              events += types.back().events;
              bytes += types.back().bytes;
          });
    query(
        "SELECT bootCount,standbyCount,kernelTime FROM Events "
        "ORDER BY bootCount,standbyCount,kernelTime LIMIT 1",
        [this](sqlite3_stmt* row) {
            oldest = {sqlite3_column_int64(row, 0), sqlite3_column_int64(row, 1),
                      sqlite3_column_int64(row, 2)};
        });
    query("SELECT id,url,retries FROM Files ORDER BY ROWID", [this](sqlite3_stmt* row) {
        files.push_back({textOf(row, 0), textOf(row, 1), sqlite3_column_int64(row, 2)});
    });
    const std::string times =
        "SELECT source,startTime FROM TimeOffsets WHERE bootCount=" +
        std::to_string(static_cast<std::int32_t>(boot)) +
        " AND standbyCount=" + std::to_string(static_cast<std::int32_t>(standby));
    query(times.c_str(), [this](sqlite3_stmt* row) {
        (sqlite3_column_int64(row, 0) == 1 ? webStart : systemStart) = sqlite3_column_int64(row, 1);
    });
}

std::string StoreReader::integrity(const std::string& path, bool daemonRuns) {
    std::string error;
    const Store store = openStore(path, modeFor(path, daemonRuns), error);
    if (!store) return error;
    std::string answer;
    const int result = each(store.get(), "PRAGMA integrity_check(1)",
                            [&answer](sqlite3_stmt* row) { answer = textOf(row, 0); });
    return result == SQLITE_DONE ? answer : sqlite3_errmsg(store.get());
}
