#pragma once

#include "Pause.h"

/// Time that passes at once.
struct PausePeer {
    /// As if so much time had passed.
    static void pass(Pause& pause, std::chrono::milliseconds time) { pause.m_end -= time; }
    /// As if its time had passed.
    static void complete(Pause& pause) { pass(pause, pause.m_length); }
};
