#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <queue>
#include <vector>

#include "Semaphore.h"
#include "WorkerThread.h"

/// Calls handlers after a delay, each once, on one thread of its own ("TimerQueueThread").
///
/// Handlers run one at a time in the order of their due times, with no lock held: they may add
/// and cancel items of the same queue. They must be short: a handler posts, it does not work.
/// `add` and `cancel` may be called from any thread. The destructor calls every pending handler
/// with `cancelled` true and joins the thread; it must not run on that thread. A handler that
/// throws costs an error line and nothing else. Where the thread cannot be started, each `add`
/// tries again, and what was added before follows then; there is one error line until that
/// succeeds. The destructor calls what is left on its own thread.
class TimerQueue : private Semaphore {
  public:
    /// handler(cancelled, first argument, second argument)
    using Handler = std::function<void(bool, unsigned int, int)>;

    TimerQueue();  ///< starts the thread
    ~TimerQueue();
    TimerQueue(const TimerQueue&) = delete;
    TimerQueue& operator=(const TimerQueue&) = delete;

    /// Calls `handler` after `milliseconds`. @return the item's id: 1, 2, 3, ..., never reused.
    std::uint64_t add(long long milliseconds, unsigned int firstArgument, int secondArgument,
                      Handler handler);
    /// Has the pending item called at once, on the queue's thread, with `cancelled` true and its
    /// own arguments. @return false when no such item is pending (always for 0).
    bool cancel(std::uint64_t id);
    /// Starts the thread where it could not be started yet. @return whether it runs
    bool startMissingThread();

  private:
    struct WorkItem {
        WorkItem() = default;
        WorkItem(WorkItem&&) = default;
        WorkItem& operator=(WorkItem&&) = default;

        /// Calls the handler, if there is one; throws nothing of its own.
        void call();

        std::chrono::steady_clock::time_point end;
        std::uint64_t id = 0;  ///< 0: cancelled
        std::uint32_t firstArgument = 0;
        std::int32_t secondArgument = 0;
        Handler handler;  ///< empty once the item has been cancelled in place

        bool operator>(const WorkItem& other) const { return end > other.end; }
    };

    /// The priority queue with its container in reach, so that `cancel` can scan and the work can
    /// move items out.
    class Items
        : public std::priority_queue<WorkItem, std::vector<WorkItem>, std::greater<WorkItem>> {
      public:
        std::vector<WorkItem>& storage() { return c; }
        WorkItem takeTop();
    };

    void startThread();
    void run();
    void checkWork();
    /// Drops cancelled leftovers from the top; the due time of the next item, if there is one.
    std::optional<std::chrono::steady_clock::time_point> nextDeadline();

    WorkerThread m_thread;
    bool m_finish = false;  ///< used by `run` only, and by the handlers that it calls
    std::uint64_t m_lastId = 0;
    std::mutex m_queueMutex;     ///< guards the rest, and the start of the thread
    bool m_lineWritten = false;  ///< about the thread that could not be started
    Items m_items;
};
