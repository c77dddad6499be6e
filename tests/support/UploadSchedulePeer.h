#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>

#include "TimerQueue.h"
#include "UploadSchedule.h"
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

/// What is asked for: the messages that wait, and the timers.
struct UploadSchedulePeer {
    using Messages = UploadMessageQueuePeer::Messages;

    static Messages waiting(UploadSchedule& schedule) {
        return UploadMessageQueuePeer::waiting(*schedule.m_queue);
    }
    static Messages take(UploadSchedule& schedule) {
        return UploadMessageQueuePeer::take(*schedule.m_queue);
    }

    /// The handle of the kind's delayed message; 0: there was none yet.
    static std::uint64_t timer(UploadSchedule& schedule, int id) {
        const std::lock_guard<std::mutex> lock(schedule.m_timerMutex);
        switch (id) {
            case UploadSchedule::UploadEvents:
                return schedule.m_eventsUploadTimer;
            case UploadSchedule::UploadFiles:
                return schedule.m_filesUploadTimer;
            case UploadSchedule::RefreshConfig:
                return schedule.m_refreshConfigTimer;
            case UploadSchedule::EventsTimeCheck:
                return schedule.m_eventsTimeCheckTimer;
            case UploadSchedule::Initialization:
                return schedule.m_initializationTimer;
            default:
                return 0;
        }
    }

    /// Milliseconds until the kind's delayed message is posted; -1: none is pending.
    static long long pendingDelay(UploadSchedule& schedule, int id) {
        const std::uint64_t handle = timer(schedule, id);
        TimerQueue& timers = schedule.m_timers;
        const std::lock_guard<std::mutex> lock(mutexOf(timers));
        for (const auto& item : itemsOf(timers).storage()) {
            if (handle == 0 || item.id != handle || !item.handler) continue;
            const auto left = item.end - std::chrono::steady_clock::now();
            return std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
        }
        return -1;
    }

    /// How many delayed messages are pending, of all kinds.
    static int pendingTimers(UploadSchedule& schedule) {
        TimerQueue& timers = schedule.m_timers;
        const std::lock_guard<std::mutex> lock(mutexOf(timers));
        int count = 0;
        for (const auto& item : itemsOf(timers).storage()) {
            if (item.id != 0 && item.handler) ++count;
        }
        return count;
    }
};
