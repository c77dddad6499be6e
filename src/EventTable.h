#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <cstddef>
#include <cstdint>

#include "Cycle.h"
#include "EventSet.h"
#include "PrunerThreads.h"

class EventPruner;
class SqlConnection;

/// The rows of the Events table on one connection: insert, batches, the total size, deletion,
/// pruning; and the trimming of the per-cycle tables to the cycles that have events.
///
/// It does not open the connection and does not make the table. A part of `DB`, which hands in the
/// connection and what all stores of the process share; both outlive it. Any thread may call it:
/// each operation takes the prune lock. Failures are results and error lines; nothing is thrown
/// but what the writing of a verbose line throws.
class EventTable {
  public:
    /// An event on its way into the store.
    struct NewEvent {
        long bootCount = 0;
        long standbyCount = 0;
        long long kernelTime = 0;  ///< milliseconds
        std::string type;
        std::string data;  ///< JSON text
    };

    /// What all stores of the process share.
    struct Shared {
        std::recursive_mutex& lock;            ///< the prune lock
        std::atomic<std::int32_t>& totalSize;  ///< bytes of events; -1: unknown, to be recounted
        std::atomic<bool>& failed;             ///< the error flag
    };

    static constexpr std::size_t kMostEventsOfABatch = 256;

    EventTable(SqlConnection& connection, const Shared& shared);
    /// Waits for the pruning threads, like `waitForPruners`.
    ~EventTable() = default;
    EventTable(const EventTable&) = delete;
    EventTable& operator=(const EventTable&) = delete;

    /// Stores one event. @return the total size after it, or the unchanged cached figure when the
    /// insert failed. Above the prune threshold it starts a pruning thread.
    long addEvent(NewEvent event);
    /// Stores events from the front of `events` in one transaction, as `DB::addEvents` says.
    long addEvents(const std::vector<NewEvent>& events, std::size_t& taken);
    /// Opens a cursor: over all events, or over those of the oldest cycle.
    EventSet getEvents(bool oneCycleOnly);
    /// Deletes the marked rows of `set`, then trims the per-cycle tables.
    /// @return whether the rows are gone.
    bool deleteMarkedEvents(const EventSet& set);
    /// Bytes of all events' texts plus one each, plus one; recounted when unknown; -1 when empty.
    long totalEventSize();
    long incrementEventSize(long bytes);
    /// The oldest event's text; "" when there is none.
    std::string getOldestEvent();
    /// Deletes the oldest events until the total is at or below `limit` and puts one
    /// "logging.overflow" event in their place, in one transaction; then trims the per-cycle
    /// tables. What a pruning thread does.
    void pruneAboveSize(long limit);
    /// Deletes the rows of cycles that have no stored event, except the newest and the running
    /// cycle.
    void pruneSessionBasedTable(const std::string& table);
    /// Waits until no pruning thread of this table runs. Not to be called with the lock held.
    void waitForPruners();

  private:
    friend struct EventTablePeer;

    using Guard = std::lock_guard<std::recursive_mutex>;

    /// Writes the verbose line "Take lock for <operation>", then takes the prune lock.
    Guard lockFor(const char* operation) const;

    long storeEvent(const NewEvent& event);
    void startPrunerAbove(long total);  // without the lock
    void trimCycles();

    // Everything below is called with the lock held.
    bool insertEvent(const NewEvent& event);
    bool refuseQuotedEvent(const std::string& statement);
    bool storeInOneTransaction(const std::vector<NewEvent>& events, bool ahead, std::size_t& taken,
                               long& total);
    void storeSingly(const std::vector<NewEvent>& events, std::size_t count, long& total);
    bool batchCanWait();
    long sizeThatEndsABatch(bool ahead);
    long recountedSize();
    void forgetSize();

    bool replaceOldestEvents(long limit);
    void replaceByOverflowEvent(const EventPruner& victims);

    SqlConnection& m_connection;
    const Shared m_shared;
    /// When another process's lock began to hold batches up; none while they pass.
    std::optional<std::chrono::steady_clock::time_point> m_busySince;
    std::int32_t m_pruneThreshold = 131072;  ///< bytes of events above which an insert prunes
    std::int32_t m_pruneTarget = 94208;      ///< bytes of events that pruning leaves
    PrunerThreads m_pruners;                 ///< gone first: they use what is above
};
