#pragma once

#include <signal.h>

/// Changes whether the calling thread blocks SIGALRM, and puts the thread's signal mask back at its
/// end. Lives on the stack of one thread. Throws nothing.
class AlarmMask {
  public:
    AlarmMask(const AlarmMask&) = delete;
    AlarmMask& operator=(const AlarmMask&) = delete;

  protected:
    /// @param how SIG_BLOCK or SIG_UNBLOCK
    explicit AlarmMask(int how);
    ~AlarmMask();

  private:
    sigset_t m_before;  ///< the thread's mask
};

/// Blocks SIGALRM as long as it lives. Threads inherit the mask of the one that starts them:
/// whoever starts a thread holds one meanwhile, because the alarm ends a hung upload child and is
/// the main thread's alone.
class AlarmBlock : public AlarmMask {
  public:
    AlarmBlock() : AlarmMask(SIG_BLOCK) {}
};

/// The opposite, for the start of a command: it inherits the mask too, and one that ends itself by
/// an alarm of its own, as some `ping`s do, would never end. An alarm that comes meanwhile is
/// handled on this thread.
class AlarmUnblock : public AlarmMask {
  public:
    AlarmUnblock() : AlarmMask(SIG_UNBLOCK) {}
};
