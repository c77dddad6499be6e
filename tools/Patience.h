#pragma once

#include "Failure.h"

#include <chrono>
#include <string>

class SignalHold;

/// How long one event may still wait, cut into slices so that a signal that is held back is noticed
/// soon. Counts on the steady clock: the set's wall clock jumps.
///
/// Does not wait itself. Used by one thread.
class Patience {
  public:
    /// @param signals those that are held back meanwhile, which must outlive it; nullptr: none are
    Patience(double seconds, Status status, const SignalHold* signals);

    /// The next time to wait. Fails with the status, `complaint` and the seconds when none is left,
    /// and with "interrupted" when a signal has come.
    std::chrono::milliseconds nextSlice(const std::string& complaint) const;

  private:
    std::string secondsText() const;

    double m_seconds;
    std::chrono::steady_clock::time_point m_deadline;
    Status m_status;
    const SignalHold* m_signals;
};
