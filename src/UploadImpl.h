#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "AwsWrapperImpl.h"
#include "DB.h"
#include "Singleton.h"
#include "TimerQueue.h"
#include "UploadMessageQueue.h"

class Config;
namespace AwsWrapper {
class EventsPacket;
}

/// Everything on the sending side: the upload thread that runs one job at a time, its message
/// queue, the timer queue behind delayed requests, and the store it uploads from.
///
/// Reached through `Singleton<UploadImpl>`. `sendMsg` and the scheduling calls may come from any
/// thread and only post; the jobs run on the upload thread and use the instance they were started
/// by, never `Singleton<UploadImpl>`.
class UploadImpl {
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

    UploadImpl();
    ~UploadImpl();
    UploadImpl(const UploadImpl&) = delete;
    UploadImpl& operator=(const UploadImpl&) = delete;

    /// Opens the store, installs the database-full callback and posts the initialization.
    void Init(std::string dbPath);

    /// Posts a message unless an equal one waits.
    void sendMsg(int id, long param);
    /// The timer queue's callback: posts `id` with parameter 0 to the living `UploadImpl` that
    /// `instance` numbers; nothing when cancelled or unknown.
    static void postponedSendMsg(bool cancelled, unsigned int instance, int id);
    void handleMsg(int id, long param);
    /// Has the thread end behind all waiting work, and joins it.
    void stopThread();

    // Requests. Without a delay (ms) they post at once and leave a pending delayed one alone; with
    // a delay they replace the pending one of their kind. Delays are clamped to 1 ... 2147483647.
    void ScheduleEventsUpload(long delayMs);
    void ScheduleEventsUpload() { ScheduleEventsUpload(0); }
    void ScheduleFilesUpload(long delayMs);
    void ScheduleFilesUpload() { ScheduleFilesUpload(0); }
    void ScheduleEventsTimeCheck(long delayMs);
    void ScheduleEventsTimeCheck() { ScheduleEventsTimeCheck(0); }
    /// With a delay the `force` flag is not carried: the delayed request is never forced.
    void ScheduleRefreshConfig(long delayMs, bool force);
    void ScheduleRefreshConfig(bool force) { ScheduleRefreshConfig(0, force); }
    void ScheduleInitialization(long delayMs);
    void ScheduleInitialization() { ScheduleInitialization(0); }

    // Jobs, on the upload thread.
    int initialize();               ///< whether the network was available
    int refreshConfig(bool force);  ///< 1
    int uploadEvents();             ///< non-zero: a packet was sent and its events deleted
    int eventsTimeCheck();          ///< non-zero: it ran an upload that succeeded
    int uploadFiles();              ///< 1 when a record was uploaded or dropped
    int sendDBFullFile();           ///< the upload's result; 1 when there was nothing to do
    void sendDBErrorEvent();

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct UploadImplPeer;

    struct FilesPass;

    void uploadThread();
    void runJob(int id, long param);
    void tryAgain(int id);
    void schedule(std::uint64_t& timer, long long delayMs, int id, long param);
    static bool uploadIsPermitted();
    bool readyToUpload(const Config& config);
    static std::int64_t nowSeconds();
    bool failedLessThanAMinuteAgo(std::int64_t now) const;
    DB::EventSet packStoredEvents(AwsWrapper::EventsPacket& packet);
    int recordFailedSend(std::int64_t now, const char* reason);
    int scheduleAfterSend();
    bool uploadNextFile(FilesPass& pass);
    static std::int64_t secondsUntilRetry(const DB::PendingUpload& file);
    bool uploadFile(const DB::PendingUpload& file);

    static unsigned int registerInstance(UploadImpl* upload);
    static void forgetInstance(unsigned int instance);

    Singleton<AwsWrapperImpl> m_aws;
    std::unique_ptr<UploadMessageQueue> m_queue;
    std::unique_ptr<TimerQueue> m_timers;
    std::thread m_thread;
    std::atomic<bool> m_running{false};
    std::atomic<std::int64_t> m_lastFailureTime{0};  ///< UTC seconds; 0: the last send succeeded
    std::mutex m_timerMutex;                         ///< guards the five handles
    std::uint64_t m_eventsUploadTimer = 0;
    std::uint64_t m_filesUploadTimer = 0;
    std::uint64_t m_refreshConfigTimer = 0;
    std::uint64_t m_eventsTimeCheckTimer = 0;
    std::uint64_t m_initializationTimer = 0;
    bool m_fullDBFileSent = false;    ///< upload thread only
    bool m_dbErrorEventSent = false;  ///< upload thread only
    unsigned int m_instance = 0;      ///< this object's number in the class-wide table
    std::unique_ptr<DB> m_db;
    std::string m_listedDirectory = "/3rd_rw";
    std::string m_listingFile = "/tmp/dbfullfile.log";
};
