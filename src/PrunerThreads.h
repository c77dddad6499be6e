#pragma once

#include <functional>
#include <memory>

/// The pruning threads of one `DB`, and the order in which they and the inserts of the process
/// reach `DB::m_PruneLock`: at most one pruning thread waits for the lock, and inserts let it go
/// first, but for one batch. It knows nothing of what a pruning thread does. Usable from any
/// thread; throws nothing.
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
    /// Waits until a pruning thread that waits for the lock has it. Returns at once on a pruning
    /// thread, and before long on a thread that holds the lock itself.
    static void letWaitingOneGoFirst();
    /// Whether a pruning thread waits and this batch of inserts may go ahead of it: once for each
    /// such thread.
    static bool takeHeadStart();

  private:
    friend struct PrunerThreadsPeer;

    struct Running;
    struct HandOver;

    static HandOver& handOver();

    std::shared_ptr<Running> m_running;
};
