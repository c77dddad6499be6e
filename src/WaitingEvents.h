#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "DB.h"
#include "EventPruner.h"
#include "JsonObject.h"

class ClassLog;

/// The completed events in memory, on their way from the threads that add them to the one that
/// stores them.
///
/// An event is in one of three places:
/// - set aside: it was added while a batch was being stored, and its thread did not wait;
/// - in the queue: it waits to be stored;
/// - stored: the database has it, and its memory waits to be freed.
///
/// What always holds:
/// 1. Order. An event is set aside first, and everything set aside goes to the end of the queue in
///    one piece. What is in the queue is therefore older than what is set aside, and events are
///    stored in the order in which they were added.
/// 2. Bounds. Fewer events than a batch are set aside: the thread that adds the one that makes a
///    batch waits. With a store that works the queue itself has no bound; the receiving thread
///    pauses while `isCrowded`. With a store that fails nobody waits: nothing stays set aside, and
///    beyond 512 events the oldest are dropped.
/// 3. Rows. `m_rows` holds the rows of the queue's first events, or nothing. What a batch leaves
///    of them goes into the next one, alone. The first `m_droppedRows` of them belong to events
///    that have been dropped from the queue since.
/// 4. Nothing is lost without being named, nothing is stored twice. An event leaves the queue when
///    the database is done with it. One that is dropped makes the range of the lost events wider,
///    unless the attempt that was under way has stored it; the range is named in the store ahead
///    of the next events. What can fail for want of memory is done before the database is asked,
///    so that nothing can throw after its commit.
/// 5. The queue grows in `handOver` only and shrinks in `takeOut`, `dropOldest` and `discard` only.
///
/// It does not decide when a batch is stored, and does not touch the database itself. Owned by the
/// gateway; the queue and its mutex are class-wide and outlive it.
///
/// Threads: `add` and `handOver` are called by one thread at a time, under a lock of their caller
/// (the gateway's m_logMutex), which is taken before the queue's mutex; `storeBatch` and `discard`
/// by the storing thread; the rest by any. A batch is stored with the queue's mutex held, unless
/// the store is known to fail: then an attempt may take long, and is made without it. Errors: what
/// the store's functions throw passes, and leaves everything as it was.
class WaitingEvents {
  public:
    static constexpr std::size_t kMostOfABatch = DB::kMostEventsOfABatch;
    /// With so many in the queue it is crowded; with a store that fails it never has more.
    static constexpr std::size_t kMostInMemory = 512;

    /// What the calling thread does while a batch is being stored.
    enum class Handover {
        Wait,         ///< it waits until the batch is stored
        MaySetAside,  ///< it goes on at once; its event stays set aside until a later call
    };
    using Rows = std::vector<DB::NewEvent>;
    /// Stores rows from the front. @return how many the database is done with; 0: the store fails
    using Store = std::function<std::size_t(const Rows& rows)>;
    /// Names the range of dropped events in the store. @return false when the store fails
    using NameLost = std::function<bool(const EventPruner::Range& lost)>;
    struct Progress {
        std::size_t taken;  ///< how many events the database is done with
        bool more;          ///< to be stored at once: a full batch, the rest of this one, or what
                            ///< waited for a store that works again
    };

    /// Works on the given queue; `log` is the owner's. All three must outlive it.
    WaitingEvents(std::deque<JsonObject>& queue, std::mutex& queueMutex, const ClassLog& log)
        : m_queue(queue), m_queueMutex(queueMutex), m_log(log) {}
    WaitingEvents(const WaitingEvents&) = delete;
    WaitingEvents& operator=(const WaitingEvents&) = delete;

    /// Adds an event after all the others. `event` must be the last handle on it and its parts:
    /// another thread will use it.
    void add(JsonObject event, Handover handover);
    /// Moves what is set aside into the queue. @return false when it is still set aside
    bool handOver(Handover handover);
    /// Whether too many events wait. Without a lock where the last look found room.
    bool isCrowded();
    std::size_t size() const;  ///< of the queue
    /// Whether the store failed when it was last asked.
    bool isStoreFailing() const { return m_failing; }

    /// Has `store` take one batch from the front of the queue, and before that `nameLost` name what
    /// was dropped. With an empty queue neither is asked, and the memory of former batches is
    /// freed. One line tells that the store begins to fail, and one that it works again.
    Progress storeBatch(const Store& store, const NameLost& nameLost);
    /// Drops the events in the queue.
    void discard();

  private:
    friend struct WaitingEventsPeer;

    std::size_t attempt(const Store& store, const NameLost& nameLost);
    void reportChange(std::size_t kept, std::size_t dropped) const;

    // Everything below is called with m_queueMutex held.
    void prepareBatch();
    void readFront();
    /// Takes the events of the first `count` rows out of the queue.
    void takeOut(std::size_t count);
    bool isFull() const;
    void setFailing(bool failing);
    void dropOldest();  ///< what is beyond 512 events
    void lose(const EventPruner::Moment& moment);
    void freeMemory();

    std::deque<JsonObject>& m_queue;
    std::mutex& m_queueMutex;  ///< guards m_queue, m_rows (while an attempt reads them they do not
                               ///< change) and m_stored
    const ClassLog& m_log;
    std::vector<JsonObject> m_setAside;  ///< guarded by the lock of whoever adds
    Rows m_rows;
    /// Freed by the threads that add events: the storing thread would free them while those
    /// threads allocate, and each would wait for the other at the allocator's lock.
    std::vector<JsonObject> m_stored;
    std::atomic<bool> m_crowded{false};  ///< what the last look found; written under m_queueMutex
    std::atomic<bool> m_failing{false};  ///< whether the store fails; written under m_queueMutex

    // Guarded by m_queueMutex, but for m_naming.
    std::size_t m_droppedRows = 0;             ///< of m_rows, those whose events are dropped
    std::size_t m_dropped = 0;                 ///< events dropped since the store began to fail
    std::optional<EventPruner::Range> m_lost;  ///< dropped events that are not being named yet
    /// What is to be named with the next batch; the storing thread's alone.
    std::optional<EventPruner::Range> m_naming;
};
