#include "UploadImpl.h"

#include "CTouImpl.h"
#include "Config.h"
#include "NetworkHelper.h"
#include "TimeMgrImpl.h"
#include "UploadConditions.h"
#include "UploadLog.h"
#include "WebTimeImpl.h"

#include <chrono>
#include <exception>
#include <utility>

#include <cxxabi.h>

namespace {

constexpr std::chrono::seconds kStartUpLimit(10);  ///< for the time manager's database

const ClassLog& s_log = UploadLog::log;

}  // namespace

// --- life, thread and messages ------------------------------------------------------------------

UploadImpl::UploadImpl() {
    const unsigned int instance = m_schedule.instance();
    ConfigImpl::SetRefreshScheduler([instance](long delay, bool force) {
        UploadSchedule::requestRefreshConfigOf(instance, delay, force);
    });
    const int error = startThread();
    if (error != 0) s_log.error("Cannot start the thread: ", ClassLog::errnoText(error));
}

UploadImpl::~UploadImpl() {
    ConfigImpl::SetRefreshScheduler(nullptr);
    DB::setFullCallback(nullptr);
    stopThread();
}

void UploadImpl::Init(std::string dbPath) {
    m_db.open(std::move(dbPath), false);
    m_events.forgetFailure();
    const unsigned int instance = m_schedule.instance();
    DB::setFullCallback([instance] { postponedSendMsg(false, instance, SendDBFullFile); });
    ScheduleInitialization();
}

void UploadImpl::SetVerbose(bool verbose) {
    UploadLog::log.setVerbose(verbose);
}

bool UploadImpl::GetVerbose() {
    return UploadLog::log.isVerbose();
}

int UploadImpl::startThread() {
    return m_thread.start("UploadThread", [this] { return uploadThread(); });
}

bool UploadImpl::startMissingThreads() {
    const bool sends = m_thread.isStarted() || startThread() == 0;
    return m_schedule.startMissingThread() && sends;
}

int UploadImpl::uploadThread() {
    m_running = true;
    while (m_running) {
        const UploadSchedule::Message message = m_schedule.wait();
        s_log.info("Got message ", message.id, " ", message.param);
        if (message.id == StopThread) {
            m_running = false;
        } else {
            handleMsg(message.id, message.param);
            m_db.returnFreeMemory();
        }
    }
    return 0;
}

void UploadImpl::handleMsg(int id, long param) {
    try {
        runJob(id, param);
        followConditions();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        s_log.error("Message ", id, " failed: ", ClassLog::foreign(error.what()));
        tryAgain(id);
    } catch (...) {
        s_log.error("Message ", id, " failed");
        tryAgain(id);
    }
}

/// A job that was thrown out has not asked for the next one, on which uploads depend.
void UploadImpl::tryAgain(int id) {
    if (id == UploadEvents || id == EventsTimeCheck) {
        ScheduleEventsTimeCheck(UploadSchedule::kRecheckMs);
    }
    if (id == UploadFiles) ScheduleFilesUpload(UploadSchedule::kRetryMs);
    if (id == RefreshConfig) ScheduleRefreshConfig(UploadSchedule::kRetryMs, false);
    if (id == Initialization) ScheduleInitialization(UploadSchedule::kRetryMs);
}

/// A job that was turned away asks for nothing. What it lacked may have come since, in whichever
/// job: then all that waits is asked for. Until web time is known, the pause before the next
/// request for it ends with a job that makes it.
void UploadImpl::followConditions() {
    const bool hold = UploadConditions::hold(Config());
    if (hold && !m_conditionsHeld) askForWaitingWork();
    m_conditionsHeld = hold;
    const std::int64_t pause = WebTimeImpl::isKnown() ? 0 : WebTimeImpl::msUntilNextTry();
    // The job for files begins with that request, and does nothing more where no file waits.
    if (pause > 0) ScheduleFilesUpload(static_cast<long>(pause));
    // Likewise: the refresh begins with reading what could not be read, and may end there.
    if (Config()->waitsForFiles()) ScheduleRefreshConfig(CTouImpl::kReadAgainMs, false);
}

void UploadImpl::askForWaitingWork() {
    if (Config()->MinimumSizeReached(m_db.totalEventSize())) ScheduleEventsUpload();
    if (m_db.getNumberOfFiles() != 0) ScheduleFilesUpload();
    ScheduleEventsTimeCheck();
}

void UploadImpl::runJob(int id, long param) {
    switch (id) {
        case UploadEvents:
            uploadEvents();
            break;
        case UploadFiles:
            uploadFiles();
            break;
        case RefreshConfig:
            refreshConfig(param != 0);
            break;
        case EventsTimeCheck:
            eventsTimeCheck();
            break;
        case Initialization:
            initialize();
            break;
        case SendDBFullFile:
            sendDBFullFile();
            break;
        default:
            break;
    }
}

void UploadImpl::stopThread() {
    if (!m_thread.isStarted()) return;
    sendMsg(StopThread, 0);
    if (m_thread.isCurrent()) {
        s_log.error("Cannot join on the same thread!");
        return;
    }
    m_thread.join();
}

// --- initialization and configuration -----------------------------------------------------------

int UploadImpl::initialize() {
    if (!TimeMgrImpl::waitForDBPath(kStartUpLimit)) {
        s_log.error("Initializing before the time manager has its database");
    }
    if (!NetworkHelper().IsNetworkAvailable()) {
        s_log.info("Initialization not possible as network not available, will retry in 1 minute");
        ScheduleInitialization(UploadSchedule::kRetryMs);
        return 0;
    }
    s_log.info("Initializing: refreshing config, tou and pending upload");
    Singleton<WebTimeImpl>()->getWebTime();
    Config()->Refresh(false);
    Singleton<CTouImpl>()->Refresh();
    askForWaitingWork();
    return 1;
}

int UploadImpl::refreshConfig(bool force) {
    s_log.info("configRefresh request");
    if (Config()->Refresh(force)) {
        // Both jobs stopped without a timer when the configuration expired.
        ScheduleEventsTimeCheck();
        if (m_db.getNumberOfFiles() != 0) ScheduleFilesUpload();
    }
    return 1;
}
