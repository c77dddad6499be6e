#pragma once

#include <string>
#include <utility>

#include "TimeMgrImpl.h"

/// The time manager's class-wide state, and its procedures step by step.
struct TimeMgrImplPeer {
    static constexpr const char* productPipe = "/tmp/MTKTimePipe";

    /// Where the checker looks for the middleware's pipe; set before a checker is started.
    static void setPipePath(std::string path) { TimeMgrImpl::m_pipePath = std::move(path); }
    static const std::string& pipePath() { return TimeMgrImpl::m_pipePath; }

    /// The application clock as if it had never been set.
    static void forgetSystemTime() {
        const std::lock_guard<std::mutex> lock(TimeMgrImpl::m_appClockMutex);
        TimeMgrImpl::m_appClock = {};
    }
    /// Moves the application clock's monotonic base, as if it had been set that much earlier.
    static void ageSystemTime(timespec age) {
        const std::lock_guard<std::mutex> lock(TimeMgrImpl::m_appClockMutex);
        timespec& base = TimeMgrImpl::m_appClock.monotonic;
        base.tv_sec -= age.tv_sec;
        base.tv_nsec -= age.tv_nsec;
        if (base.tv_nsec < 0) {
            base.tv_sec -= 1;
            base.tv_nsec += 1000000000;
        }
    }
    static timespec systemTimeAsSet() {
        const std::lock_guard<std::mutex> lock(TimeMgrImpl::m_appClockMutex);
        return TimeMgrImpl::m_appClock.utc;
    }

    /// As if no database path had been announced.
    static void forgetExpectedDBPath() {
        const std::lock_guard<std::mutex> lock(TimeMgrImpl::m_gateMutex);
        TimeMgrImpl::m_dbPathExpected = false;
    }

    static int currentSource(TimeMgrImpl& manager) {
        const std::lock_guard<std::mutex> lock(manager.m_mutex);
        return manager.m_currentSource;
    }
    static bool isWatching(TimeMgrImpl& manager) {
        const std::lock_guard<std::mutex> lock(manager.m_checkerMutex);
        return manager.m_checker.joinable();
    }
    /// Whether a stop of the checker is under way (or was the last thing asked).
    static bool isBeingStopped(TimeMgrImpl& manager) {
        const std::lock_guard<std::mutex> lock(manager.m_wakeMutex);
        return manager.m_checkerStops;
    }
    static std::mutex& mutex(TimeMgrImpl& manager) { return manager.m_mutex; }
    /// Held while the checker is started or stopped.
    static std::mutex& checkerMutex(TimeMgrImpl& manager) { return manager.m_checkerMutex; }
    /// Taken in the middle of stopping the checker.
    static std::mutex& wakeMutex(TimeMgrImpl& manager) { return manager.m_wakeMutex; }
    static void setCurrentSource(TimeMgrImpl& manager, int source) {
        const std::lock_guard<std::mutex> lock(manager.m_mutex);
        manager.m_currentSource = source;
    }

    static void handleMiddlewareTime(TimeMgrImpl& manager, const std::string& text,
                                     long long& previousTime, TimeReference& previousRef) {
        manager.handleMiddlewareTime(text, previousTime, previousRef);
    }
    static int openPipe() { return TimeMgrImpl::openPipe(); }
};
