#pragma once

#include "TimedChild.h"

/// What a child's end means, and the handler of the alarm.
struct TimedChildPeer {
    static constexpr unsigned int kGrace = 5;  ///< seconds, when no test sets another
    static bool waitFor(int child) { return TimedChild::waitFor(child, 300); }
    [[noreturn]] static void runInChild(const std::function<bool()>& work, int parent) {
        TimedChild::runInChild(work, parent, 300);
    }
    static void setGrace(unsigned int seconds) { TimedChild::m_graceSeconds = seconds; }
    /// As the signal handler does it.
    static void killTimedOut() { TimedChild::killTimedOut(0); }
};
