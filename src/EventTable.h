#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <cstddef>
#include <cstdint>

#include "Cycle.h"
#include "EventPruner.h"
#include "EventSet.h"
#include "PrunerThreads.h"

class SqlConnection;
class SqlStatement;

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
        /// Called at the beginning of each operation with the lock held: opens the connection where
        /// it should be open and is not. Empty: the connection is as it is.
        std::function<void()> makeReady = {};
        /// While it is set, success does not clear the error flag; null: it always does.
        const std::atomic<bool>* mustBeReported = nullptr;
    };

    /// One operation's turn at the store: holds the lock, and made the store ready.
    class Turn {
      public:
        Turn(std::recursive_mutex& lock, const std::function<void()>& makeReady) : m_lock(lock) {
            if (makeReady) makeReady();
        }

      private:
        const std::lock_guard<std::recursive_mutex> m_lock;
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
    /// As `DB::addOverflowEvent` says.
    bool addOverflowEvent(const EventPruner::Range& range);
    /// As `DB::works` says.
    bool works();
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

    /// What became of an event.
    enum class Outcome {
        Stored,
        Refused,  ///< for a reason of its own
        NotNow,   ///< the store fails, and may work later
    };
    /// What became of the events that a trim follows.
    enum class Before { Committed, Failed };

    /// Writes the verbose line "Take lock for <operation>", then takes the prune lock.
    Turn lockFor(const char* operation) const;
    Turn turn() const { return Turn(m_shared.lock, m_shared.makeReady); }

    /// @param prepared `preparedInsertion`, or one that is not prepared
    Outcome storeEvent(const NewEvent& event, SqlStatement& prepared, long& total);
    void startPrunerAbove(long total);  // without the lock
    void trimCycles(Before before);
    void trim(const std::string& table, Before before);

    // Everything below is called with the lock held.
    Outcome insertEvent(const NewEvent& event, SqlStatement& prepared);
    Outcome outcomeOf(int result);
    SqlStatement preparedInsertion();
    bool isMissing();
    void refuseQuotedEvent(const std::string& statement);
    bool storeInOneTransaction(const std::vector<NewEvent>& events, bool ahead, std::size_t& taken,
                               long& total);
    void storeSingly(const std::vector<NewEvent>& events, std::size_t& taken, long& total);
    long sizeThatEndsABatch(bool ahead);
    long recountedSize();
    void forgetSize();
    void clearFailure();

    std::optional<Before> replaceOldestEvents(long limit);
    bool replaceByOverflowEvent(const EventPruner& victims);

    SqlConnection& m_connection;
    const Shared m_shared;
    std::int32_t m_pruneThreshold = 131072;  ///< bytes of events above which an insert prunes
    std::int32_t m_pruneTarget = 94208;      ///< bytes of events that pruning leaves
    PrunerThreads m_pruners;                 ///< gone first: they use what is above
};
