#pragma once

#include <chrono>
#include <functional>

#include <pthread.h>

/// One thread of the daemon: started under its name, with SIGALRM blocked (the alarm is the main
/// thread's alone) and cancellation off.
///
/// A thread that is to be cancelled says where: within a `CancelPoint`, around one wait. Whatever
/// stands between such a wait and the thread's end is left by an unwinding that is not an
/// exception: owners release, but nothing there may swallow it or be noexcept. The owner cancels
/// and joins from one thread at a time. Not movable.
class WorkerThread {
  public:
    /// What the thread does; its result is the thread's exit value.
    using Body = std::function<int()>;

    WorkerThread() = default;
    /// Joins, if that has not been done.
    ~WorkerThread() { join(); }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    /// Starts the thread; the one before must have been joined.
    /// @param name of the thread, which reads it at its start: a literal. The kernel takes at most
    /// 15 characters, and a longer one leaves the name that was inherited
    /// @return 0, or the errno for which there is no thread
    int start(const char* name, Body body);
    /// Starts a thread that nobody joins. @return 0, or the errno for which there is none
    static int startDetached(const char* name, Body body);

    bool isStarted() const { return m_started; }
    /// Whether the caller is this thread.
    bool isCurrent() const;
    /// Asks the thread to end at its next `CancelPoint`, or in the one where it waits.
    void cancel();
    /// Waits for the thread's end; returns at once when none was started, or on the thread itself.
    /// @return its exit value; -1 for a cancelled thread, or where there is none to wait for
    int join();

    /// While it lives its thread can be cancelled. For one wait.
    class CancelPoint {
      public:
        CancelPoint() { ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
        ~CancelPoint() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
        CancelPoint(const CancelPoint&) = delete;
        CancelPoint& operator=(const CancelPoint&) = delete;
    };
    /// Sleeps where it can be cancelled.
    static void sleep(std::chrono::microseconds duration);

  private:
    pthread_t m_thread{};
    bool m_started = false;
};
