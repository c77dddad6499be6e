#pragma once

#include <chrono>
#include <string>

class SignalHold;

/// How long one event of --sync may still wait, cut into slices so that a signal that is held
/// back is noticed soon. Counts on the steady clock: the set's wall clock jumps.
///
/// Does not wait itself. `signals` must outlive it. Used by one thread.
class Patience {
  public:
    Patience(double seconds, const SignalHold& signals);

    /// The next time to wait. Fails with `complaint` and the seconds when none is left, and with
    /// "interrupted" when a signal has come.
    std::chrono::milliseconds nextSlice(const std::string& complaint) const;

  private:
    std::string secondsText() const;

    double m_seconds;
    std::chrono::steady_clock::time_point m_deadline;
    const SignalHold& m_signals;
};
