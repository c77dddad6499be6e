#pragma once

#include <functional>

/// Work in a child process under a time limit, so that work that hangs can be killed without harm
/// to the daemon. A child never outlives the daemon: the kernel kills it when the thread that waits
/// for it ends, however the daemon ends, and its own alarm ends it should the daemon not come to
/// it. It knows nothing of what the work is.
///
/// Only class-wide state: the process id of the child that is waited for, for the handler of
/// SIGALRM. So one thread at a time may use it. The alarm is the whole process's: SIGALRM must be
/// blocked in every thread but the main one, which must not mind being interrupted. What fails is a
/// result and an error line under the tag of the cloud client, whose work it does.
class TimedChild {
  public:
    /// Forks, and waits until the child ends; kills it after `limitSeconds`. The child is a copy of
    /// the daemon with this one thread: what another thread had locked stays locked for ever, so
    /// `work` must ask none of the daemon's objects. There SIGALRM is open with its default action
    /// and is due a little after the limit, and only the three standard descriptors are open. An
    /// exception ends the child as failed.
    /// @return whether `work` ran to its end and returned true
    static bool run(const std::function<bool()>& work, unsigned int limitSeconds);

  private:
    friend struct TimedChildPeer;

    [[noreturn]] static void runInChild(const std::function<bool()>& work, int parent,
                                        unsigned int limitSeconds) noexcept;
    static bool waitFor(int child, unsigned int limitSeconds);
    static void startAlarm(unsigned int seconds);
    static void killTimedOut(int signal);

    static unsigned int m_graceSeconds;  ///< 5: what the child's own alarm waits beyond the limit
};
