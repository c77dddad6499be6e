#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "LocationInfo.h"

/// The class-wide state of the location: this run's place and where it is asked for.
struct LocationInfoPeer {
    /// The geolocation service to ask; not while a request is under way.
    static void setProvider(const std::string& url) { LocationInfo::PROVIDER = url; }
    static std::string provider() { return LocationInfo::PROVIDER; }

    /// As at the program's start: nothing found yet, no database.
    static void forget() {
        const std::lock_guard<std::mutex> lock(LocationInfo::m_mutex);
        LocationInfo::mInfo.reset();
        LocationInfo::m_DbPath.clear();
        LocationInfo::m_pause.forget();
    }
    /// Another run with the same database.
    static void beginNewRun() {
        const std::lock_guard<std::mutex> lock(LocationInfo::m_mutex);
        LocationInfo::mInfo.reset();
        LocationInfo::m_pause.forget();
    }
    static RetryPause& pause() { return LocationInfo::m_pause; }
    static std::string dbPath() { return LocationInfo::dbPath(); }
    static std::shared_ptr<LocationInfo> current() {
        const std::lock_guard<std::mutex> lock(LocationInfo::m_mutex);
        return LocationInfo::mInfo;
    }
};
