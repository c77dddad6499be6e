#pragma once

#include "TimedChild.h"

/// What a child's end means, and the handler of the alarm.
struct TimedChildPeer {
    static bool waitFor(int child) { return TimedChild::waitFor(child, 300); }
    /// As the signal handler does it.
    static void killTimedOut() { TimedChild::killTimedOut(0); }
};
