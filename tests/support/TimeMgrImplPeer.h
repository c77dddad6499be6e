#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "TimeMgrImpl.h"
#include "support/AppClockPeer.h"
#include "support/MiddlewareTimePeer.h"

/// The time manager's state, and its watch on the middleware.
struct TimeMgrImplPeer {
    static constexpr const char* productPipe = MiddlewareTimePeer::productPipe;

    /// Where the watcher looks for the middleware's pipe; set before a watcher is started.
    static void setPipePath(std::string path) { MiddlewareTimePeer::setPipePath(std::move(path)); }

    /// The application clock as if it had never been set.
    static void forgetSystemTime() { AppClockPeer::forget(); }

    /// As if no database path had been announced.
    static void forgetExpectedDBPath() {
        const std::lock_guard<std::mutex> lock(TimeMgrImpl::m_gateMutex);
        TimeMgrImpl::m_dbPathExpected = false;
    }

    static int currentSource(TimeMgrImpl& manager) {
        const std::lock_guard<std::mutex> lock(manager.m_mutex);
        return manager.m_currentSource;
    }
    static void setCurrentSource(TimeMgrImpl& manager, int source) {
        const std::lock_guard<std::mutex> lock(manager.m_mutex);
        manager.m_currentSource = source;
    }
    static std::mutex& mutex(TimeMgrImpl& manager) { return manager.m_mutex; }

    static MiddlewareTime& watch(TimeMgrImpl& manager) { return manager.m_middlewareTime; }
    static bool isWatching(TimeMgrImpl& manager) {
        return MiddlewareTimePeer::isWatching(watch(manager));
    }
};
