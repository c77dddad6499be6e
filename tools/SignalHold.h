#pragma once

#include <signal.h>

/// Holds back the signals that would end the process, so that a semaphore can be unlinked first;
/// they take their usual effect when the object goes.
///
/// Signals that the caller ignores, or blocked itself, are left alone: Linux keeps even an ignored
/// signal pending while it is blocked. For programs of one thread.
class SignalHold {
  public:
    SignalHold();
    ~SignalHold();
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;

    /// Whether a signal that is held back has come.
    bool pending() const;

  private:
    static constexpr int kEnding[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
    sigset_t m_held;
};
