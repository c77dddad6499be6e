#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "TimerQueue.h"
#include "UploadImpl.h"
#include "support/UploadMessageQueuePeer.h"

namespace {

// The timer queue shows its items to nobody. An explicit instantiation may name private members,
// and its friends hand them out.
auto& itemsOf(TimerQueue& queue);
auto& mutexOf(TimerQueue& queue);

template <auto Items, auto Mutex>
struct TimerQueueReach {
    friend auto& itemsOf(TimerQueue& queue) { return queue.*Items; }
    friend auto& mutexOf(TimerQueue& queue) { return queue.*Mutex; }
};
template struct TimerQueueReach<&TimerQueue::m_items, &TimerQueue::m_queueMutex>;

}  // namespace

/// The upload side's timers, messages and store.
struct UploadImplPeer {
    using Messages = UploadMessageQueuePeer::Messages;

    static Messages waiting(UploadImpl& upload) {
        return UploadMessageQueuePeer::waiting(*upload.m_queue);
    }
    static Messages take(UploadImpl& upload) {
        return UploadMessageQueuePeer::take(*upload.m_queue);
    }

    /// The handle of the kind's delayed message; 0: there was none yet.
    static std::uint64_t timer(UploadImpl& upload, int id) {
        std::unique_lock<std::mutex> lock(upload.m_timerMutex);
        switch (id) {
            case UploadImpl::UploadEvents:
                return upload.m_eventsUploadTimer;
            case UploadImpl::UploadFiles:
                return upload.m_filesUploadTimer;
            case UploadImpl::RefreshConfig:
                return upload.m_refreshConfigTimer;
            case UploadImpl::EventsTimeCheck:
                return upload.m_eventsTimeCheckTimer;
            case UploadImpl::Initialization:
                return upload.m_initializationTimer;
            default:
                return 0;
        }
    }

    /// Milliseconds until the kind's delayed message is posted; -1: none is pending.
    static long long pendingDelay(UploadImpl& upload, int id) {
        const std::uint64_t handle = timer(upload, id);
        TimerQueue& timers = *upload.m_timers;
        std::unique_lock<std::mutex> lock(mutexOf(timers));
        for (const auto& item : itemsOf(timers).storage()) {
            if (handle == 0 || item.id != handle || !item.handler) continue;
            const auto left = item.end - std::chrono::steady_clock::now();
            return std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
        }
        return -1;
    }

    /// How many delayed messages are pending, of all kinds.
    static int pendingTimers(UploadImpl& upload) {
        TimerQueue& timers = *upload.m_timers;
        std::unique_lock<std::mutex> lock(mutexOf(timers));
        int count = 0;
        for (const auto& item : itemsOf(timers).storage()) {
            if (item.id != 0 && item.handler) ++count;
        }
        return count;
    }

    static DB& db(UploadImpl& upload) { return *upload.m_db; }
    static unsigned int instance(UploadImpl& upload) { return upload.m_instance; }
    static bool isRunning(UploadImpl& upload) { return upload.m_running; }
    static std::thread& thread(UploadImpl& upload) { return upload.m_thread; }
    static std::int64_t lastFailureTime(UploadImpl& upload) { return upload.m_lastFailureTime; }
    static void setLastFailureTime(UploadImpl& upload, std::int64_t utcSeconds) {
        upload.m_lastFailureTime = utcSeconds;
    }
    static bool fullDBFileSent(UploadImpl& upload) { return upload.m_fullDBFileSent; }
    static bool dbErrorEventSent(UploadImpl& upload) { return upload.m_dbErrorEventSent; }
    static std::string bucket(UploadImpl& upload) { return upload.m_aws->GetBucketName(); }
    static void setBucket(UploadImpl& upload, const std::string& bucket) {
        upload.m_aws->SetBucketName(bucket);
    }
    /// Where the database-full report looks and what it writes.
    static void setReport(UploadImpl& upload, const std::string& directory,
                          const std::string& listingFile) {
        upload.m_listedDirectory = directory;
        upload.m_listingFile = listingFile;
    }
    static const std::string& listedDirectory(UploadImpl& upload) {
        return upload.m_listedDirectory;
    }
    static const std::string& listingFile(UploadImpl& upload) { return upload.m_listingFile; }
};
