#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "MiddlewareTime.h"

/// The watch on the middleware's pipe, step by step.
struct MiddlewareTimePeer {
    using Previous = MiddlewareTime::Previous;

    static constexpr const char* productPipe = "/tmp/MTKTimePipe";

    /// Where the watcher looks for the middleware's pipe; set before a watcher is started.
    static void setPipePath(std::string path) { MiddlewareTime::m_pipePath = std::move(path); }
    static const std::string& pipePath() { return MiddlewareTime::m_pipePath; }

    static bool isWatching(MiddlewareTime& watch) {
        const std::lock_guard<std::mutex> lock(watch.m_threadMutex);
        return watch.m_thread.isStarted();
    }
    /// Whether a stop of the watcher is under way (or was the last thing asked).
    static bool isBeingStopped(MiddlewareTime& watch) {
        const std::lock_guard<std::mutex> lock(watch.m_wakeMutex);
        return watch.m_stops;
    }
    /// Held while the watcher is started or stopped.
    static std::mutex& threadMutex(MiddlewareTime& watch) { return watch.m_threadMutex; }
    /// Taken in the middle of stopping the watcher.
    static std::mutex& wakeMutex(MiddlewareTime& watch) { return watch.m_wakeMutex; }

    static void handleMessage(MiddlewareTime& watch, const std::string& text, Previous& previous) {
        watch.handleMessage(text, previous);
    }
    static LineLimit& invalidLines(MiddlewareTime& watch) { return watch.m_invalidLines; }
};
