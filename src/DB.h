#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <cstddef>
#include <cstdint>

#include "EventSet.h"
#include "EventTable.h"
#include "FilesTable.h"
#include "SqlConnection.h"

class SqlStatement;

/// The event store: an SQLite 3 file (`user_version` 2) with the tables Events, Files, TimeOffsets,
/// OpTimes and Location (docs/database.md). It opens the file, again where that failed, has it
/// replaced when it is damaged, keeps the small tables of cycles and place, and what all stores of
/// the process share. `EventTable` keeps the events, `FilesTable` the announced files.
///
/// Each component owns its own `DB` on the same file and opens it once. Any thread may call it, and
/// two share the gateway's: each operation, on any `DB` of the process, takes the one
/// `m_PruneLock`, so they take turns. Only the reading of an `EventSet`, on a connection of its
/// own, goes without. All calls must have returned before a `DB` is destroyed.
///
/// Failures are results and error lines; nothing is thrown. A failed statement sets `m_dbError` and
/// the last error text, and a full database calls the callback. A store that could not be opened,
/// lacks tables, or is stuck is opened again by the next operation, at most once in 5 s. A damaged
/// one is put aside by the next operation that no cursor is in the way of, as `StoreRescue` says.
class DB {
  public:
    using EventSet = ::EventSet;
    using NewEvent = EventTable::NewEvent;

    /// What one call of `addEvents` stores at most.
    static constexpr std::size_t kMostEventsOfABatch = EventTable::kMostEventsOfABatch;

    using PendingUpload = FilesTable::PendingUpload;

    DB();
    /// Waits for the pruning threads that this object started, then closes the connection.
    ~DB();
    DB(const DB&) = delete;
    DB& operator=(const DB&) = delete;

    /// Opens or creates the file and brings it to the current schema. Only with
    /// `recreateIfUnusable` is the whole file looked through, and one that is damaged or is not a
    /// database put aside at once; otherwise the next operation does it.
    void open(std::string path, bool recreateIfUnusable);
    /// The file that was to be opened last; "" before.
    const std::string& path() const { return m_connection.path(); }
    /// Gives the pages that this connection keeps, and what is free in the heap, back to the
    /// system; for the end of a large job. Costs the next statement a few reads.
    void returnFreeMemory();

    // --- events -------------------------------------------------------------------------------

    /// Stores one event. @return the total event size after it, or the unchanged cached figure
    /// when the insert failed. Above the prune threshold it starts a pruning thread.
    long addEvent(long bootCount, long standbyCount, long long kernelTime, std::string type,
                  std::string data);
    /// Stores events from the front of `events` in one transaction: at most a batch, or until the
    /// total passes the prune threshold. What a failed transaction took along is inserted again one
    /// by one. One batch may go ahead of a pruner that waits for the lock, the next one waits for
    /// it: in a flood that makes fewer and larger prunes.
    /// @param taken how many were handled: stored, or failed for a reason of their own. The others
    /// stay the caller's. 0 with events given: the store fails now (it is full, locked, not
    /// writable, not open, damaged) and may work later: keep them and try again
    /// @return as `addEvent` of the last event handled
    long addEvents(const std::vector<NewEvent>& events, std::size_t& taken);
    /// Stores one "logging.overflow" event that names `range`, at its lowest moment, for events
    /// that were dropped before they came here. May start a pruning thread.
    /// @return false when the store fails
    bool addOverflowEvent(const EventPruner::Range& range);
    /// Asks the store whether it works: writes a row and takes it back. When it does, the error
    /// flag is cleared; otherwise the failure is recorded like any other.
    bool works();
    /// Opens a cursor: over all events, or over those of the oldest cycle.
    EventSet getEvents(bool oneCycleOnly);
    /// Deletes the marked rows of `set`, then trims the per-cycle tables. Marks hold over the
    /// replacement of a damaged store, too.
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
    /// @return whether the row is gone, also when there was none
    bool removeUpload(std::string id);
    /// @return whether there is surely no such row
    bool isUploadGone(const std::string& id);
    /// Registers an announced file. At most `FilesTable::kMostRows` of them, `kMostBytes` together,
    /// are kept: a new one pushes out those that were announced first. An info above `kLongestInfo`
    /// is refused. @return whether it is registered
    bool addFile(std::string id, std::string url, std::string info);
    /// The same for those who keep what the store does not take now. It waits for no other
    /// process's lock.
    FilesTable::Outcome registerFile(const FilesTable::Announcement& file);
    /// The same. It waits for no other thread either, and opens no store.
    FilesTable::Outcome registerFileAtOnce(const FilesTable::Announcement& file);
    /// Counts a failed attempt, dated now in kernel milliseconds.
    void retryUpload(std::string id);
    void setOpTime(long bootCount, long standbyCount, unsigned int opTime);
    unsigned int getOpTime(long bootCount, long standbyCount) const;
    /// Waits for no other process's lock. A failure that comes again has one line.
    bool setLocation(double longitude, double latitude, const std::string& ip,
                     const std::string& city, const std::string& region,
                     const std::string& countryCode);
    bool getLocation(double& longitude, double& latitude, std::string& ip, std::string& city,
                     std::string& region, std::string& countryCode) const;
    /// Deletes the rows of cycles that have no stored event, except the newest and the running
    /// cycle. With nothing to delete it does not write.
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

    /// Serialises the statement sequences of all `DB`s of the process; guards m_DBErrorMessage and
    /// m_dbFullCb.
    static std::recursive_mutex m_PruneLock;
    static std::atomic<std::int32_t> m_TotalEventSize;  ///< bytes; -1: unknown, to be recounted
    static std::atomic<bool> m_dbError;
    static std::string m_DBErrorMessage;
    static std::function<void()> m_dbFullCb;

  private:
    friend struct DBPeer;

    using Guard = std::lock_guard<std::recursive_mutex>;
    using Turn = EventTable::Turn;
    using Clock = std::chrono::steady_clock;

    /// Writes the verbose line "Take lock for <operation>", then takes m_PruneLock and makes the
    /// store ready.
    Turn lockFor(const char* operation) const;
    bool openConnection(const std::string& path);

    // Everything below is called with m_PruneLock held.
    void makeReady();  // opens again, or has replaced, what should be
    bool shouldOpenAgain() const;
    bool isReady() const;
    void setUp(bool recreateIfUnusable);
    void makeNewIdentity();
    bool replaceDamagedFile();
    bool hasRow(SqlStatement& query, const char* table) const;
    std::int64_t readNumber(SqlStatement& query, const char* table) const;  // 0 without a row

    /// A damaged store was replaced, and nobody has asked the store yet whether it works: until
    /// then success does not clear m_dbError.
    static std::atomic<bool> m_damageUnreported;
    static bool m_hasUncommittedIdentity;  ///< made for a new file that is not there yet

    std::int32_t m_maxDatabaseSize = 3145728;  ///< bytes
    SqlConnection m_connection;
    bool m_isComplete = false;       ///< the last opening succeeded, tables included
    Clock::time_point m_openedLast;  ///< or tried to
    const std::function<void()> m_makeReady{[this] { makeReady(); }};
    std::string m_locationFailure;  ///< of the last attempt; "" when it worked
    FilesTable m_files;
    EventTable m_events;  ///< gone first: its threads use the connection
};
