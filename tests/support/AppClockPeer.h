#pragma once

#include "AppClock.h"

/// How the application clock was set.
struct AppClockPeer {
    /// As if it had never been set.
    static void forget() {
        const std::lock_guard<std::mutex> lock(AppClock::m_mutex);
        AppClock::m_setting = {};
    }
    /// Moves its monotonic base, as if it had been set that much earlier.
    static void age(timespec age) {
        const std::lock_guard<std::mutex> lock(AppClock::m_mutex);
        timespec& base = AppClock::m_setting.monotonic;
        base.tv_sec -= age.tv_sec;
        base.tv_nsec -= age.tv_nsec;
        if (base.tv_nsec < 0) {
            base.tv_sec -= 1;
            base.tv_nsec += 1000000000;
        }
    }
    /// The UTC that it was set to; all zero while it was never set.
    static timespec asSet() { return AppClock::lastSetting().utc; }
};
