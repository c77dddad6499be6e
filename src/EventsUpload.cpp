#include "EventsUpload.h"

#include "Config.h"
#include "CycleTimes.h"
#include "EventTimeRework.h"
#include "EventsPacket.h"
#include "JsonObject.h"
#include "LocationInfo.h"
#include "Singleton.h"
#include "Status.h"
#include "TimeMgrImpl.h"
#include "UploadLog.h"
#include "UploadSchedule.h"
#include "UtcTimeMs.h"

#include <mutex>
#include <string>

namespace {

constexpr std::int64_t kRetrySeconds = UploadSchedule::kRetryMs / 1000;
constexpr const char* kDeletionFailed = "Deleting the sent events failed";

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
    const UploadConditions::Verdict verdict = m_conditions.check(config);
    if (verdict == UploadConditions::Verdict::AskAgain) m_schedule.requestEventsUpload();
    if (verdict == UploadConditions::Verdict::AskLater) {
        m_schedule.requestEventsUpload(UploadSchedule::kRetryMs);
    }
    if (verdict != UploadConditions::Verdict::Met) return 0;
    const std::int64_t now = UploadConditions::nowSeconds();
    if (now == 0 || failedLessThanAMinuteAgo(now) || !noSentEventIsLeft(now)) return 0;

    askForLocation();
    AwsWrapper::EventsPacket packet(config->GetMaxSize());
    const DB::EventSet events = packStoredEvents(packet);
    if (packet.IsEmpty()) {
        if (m_storeUnread) m_schedule.requestEventsUpload(UploadSchedule::kRetryMs);
        return 0;
    }
    s_log.info("Try to send packet");
    m_lastFailureTime = now;  // should it throw
    if (!packet.Send()) return recordFailedSend("Event upload failed");
    m_sent = events;
    Status::count(Status::RecordsSent);
    Status::count(Status::EventsSent, m_sent->getReturnedRows().size());
    Status::setMoment(Status::LastRecord);
    return deleteSentEvents() ? scheduleAfterSend() : recordFailedSend(kDeletionFailed);
}

/// May use the network, and so comes before the store is locked. One that stays unknown must not
/// hold up each packet of a backlog.
void EventsUpload::askForLocation() {
    if (!m_locationUnknown.isOver()) return;
    if (LocationInfo::getLocation() == nullptr) m_locationUnknown.begin();
}

bool EventsUpload::deleteSentEvents() {
    s_log.info("Delete marked events from database");
    if (!m_store.deleteMarkedEvents(*m_sent)) return false;
    m_sent.reset();
    m_lastFailureTime = 0;
    return true;
}

/// Tries to delete what an earlier upload sent, should that have failed then; not within a minute.
/// @return whether everything that the store has may be sent
bool EventsUpload::noSentEventIsLeft(std::int64_t now) {
    if (!m_sent) return true;
    if (failedLessThanAMinuteAgo(now)) return false;
    if (deleteSentEvents()) return true;
    recordFailedSend(kDeletionFailed);
    return false;
}

/// Fills the packet with the oldest events. Holds the store's lock, so that pruning deletes no row
/// that is being packed, and no time changes; other locks are taken after it.
DB::EventSet EventsUpload::packStoredEvents(AwsWrapper::EventsPacket& packet) {
    const Singleton<TimeMgrImpl> timeManager;  // kept: its end takes the store's lock
    CycleTimes times(*timeManager);
    const std::lock_guard<std::recursive_mutex> lock(DB::m_PruneLock);
    s_log.info("uploadEvents will be done");
    DB::EventSet events = m_store.getEvents(false);
    m_storeUnread = !events.isActive();
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

/// Dated at its end: a send that was given up after two minutes must not be tried again at once.
int EventsUpload::recordFailedSend(const char* reason) {
    s_log.error(reason, ", will try later in ", kRetrySeconds, " seconds");
    m_lastFailureTime = UploadConditions::nowSeconds();
    // The line promises a try: a time check may find no event of age, or be put off by another.
    m_schedule.requestEventsUpload(UploadSchedule::kRetryMs);
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
    if (now == 0 || !noSentEventIsLeft(now)) return 0;
    std::string oldest = m_store.getOldestEvent();
    if (oldest.empty()) {
        m_schedule.requestEventsTimeCheck(UploadSchedule::delayOfSeconds(maxDelay));
        return 0;
    }
    const std::int64_t time = EventTimeRework::reworkEventTime(oldest, false) / 1000;
    const std::int64_t age = now - time;
    // One dated ahead counts as due: waiting for its age could put off all others for years.
    if (time != 0 && age >= 0 && age < maxDelay) {
        m_schedule.requestEventsTimeCheck(UploadSchedule::delayOfSeconds(maxDelay - age));
        return 0;
    }
    if (upload() != 0) return 1;
    m_schedule.requestEventsTimeCheck(UploadSchedule::kRecheckMs);
    return 0;
}
