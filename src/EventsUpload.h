#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "DB.h"
#include "Pause.h"
#include "UploadConditions.h"

class DatabaseReports;
class UploadSchedule;
namespace AwsWrapper {
class EventsPacket;
}

/// The upload of stored events: one packet of the oldest ones at a time, and the check that none
/// waits longer than the configuration allows.
///
/// Belongs to the upload side, which lends it the store, the schedule and the reports. For the
/// upload thread, without locks held; it takes the store's lock while it packs, and has none while
/// it sends. After a failure nothing is sent for a minute. What was accepted is never sent again:
/// where its rows could not be deleted, it packs nothing until they are.
class EventsUpload {
  public:
    EventsUpload(DB& store, UploadSchedule& schedule, DatabaseReports& reports)
        : m_store(store), m_schedule(schedule), m_conditions(store, reports) {}
    EventsUpload(const EventsUpload&) = delete;
    EventsUpload& operator=(const EventsUpload&) = delete;

    /// Sends a packet, deletes its events and asks for the next job.
    /// @return non-zero: a packet was sent and its events deleted
    int upload();
    /// Uploads when the oldest event is of age, and asks for the next check.
    /// @return non-zero: it ran an upload that succeeded
    int checkTimes();
    /// The next upload need not wait for the end of the minute. Any thread.
    void forgetFailure() { m_lastFailureTime = 0; }

  private:
    friend struct EventsUploadPeer;

    bool failedLessThanAMinuteAgo(std::int64_t now) const;
    void askForLocation();
    DB::EventSet packStoredEvents(AwsWrapper::EventsPacket& packet);
    bool deleteSentEvents();
    bool noSentEventIsLeft(std::int64_t now);
    int recordFailedSend(const char* reason);
    int scheduleAfterSend();

    DB& m_store;
    UploadSchedule& m_schedule;
    UploadConditions m_conditions;
    bool m_storeUnread = false;                        ///< as the latest packing found it
    Pause m_locationUnknown{std::chrono::minutes(1)};  ///< until it is asked for again
    std::optional<DB::EventSet> m_sent;                ///< accepted, and not deleted yet
    std::atomic<std::int64_t> m_lastFailureTime{0};    ///< UTC seconds; 0: the last send succeeded
};
