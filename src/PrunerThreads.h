#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include <cstdint>

/// The pruning threads of one event table, and the order in which they and the inserts of the
/// process reach the prune lock, which is one for the whole process: at most one pruning thread
/// waits for the lock, and inserts let it go first, but for one batch. It knows nothing of what a
/// pruning thread does. Usable from any thread; throws nothing.
class PrunerThreads {
  public:
    PrunerThreads();
    /// Waits for the threads, like `waitForAll`.
    ~PrunerThreads();
    PrunerThreads(const PrunerThreads&) = delete;
    PrunerThreads& operator=(const PrunerThreads&) = delete;

    /// Runs `body` on a new detached thread, unless a pruning thread of the process is still
    /// waiting for the lock. A thread that cannot be started gets an error line; the next call
    /// tries again. `body` calls `tookTheLock` once it holds the lock.
    void start(std::function<void()> body);
    /// Waits until no thread of this object runs. Not to be called with the lock held.
    void waitForAll();

    /// Ends this thread's time as the waiting one; nothing on any other thread.
    static void tookTheLock();
    /// Waits until a pruning thread that waits for `lock`, the prune lock, has it. Returns at once
    /// on a pruning thread, and before long on a thread that holds the lock itself.
    static void letWaitingOneGoFirst(std::recursive_mutex& lock);
    /// Whether a pruning thread waits and this batch of inserts may go ahead of it: once for each
    /// such thread.
    static bool takeHeadStart();

  private:
    struct Running;
    struct HandOver;

    static HandOver& handOver();
    /// @return 0, or the errno for which there is no thread
    int startThread(std::uint64_t ticket, std::function<void()> body);

    std::shared_ptr<Running> m_running;
};
