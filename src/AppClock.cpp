#include "AppClock.h"

#include "KernelTime.h"

#include <algorithm>
#include <limits>

#include <cstdint>

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

/// The moment as a point of the system clock, held at the ends of the clock's range.
AppClock::TimePoint toTimePoint(const timespec& time) {
    constexpr std::int64_t latest =
        std::numeric_limits<std::int64_t>::max() / kNanosecondsPerSecond - 1;
    const auto seconds = std::clamp<std::int64_t>(time.tv_sec, -latest, latest);
    const std::chrono::nanoseconds sinceEpoch(seconds * kNanosecondsPerSecond + time.tv_nsec);
    return AppClock::TimePoint(
        std::chrono::duration_cast<AppClock::TimePoint::duration>(sinceEpoch));
}

}  // namespace

std::mutex AppClock::m_mutex;
AppClock::Setting AppClock::m_setting{};

void AppClock::set(UtcTimeMs utc) {
    const std::int64_t ms = utc;
    Setting setting{};
    setting.utc.tv_sec = static_cast<decltype(setting.utc.tv_sec)>(ms / 1000);
    setting.utc.tv_nsec = static_cast<decltype(setting.utc.tv_nsec)>((ms % 1000) * 1000000);
    const std::lock_guard<std::mutex> lock(m_mutex);
    setting.monotonic = KernelTime::getTimeMonotonic();
    m_setting = setting;
}

AppClock::TimePoint AppClock::now() {
    const Setting setting = lastSetting();
    if (setting.monotonic.tv_sec < 1) return std::chrono::system_clock::now();
    const timespec passed = timeDiff(KernelTime::getTimeMonotonic(), setting.monotonic);
    return toTimePoint(timeAdd(setting.utc, passed));
}

AppClock::Setting AppClock::lastSetting() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_setting;
}

std::chrono::system_clock::time_point kivAppNow() {
    return AppClock::now();
}
