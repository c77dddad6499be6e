#pragma once

#include <cstdint>
#include <string>

#include "UploadImpl.h"
#include "WorkerThread.h"
#include "support/DatabaseReportsPeer.h"
#include "support/EventsUploadPeer.h"
#include "support/UploadSchedulePeer.h"

/// The upload side's rooms, as one.
struct UploadImplPeer {
    using Messages = UploadSchedulePeer::Messages;

    static UploadSchedule& schedule(UploadImpl& upload) { return upload.m_schedule; }
    static Messages waiting(UploadImpl& upload) {
        return UploadSchedulePeer::waiting(upload.m_schedule);
    }
    static Messages take(UploadImpl& upload) { return UploadSchedulePeer::take(upload.m_schedule); }
    static std::uint64_t timer(UploadImpl& upload, int id) {
        return UploadSchedulePeer::timer(upload.m_schedule, id);
    }
    static long long pendingDelay(UploadImpl& upload, int id) {
        return UploadSchedulePeer::pendingDelay(upload.m_schedule, id);
    }
    static int pendingTimers(UploadImpl& upload) {
        return UploadSchedulePeer::pendingTimers(upload.m_schedule);
    }

    static DB& db(UploadImpl& upload) { return upload.m_db; }
    static unsigned int instance(UploadImpl& upload) { return upload.m_schedule.instance(); }
    static bool isRunning(UploadImpl& upload) { return upload.m_running; }
    static WorkerThread& thread(UploadImpl& upload) { return upload.m_thread; }
    static std::int64_t lastFailureTime(UploadImpl& upload) {
        return EventsUploadPeer::lastFailureTime(upload.m_events);
    }
    static void setLastFailureTime(UploadImpl& upload, std::int64_t utcSeconds) {
        EventsUploadPeer::setLastFailureTime(upload.m_events, utcSeconds);
    }
    static void letAMinutePass(UploadImpl& upload) {
        EventsUploadPeer::letAMinutePass(upload.m_events);
        DatabaseReportsPeer::letAMinutePass(upload.m_reports);
    }
    static bool fullDBFileSent(UploadImpl& upload) {
        return DatabaseReportsPeer::fullFileSent(upload.m_reports);
    }
    static bool dbErrorEventSent(UploadImpl& upload) {
        return DatabaseReportsPeer::errorEventSent(upload.m_reports);
    }
    static std::string bucket(UploadImpl& upload) { return upload.m_aws->GetBucketName(); }
    static void setBucket(UploadImpl& upload, const std::string& bucket) {
        upload.m_aws->SetBucketName(bucket);
    }
    /// Where the database-full report looks and what it writes.
    static void setReport(UploadImpl& upload, const std::string& directory,
                          const std::string& listingFile) {
        DatabaseReportsPeer::setReport(upload.m_reports, directory, listingFile);
    }
    static const std::string& listedDirectory(UploadImpl& upload) {
        return DatabaseReportsPeer::listedDirectory(upload.m_reports);
    }
    static const std::string& listingFile(UploadImpl& upload) {
        return DatabaseReportsPeer::listingFile(upload.m_reports);
    }
};
