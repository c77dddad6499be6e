#pragma once

#include <chrono>
#include <mutex>

#include <time.h>

#include "UtcTimeMs.h"

/// The application clock: UTC as it was last set, carried on by the monotonic clock; the system
/// clock while it was never set.
///
/// It does not judge the times that it is set to (`TimeMgrImpl` does), and never touches the set's
/// own clock. There is one for the program, ready before `main`. Any thread: a reader never meets
/// half a setting. Times of any size are survived.
class AppClock {
  public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// From now on it is `utc`.
    static void set(UtcTimeMs utc);
    static TimePoint now();

  private:
    friend struct AppClockPeer;

    /// All zero while it was never set.
    struct Setting {
        timespec utc;
        timespec monotonic;  ///< CLOCK_MONOTONIC at the setting
    };
    static Setting lastSetting();

    static std::mutex m_mutex;  ///< guards m_setting; a leaf
    static Setting m_setting;
};

/// What the application clock reads. Any thread.
std::chrono::system_clock::time_point kivAppNow();
