#include "EventsUpload.h"

#include "Config.h"
#include "CycleTimes.h"
#include "EventTimeRework.h"
#include "EventsPacket.h"
#include "JsonObject.h"
#include "LocationInfo.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UploadConditions.h"
#include "UploadLog.h"
#include "UploadSchedule.h"
#include "UtcTimeMs.h"

#include <algorithm>
#include <mutex>
#include <string>

namespace {

constexpr std::int64_t kRetrySeconds = UploadSchedule::kRetryMs / 1000;

const ClassLog& s_log = UploadLog::log;

/// Gives the event its time and adds it. @return whether it found room
bool addEvent(const std::string& text, AwsWrapper::EventsPacket& packet, CycleTimes& times) {
    s_log.info("Process event: ", text);
    JsonObject event = JsonObject::parse(text);
    const UtcTimeMs time = EventTimeRework::reworkEventTime(event, text, true, times);
    s_log.info("Add event to packet with utc time = ", static_cast<std::int64_t>(time));
    return packet.AddEvent(event, text, time, times);
}

}  // namespace

bool EventsUpload::failedLessThanAMinuteAgo(std::int64_t now) const {
    const std::int64_t distance = now - m_lastFailureTime;
    return m_lastFailureTime != 0 && distance >= 0 && distance < kRetrySeconds;
}

int EventsUpload::upload() {
    s_log.info("uploadEvents request");
    const Config config;
    if (!UploadConditions::areMet(config, m_reports)) return 0;
    const std::int64_t now = UploadConditions::nowSeconds();
    if (now == 0 || failedLessThanAMinuteAgo(now)) return 0;

    LocationInfo::getLocation();  // may use the network: not under the store's lock
    AwsWrapper::EventsPacket packet(config->GetMaxSize());
    const DB::EventSet events = packStoredEvents(packet);
    if (packet.IsEmpty()) return 0;
    s_log.info("Try to send packet");
    if (!packet.Send()) return recordFailedSend(now, "Event upload failed");
    m_lastFailureTime = 0;
    s_log.info("Delete marked events from database");
    if (!m_store.deleteMarkedEvents(events)) {
        // Or the same packet would go out for ever.
        return recordFailedSend(now, "Deleting the sent events failed");
    }
    return scheduleAfterSend();
}

/// Fills the packet with the oldest events. Holds the store's lock, so that pruning deletes no row
/// that is being packed, and no time changes; other locks are taken after it.
DB::EventSet EventsUpload::packStoredEvents(AwsWrapper::EventsPacket& packet) {
    const Singleton<TimeMgrImpl> timeManager;  // kept: its end takes the store's lock
    CycleTimes times(*timeManager);
    const std::lock_guard<std::recursive_mutex> lock(DB::m_PruneLock);
    s_log.info("uploadEvents will be done");
    DB::EventSet events = m_store.getEvents(false);
    for (std::string event = events.getNextAndMark(); !event.empty();
         event = events.getNextAndMark()) {
        if (!addEvent(event, packet, times)) {
            s_log.info("Packet full. Unmark last event");
            events.unmarkLast();
            break;
        }
    }
    events.close();
    return events;
}

int EventsUpload::recordFailedSend(std::int64_t now, const char* reason) {
    s_log.error(reason, ", will try later in ", kRetrySeconds, " seconds");
    m_lastFailureTime = now;
    m_schedule.requestEventsTimeCheck(UploadSchedule::kRetryMs);
    return 0;
}

/// A backlog is drained packet after packet; the rest waits until it comes of age.
int EventsUpload::scheduleAfterSend() {
    const long size = m_store.totalEventSize();
    s_log.info("DB remaining size = ", size);
    if (Config()->MinimumSizeReached(size)) {
        s_log.info("Scheduling upload of events of size ", size);
        m_schedule.requestEventsUpload();
    } else {
        m_schedule.requestEventsTimeCheck();
    }
    return 1;
}

int EventsUpload::checkTimes() {
    s_log.info("eventsTimeCheck request");
    const Config config;
    if (config->configIsExpired()) return 0;
    const std::int64_t maxDelay = config->GetMaxDelay();  // seconds
    if (maxDelay < 1) return 0;
    const std::int64_t now = UploadConditions::nowSeconds();
    if (now == 0) return 0;
    std::string oldest = m_store.getOldestEvent();
    if (oldest.empty()) {
        m_schedule.requestEventsTimeCheck(UploadSchedule::delayOfSeconds(maxDelay));
        return 0;
    }
    const std::int64_t time = EventTimeRework::reworkEventTime(oldest, false) / 1000;
    const std::int64_t age = now - time;
    if (time != 0 && age < maxDelay) {
        // An event from the future must not put the check off for longer than the age rule.
        const std::int64_t rest = maxDelay - std::max<std::int64_t>(age, 0);
        m_schedule.requestEventsTimeCheck(UploadSchedule::delayOfSeconds(rest));
        return 0;
    }
    if (upload() != 0) return 1;
    m_schedule.requestEventsTimeCheck(UploadSchedule::kRecheckMs);
    return 0;
}
