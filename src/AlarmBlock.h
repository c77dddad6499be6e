#pragma once

#include <signal.h>

/// Blocks SIGALRM in the calling thread as long as it lives, then puts the thread's signal mask
/// back. Threads inherit the mask of the one that starts them: whoever starts a thread holds one
/// meanwhile, because the alarm ends a hung upload child and is the main thread's alone.
///
/// Lives on the stack of one thread. Throws nothing.
class AlarmBlock {
  public:
    AlarmBlock();
    ~AlarmBlock();
    AlarmBlock(const AlarmBlock&) = delete;
    AlarmBlock& operator=(const AlarmBlock&) = delete;

  private:
    sigset_t m_before;  ///< the thread's mask
};

/// The opposite, for the start of a command: it inherits the mask too, and one that ends itself by
/// an alarm of its own, as some `ping`s do, would never end. An alarm that comes meanwhile is
/// handled on this thread.
class AlarmUnblock {
  public:
    AlarmUnblock();
    ~AlarmUnblock();
    AlarmUnblock(const AlarmUnblock&) = delete;
    AlarmUnblock& operator=(const AlarmUnblock&) = delete;

  private:
    sigset_t m_before;  ///< the thread's mask
};
