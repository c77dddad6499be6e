#pragma once

#include <atomic>
#include <string>

#include "AwsWrapperImpl.h"
#include "DB.h"
#include "DatabaseReports.h"
#include "EventsUpload.h"
#include "FilesUpload.h"
#include "Singleton.h"
#include "UploadSchedule.h"
#include "WorkerThread.h"

/// The sending side: the upload thread, which runs one job at a time, the store that it uploads
/// from, and the schedule that wakes it. The jobs themselves are rooms of their own.
///
/// Reached through `Singleton<UploadImpl>`. `sendMsg` and the scheduling calls may come from any
/// thread and only post; the jobs run on the upload thread and use the instance they were started
/// by, never `Singleton<UploadImpl>`. A job that throws gets a line and is asked for again; where
/// the thread cannot be started there is a line, and the messages wait.
class UploadImpl {
  public:
    using MessageId = UploadSchedule::MessageId;
    static constexpr MessageId StopThread = UploadSchedule::StopThread;
    static constexpr MessageId UploadEvents = UploadSchedule::UploadEvents;
    static constexpr MessageId UploadFiles = UploadSchedule::UploadFiles;
    static constexpr MessageId RefreshConfig = UploadSchedule::RefreshConfig;
    static constexpr MessageId EventsTimeCheck = UploadSchedule::EventsTimeCheck;
    static constexpr MessageId Initialization = UploadSchedule::Initialization;
    static constexpr MessageId SendDBFullFile = UploadSchedule::SendDBFullFile;

    UploadImpl();
    ~UploadImpl();
    UploadImpl(const UploadImpl&) = delete;
    UploadImpl& operator=(const UploadImpl&) = delete;

    /// Starts this thread and that of the timers where they could not be started yet, without a
    /// line; for the thread that made the object. @return whether both run
    bool startMissingThreads();

    /// Opens the store, installs the database-full callback and posts the initialization.
    void Init(std::string dbPath);

    /// Posts a message unless an equal one waits.
    void sendMsg(int id, long param) { m_schedule.post(id, param); }
    /// The timer queue's callback: posts `id` with parameter 0 to the living `UploadImpl` that
    /// `instance` numbers; nothing when cancelled or unknown.
    static void postponedSendMsg(bool cancelled, unsigned int instance, int id) {
        UploadSchedule::postTo(cancelled, instance, id);
    }
    void handleMsg(int id, long param);
    /// Has the thread end after all waiting work, and joins it.
    void stopThread();

    // Requests. Without a delay (ms) they post at once and leave a pending delayed one alone; with
    // a delay they replace the pending one of their kind. Delays are clamped to 1 ... 2147483647.
    void ScheduleEventsUpload(long delayMs) { m_schedule.requestEventsUpload(delayMs); }
    void ScheduleEventsUpload() { ScheduleEventsUpload(0); }
    void ScheduleFilesUpload(long delayMs) { m_schedule.requestFilesUpload(delayMs); }
    void ScheduleFilesUpload() { ScheduleFilesUpload(0); }
    void ScheduleEventsTimeCheck(long delayMs) { m_schedule.requestEventsTimeCheck(delayMs); }
    void ScheduleEventsTimeCheck() { ScheduleEventsTimeCheck(0); }
    /// With a delay the `force` flag is not carried: the delayed request is never forced.
    void ScheduleRefreshConfig(long delayMs, bool force) {
        m_schedule.requestRefreshConfig(delayMs, force);
    }
    void ScheduleRefreshConfig(bool force) { ScheduleRefreshConfig(0, force); }
    void ScheduleInitialization(long delayMs) { m_schedule.requestInitialization(delayMs); }
    void ScheduleInitialization() { ScheduleInitialization(0); }

    // Jobs, on the upload thread.
    int initialize();               ///< whether the network was available
    int refreshConfig(bool force);  ///< 1
    /// Non-zero: a packet was sent and its events deleted.
    int uploadEvents() { return m_events.upload(); }
    /// Non-zero: it ran an upload that succeeded.
    int eventsTimeCheck() { return m_events.checkTimes(); }
    /// 1 when a record was uploaded or dropped.
    int uploadFiles() { return m_files.run(); }
    /// The upload's result; 1 when there was nothing to do.
    int sendDBFullFile() { return m_reports.sendFullFile(); }
    void sendDBErrorEvent() { m_reports.sendErrorEvent(); }

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct UploadImplPeer;

    int startThread();  ///< 0, or the errno for which it is missing
    int uploadThread();
    void runJob(int id, long param);
    void tryAgain(int id);
    void followConditions();
    void askForWaitingWork();

    Singleton<AwsWrapperImpl> m_aws;
    DB m_db;
    UploadSchedule m_schedule;
    DatabaseReports m_reports{*m_aws, m_schedule};
    EventsUpload m_events{m_db, m_schedule, m_reports};
    FilesUpload m_files{m_db, m_schedule, *m_aws, m_reports};
    bool m_conditionsHeld = true;  ///< after the latest job; for the upload thread
    std::atomic<bool> m_running{false};
    WorkerThread m_thread;
};
