#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "EventSet.h"
#include "PrunerThreads.h"

struct sqlite3;
class EventPruner;
class SqlStatement;

/// One connection to the event store: an SQLite 3 file (`user_version` 2) with the tables Events,
/// Files, TimeOffsets, OpTimes and Location (docs/database.md).
///
/// Each component owns its own `DB` on the same file, opens it once and uses it from one thread at
/// a time. Every statement sequence of the process runs under the one `m_PruneLock`. Failures are
/// results and error lines; nothing is thrown. A failed statement sets `m_dbError` and the last
/// error text, and a full database calls the callback.
class DB {
  public:
    using EventSet = ::EventSet;

    /// An event on its way into the store.
    struct NewEvent {
        long bootCount = 0;
        long standbyCount = 0;
        long long kernelTime = 0;  ///< milliseconds
        std::string type;
        std::string data;  ///< JSON text
    };

    /// An announced file waiting for upload.
    struct PendingUpload {
        std::string id;
        std::string url;
        int status = 0;
        int retries = 0;
        std::int64_t lastfail = 0;  ///< kernel milliseconds of the last failure, 0 for none
        std::string info;           ///< JSON text or ""
    };

    DB();
    /// Waits for the pruning threads that this object started, then closes the connection.
    ~DB();
    DB(const DB&) = delete;
    DB& operator=(const DB&) = delete;

    /// Opens or creates the file and brings it to the current schema. Only with
    /// `recreateIfUnusable` is a file that is no database deleted and made anew.
    void open(std::string path, bool recreateIfUnusable);
    /// Gives the pages that this connection keeps, and what is free in the heap, back to the
    /// system; for the end of a large job. Costs the next statement a few reads.
    void returnFreeMemory();

    // --- events -------------------------------------------------------------------------------

    /// Stores one event. @return the total event size after it, or the unchanged cached figure
    /// when the insert failed. Above the prune threshold it starts a pruning thread.
    long addEvent(long bootCount, long standbyCount, long long kernelTime, std::string type,
                  std::string data);
    /// Stores events from the front of `events` in one transaction: at most 256, or until the
    /// total passes the prune threshold. What a failed transaction took along is inserted again
    /// one by one. One batch may go ahead of a pruner that waits for the lock, the next one waits
    /// for it: in a flood that makes fewer and larger prunes.
    /// @param taken how many were handled (stored, or failed alone); 0 while another process reads
    /// the file (up to 30 s): then try again
    /// @return as `addEvent` of the last event handled
    long addEvents(const std::vector<NewEvent>& events, std::size_t& taken);
    /// Opens a cursor: over all events, or over those of the oldest cycle.
    EventSet getEvents(bool oneCycleOnly);
    /// Deletes the marked rows of `set`, then trims the per-cycle tables.
    /// @return whether the rows are gone.
    bool deleteMarkedEvents(EventSet set);
    /// Bytes of all events' texts plus one each, plus one; recounted when unknown; -1 when empty.
    long totalEventSize();
    long incrementEventSize(long bytes);
    /// The oldest event's text; "" when there is none.
    std::string getOldestEvent();
    /// The body of a pruning thread: deletes the oldest events until the total is at or below
    /// `limit` and puts one "logging.overflow" event in their place, in one transaction.
    void pruneAboveSize(long limit);

    // --- files, start times, operating times, location ------------------------------------------

    /// UTC milliseconds of kernel time 0 of the cycle by that source; 0 when unknown.
    long long getStartTime(long bootCount, long standbyCount, int source) const;
    long long getStartTime(long bootCount, long standbyCount);
    /// @return 0 on success
    int setStartTime(long bootCount, long standbyCount, int source, long long startTime);
    int setStartTime(long bootCount, long standbyCount, long long startTime);
    int getNumberOfFiles();
    /// The file whose last failure is oldest; null when there is none.
    std::unique_ptr<PendingUpload> getFirstUpload();
    void removeUpload(std::string id);
    void addFile(std::string id, std::string url, std::string info);
    /// Counts a failed attempt, dated now in kernel milliseconds.
    void retryUpload(std::string id);
    void setOpTime(long bootCount, long standbyCount, unsigned int opTime);
    unsigned int getOpTime(long bootCount, long standbyCount) const;
    bool setLocation(double longitude, double latitude, const std::string& ip,
                     const std::string& city, const std::string& region,
                     const std::string& countryCode);
    bool getLocation(double& longitude, double& latitude, std::string& ip, std::string& city,
                     std::string& region, std::string& countryCode) const;
    /// Deletes the rows of cycles that have no stored event, except the newest and the running
    /// cycle.
    void pruneSessionBasedTable(const std::string& table);

    // --- shared state ---------------------------------------------------------------------------

    /// Records the failure of the last statement on this connection. Called with m_PruneLock held.
    void checkErrorCondition(const char* message);

    static void setVerbose(bool verbose);
    static bool getVerbose();
    /// A copy of `m_DBErrorMessage`, taken under the lock.
    static std::string lastErrorMessage();
    /// Replaces `m_dbFullCb` under the lock.
    static void setFullCallback(std::function<void()> callback);

    /// Serialises every statement sequence of the process; guards m_DBErrorMessage and m_dbFullCb.
    static std::recursive_mutex m_PruneLock;
    static std::atomic<std::int32_t> m_TotalEventSize;  ///< bytes; -1: unknown, to be recounted
    static std::atomic<bool> m_dbError;
    static std::string m_DBErrorMessage;
    static std::function<void()> m_dbFullCb;

  private:
    friend struct DBPeer;

    struct CloseConnection {
        void operator()(sqlite3* connection) const;
    };
    using PruneGuard = std::unique_lock<std::recursive_mutex>;
    enum class OnFailure { Record, ReportOnly };

    static int execCallback(void* prefix, int columns, char** values, char** names);
    /// Writes the verbose line "Take lock for <operation>", then takes m_PruneLock.
    static PruneGuard lockFor(const char* operation);

    // Everything below is called with m_PruneLock held, except where it says otherwise.
    bool openConnection(const std::string& path);
    void recreate(const std::string& path);  // deletes the file, opens a new one
    int limitPages();
    int readPragma(const char* pragma) const;
    void createTables();
    void migrate();
    void setUserVersion();

    /// Runs `sql`; a failure gets its line and, unless told otherwise, is recorded.
    /// @return SQLite's result code
    int execute(const std::string& sql, const char* failureText,
                OnFailure onFailure = OnFailure::Record);
    void reportFailure(const char* failureText, const char* message, OnFailure onFailure);
    class Transaction;
    bool executeOrRollBack(const std::string& sql, const char* failureText);
    void rollBack();
    std::string lastErrorOfConnection() const;

    long storeEvent(const NewEvent& event);  // without the lock, or with it
    bool insertEvent(const NewEvent& event);
    bool refuseQuotedEvent(const std::string& statement);
    bool storeInOneTransaction(const std::vector<NewEvent>& events, bool ahead, std::size_t& taken,
                               long& total);
    void storeSingly(const std::vector<NewEvent>& events, std::size_t count, long& total);
    bool batchCanWait();
    long sizeThatEndsABatch(bool ahead);
    long recountedSize();
    void startPrunerAbove(long total);  // without the lock

    bool replaceOldestEvents(long limit);
    void replaceByOverflowEvent(const EventPruner& victims);

    bool hasRow(SqlStatement& query, const char* table) const;
    std::int64_t readNumber(SqlStatement& query, const char* table) const;  // 0 without a row

    std::string m_path;
    bool m_busy = false;  ///< whether the last statement met another process's lock
    /// When that began to hold batches up; none while they pass.
    std::optional<std::chrono::steady_clock::time_point> m_busySince;
    std::unique_ptr<sqlite3, CloseConnection> m_connection;
    std::int32_t m_maxDatabaseSize = 3145728;  ///< bytes
    std::int32_t m_pruneThreshold = 131072;    ///< bytes of events above which an insert prunes
    std::int32_t m_pruneTarget = 94208;        ///< bytes of events that pruning leaves
    PrunerThreads m_pruners;                   ///< gone first: they use what is above
};
