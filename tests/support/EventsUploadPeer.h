#pragma once

#include <cstdint>

#include "EventsUpload.h"
#include "support/UploadConditionsPeer.h"

/// When the last send failed.
struct EventsUploadPeer {
    static std::int64_t lastFailureTime(const EventsUpload& events) {
        return events.m_lastFailureTime;
    }
    static void setLastFailureTime(EventsUpload& events, std::int64_t utcSeconds) {
        events.m_lastFailureTime = utcSeconds;
    }
    static void letAMinutePass(EventsUpload& events) {
        UploadConditionsPeer::letAMinutePass(events.m_conditions);
        PausePeer::complete(events.m_locationUnknown);
        if (events.m_lastFailureTime != 0) events.m_lastFailureTime -= 60;
    }
};
