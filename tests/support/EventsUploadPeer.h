#pragma once

#include <cstdint>

#include "EventsUpload.h"

/// When the last send failed.
struct EventsUploadPeer {
    static std::int64_t lastFailureTime(const EventsUpload& events) {
        return events.m_lastFailureTime;
    }
    static void setLastFailureTime(EventsUpload& events, std::int64_t utcSeconds) {
        events.m_lastFailureTime = utcSeconds;
    }
};
