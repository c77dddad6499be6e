#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "TimerQueue.h"
#include "UploadMessageQueue.h"

/// Who asks for upload work and when it is due: the messages of the upload thread, the timers that
/// post delayed ones, and the numbers by which a timer or a callback finds the living schedule.
///
/// It runs no work: the owner's thread takes the messages with `wait`. Any thread may post and
/// schedule. The destructor drops what is pending. Where the timers' thread cannot be started there
/// is a line of `TimerQueue`, and what is delayed waits for the next request with a delay.
class UploadSchedule {
  public:
    enum MessageId : int {
        StopThread = 0,
        UploadEvents = 1,
        UploadFiles = 2,
        RefreshConfig = 3,  ///< parameter non-zero: forced
        EventsTimeCheck = 4,
        Initialization = 5,
        SendDBFullFile = 6
    };
    using Message = UploadMessageQueue::Message;

    static constexpr long kRetryMs = 60000;     ///< delay after a failure
    static constexpr long kRecheckMs = 300000;  ///< after a time check that could not upload

    UploadSchedule();
    ~UploadSchedule();
    UploadSchedule(const UploadSchedule&) = delete;
    UploadSchedule& operator=(const UploadSchedule&) = delete;

    /// Posts a message unless an equal one waits.
    void post(int id, long param);
    /// Starts the timers' thread where it could not be started yet. @return whether it runs
    bool startMissingThread() { return m_timers.startMissingThread(); }
    /// Waits for the next message and takes it.
    Message wait() { return m_queue->pop(); }

    // Requests. Without a delay (ms) they post at once and leave a pending delayed one alone; with
    // a delay they replace the pending one of their kind. Delays are clamped to 1 ... 2147483647.
    void requestEventsUpload(long delayMs = 0);
    void requestFilesUpload(long delayMs = 0);
    void requestEventsTimeCheck(long delayMs = 0);
    /// With a delay the `force` flag is not carried: the delayed request is never forced.
    void requestRefreshConfig(long delayMs, bool force);
    void requestInitialization(long delayMs = 0);

    /// `seconds`, 1 or more, as a delay: no longer than a delay can be.
    static long delayOfSeconds(std::int64_t seconds);

    /// What a timer or a callback carries instead of an address: a number is harmless when its
    /// schedule has gone.
    unsigned int instance() const { return m_instance; }
    /// Posts `id` with parameter 0 to the living schedule of that number; nothing when cancelled
    /// or unknown. Any thread; the table's lock is held meanwhile.
    static void postTo(bool cancelled, unsigned int instance, int id);
    /// Requests a refresh of the living schedule of that number, if there is one.
    static void requestRefreshConfigOf(unsigned int instance, long delayMs, bool force);

  private:
    friend struct UploadSchedulePeer;

    struct Instances;

    static Instances& instances();
    void request(std::uint64_t& timer, long long delayMs, int id, long param);

    std::unique_ptr<UploadMessageQueue> m_queue;
    const unsigned int m_instance;  ///< this object's number in the class-wide table
    TimerQueue m_timers;            ///< after the queue that its handlers post to, so gone first
    std::mutex m_timerMutex;        ///< guards the five handles
    std::uint64_t m_eventsUploadTimer = 0;
    std::uint64_t m_filesUploadTimer = 0;
    std::uint64_t m_refreshConfigTimer = 0;
    std::uint64_t m_eventsTimeCheckTimer = 0;
    std::uint64_t m_initializationTimer = 0;
};
