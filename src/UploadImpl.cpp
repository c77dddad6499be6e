#include "UploadImpl.h"

#include "AlarmBlock.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "Config.h"
#include "DbgOut.h"
#include "Descriptor.h"
#include "DirectoryListing.h"
#include "EventTimeRework.h"
#include "EventType.h"
#include "EventsPacket.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "LocationInfo.h"
#include "NetworkHelper.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UtcTime.h"
#include "UtcTimeMs.h"
#include "WebTimeImpl.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include <cxxabi.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kTag[] = "kivUpload: ";
constexpr std::int64_t kRetrySeconds = 60;         ///< after a failure
constexpr long kRetryMs = 60000;                   ///< the same
constexpr long kRecheckMs = 300000;                ///< after a time check that could not upload
constexpr long long kMaxDelayMs = 2147483647;      ///< a delay's width, and about 24 days
constexpr std::chrono::seconds kStartUpLimit(10);  ///< for the time manager's database
/// Kernel milliseconds stay below this (3 years of uptime), UTC milliseconds above it (since 1973).
constexpr std::int64_t kFirstUtcMs = 100000000000;

std::atomic<bool> verbose{false};

template <typename... Parts>
void logLine(const Parts&... parts) {
    if (verbose) ((coutdbg << kTag) << ... << parts) << std::endl;
}

template <typename... Parts>
void logError(const Parts&... parts) {
    ((cerrdbg << kTag) << ... << parts) << std::endl;
}

/// The living objects by their numbers: what a timer or a callback carries is a number, which is
/// harmless when its object has gone.
struct Instances {
    std::mutex mutex;  ///< guards the rest; held while an object found here is used
    unsigned int last = 0;
    std::map<unsigned int, UploadImpl*> living;
};

Instances& instances() {
    static Instances table;
    return table;
}

void withInstance(unsigned int instance, const std::function<void(UploadImpl&)>& use) {
    std::unique_lock<std::mutex> lock(instances().mutex);
    const auto found = instances().living.find(instance);
    if (found != instances().living.end()) use(*found->second);
}

/// Seconds, 1 or more, as a delay.
long delayMs(std::int64_t seconds) {
    return static_cast<long>(std::min<std::int64_t>(seconds, kMaxDelayMs / 1000) * 1000);
}

std::string componentFolder() {
    const std::string component = Singleton<CGlobalInfoImpl>()->getComponent();
    return component.empty() ? "Unknown" : component;
}

/// Asked what it is first: opening a pipe would wait for a writer.
bool isReadableFile(const std::string& path) {
    struct stat facts = {};
    if (::stat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    return static_cast<bool>(std::ifstream(path));
}

/// Creates or truncates, but neither follows a link nor waits for the reader of a pipe.
Descriptor openForWriting(const std::string& path) {
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return Descriptor(::open(path.c_str(), flags, 0644));
}

bool writeListing(const std::string& directory, const std::string& path) {
    std::ostringstream listing;
    DirectoryListing::listDirectory(directory, listing);
    const Descriptor file = openForWriting(path);
    if (file.isOpen() && file.writeAll(listing.str())) return true;
    logError("Cannot write ", path, ": ", ::strerror(errno));
    return false;
}

/// The text as JSON can hold it: the database quotes pieces of statements, which may begin or end
/// within a character.
std::string asUtf8(std::string text) {
    if (JsonObject::createObject().set("text", text) == 0) return text;
    for (char& character : text) {
        if (static_cast<unsigned char>(character) >= 0x80) character = '?';
    }
    return text;
}

/// The "db.error" event of this moment; "" when it cannot be packed.
std::string databaseErrorEvent() {
    const TimeReference now;
    const std::string message = asUtf8(DB::lastErrorMessage());
    JsonObject event;
    if (!event.Pack("{s:s, s:i, s:i, s:i, s:I, s:s}", "event-type", "db.error", "eventid",
                    static_cast<int>(EventType::getEventIdByName("db.error")), "boot-count",
                    static_cast<int>(now.bootCount), "standby-count",
                    static_cast<int>(now.standbyCount), "kernel-time",
                    static_cast<json_int_t>(now.kernelTime), "error-msg", message.c_str())) {
        return "";
    }
    return event.dumpAsString();
}

}  // namespace

/// What one run over the announced files has done.
struct UploadImpl::FilesPass {
    std::set<std::string> seen;  ///< names
    bool handledAny = false;     ///< uploaded or dropped
};

// --- life, thread and messages ------------------------------------------------------------------

UploadImpl::UploadImpl()
    : m_queue(std::make_unique<UploadMessageQueue>()), m_instance(registerInstance(this)) {
    const AlarmBlock inherited;
    m_timers = std::make_unique<TimerQueue>();
    m_db = std::make_unique<DB>();
    const unsigned int instance = m_instance;
    ConfigImpl::SetRefreshScheduler([instance](long delay, bool force) {
        withInstance(instance,
                     [=](UploadImpl& upload) { upload.ScheduleRefreshConfig(delay, force); });
    });
    m_thread = std::thread(&UploadImpl::uploadThread, this);
}

UploadImpl::~UploadImpl() {
    ConfigImpl::SetRefreshScheduler(nullptr);
    DB::setFullCallback(nullptr);
    stopThread();
    forgetInstance(m_instance);
    m_timers.reset();  // before the queue that its handlers post to
    m_queue.reset();
    m_running = false;
    m_db.reset();
}

void UploadImpl::Init(std::string dbPath) {
    m_db->open(dbPath, false);
    m_lastFailureTime = 0;
    const unsigned int instance = m_instance;
    DB::setFullCallback([instance] { postponedSendMsg(false, instance, SendDBFullFile); });
    ScheduleInitialization();
}

unsigned int UploadImpl::registerInstance(UploadImpl* upload) {
    std::unique_lock<std::mutex> lock(instances().mutex);
    const unsigned int instance = ++instances().last;
    instances().living[instance] = upload;
    return instance;
}

void UploadImpl::forgetInstance(unsigned int instance) {
    std::unique_lock<std::mutex> lock(instances().mutex);
    instances().living.erase(instance);
}

void UploadImpl::SetVerbose(bool on) {
    verbose = on;
}

bool UploadImpl::GetVerbose() {
    return verbose;
}

void UploadImpl::sendMsg(int id, long param) {
    if (m_queue->push({id, param})) logLine(" Send message ", id, " ", param);
}

void UploadImpl::postponedSendMsg(bool cancelled, unsigned int instance, int id) {
    if (cancelled) return;
    withInstance(instance, [=](UploadImpl& upload) { upload.sendMsg(id, 0); });
}

void UploadImpl::uploadThread() {
    ::pthread_setname_np(::pthread_self(), "UploadThread");
    m_running = true;
    while (m_running) {
        const UploadMessageQueue::Message message = m_queue->pop();
        logLine("Got message ", message.id, " ", message.param);
        if (message.id == StopThread) {
            m_running = false;
        } else {
            handleMsg(message.id, message.param);
            m_db->returnFreeMemory();
        }
    }
}

void UploadImpl::handleMsg(int id, long param) {
    try {
        runJob(id, param);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        logError("Message ", id, " failed: ", error.what());
        tryAgain(id);
    } catch (...) {
        logError("Message ", id, " failed");
        tryAgain(id);
    }
}

/// A job that was thrown out has not asked for the next one, on which uploads depend.
void UploadImpl::tryAgain(int id) {
    if (id == UploadEvents || id == EventsTimeCheck) ScheduleEventsTimeCheck(kRecheckMs);
    if (id == UploadFiles) ScheduleFilesUpload(kRetryMs);
    if (id == Initialization) ScheduleInitialization(kRetryMs);
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
    if (!m_thread.joinable()) return;
    sendMsg(StopThread, 0);
    if (m_thread.get_id() == std::this_thread::get_id()) {
        logError("Cannot join on the same thread!");
        return;
    }
    m_thread.join();
}

// --- scheduling ---------------------------------------------------------------------------------

void UploadImpl::schedule(std::uint64_t& timer, long long delay, int id, long param) {
    if (delay == 0) {
        sendMsg(id, param);
        return;
    }
    const long long clamped = std::min(std::max(delay, 1LL), kMaxDelayMs);
    std::unique_lock<std::mutex> lock(m_timerMutex);
    if (timer != 0) m_timers->cancel(timer);
    timer = m_timers->add(clamped, m_instance, id, postponedSendMsg);
}

void UploadImpl::ScheduleEventsUpload(long delay) {
    schedule(m_eventsUploadTimer, delay, UploadEvents, 0);
}

void UploadImpl::ScheduleFilesUpload(long delay) {
    schedule(m_filesUploadTimer, delay, UploadFiles, 0);
}

void UploadImpl::ScheduleEventsTimeCheck(long delay) {
    schedule(m_eventsTimeCheckTimer, delay, EventsTimeCheck, 0);
}

void UploadImpl::ScheduleRefreshConfig(long delay, bool force) {
    logLine("ScheduleRefreshConfig delay:", delay);
    schedule(m_refreshConfigTimer, delay, RefreshConfig, force ? 1 : 0);
}

void UploadImpl::ScheduleInitialization(long delay) {
    schedule(m_initializationTimer, delay, Initialization, 0);
}

// --- initialization and configuration -----------------------------------------------------------

int UploadImpl::initialize() {
    if (!TimeMgrImpl::waitForDBPath(kStartUpLimit)) {
        logError("Initializing before the time manager has its database");
    }
    if (!NetworkHelper().IsNetworkAvailable()) {
        logLine("Initialization not possible as network not available, will retry in 1 minute");
        ScheduleInitialization(kRetryMs);
        return 0;
    }
    logLine("Initializing: refreshing config, tou and pending upload");
    Singleton<WebTimeImpl>()->getWebTime();
    const Config config;
    config->Refresh(false);
    Singleton<CTouImpl>()->Refresh();
    if (config->MinimumSizeReached(m_db->totalEventSize())) ScheduleEventsUpload();
    if (m_db->getNumberOfFiles() != 0) ScheduleFilesUpload();
    ScheduleEventsTimeCheck();
    return 1;
}

int UploadImpl::refreshConfig(bool force) {
    logLine("configRefresh request");
    if (Config()->Refresh(force)) {
        // Both jobs stopped without a timer when the configuration expired.
        ScheduleEventsTimeCheck();
        if (m_db->getNumberOfFiles() != 0) ScheduleFilesUpload();
    }
    return 1;
}

// --- events -------------------------------------------------------------------------------------

bool UploadImpl::uploadIsPermitted() {
    return Config()->GetTouAccepted();
}

/// Asks for web time and for a newer configuration first; a store in error gets its event instead.
/// @return whether consent, configuration and web time allow an upload
bool UploadImpl::readyToUpload(const Config& config) {
    const bool webTimeKnown = Singleton<WebTimeImpl>()->getWebTime();
    config->Refresh(false);
    if (DB::m_dbError) {
        sendDBErrorEvent();
        return false;
    }
    return uploadIsPermitted() && !config->configIsExpired() && webTimeKnown;
}

std::int64_t UploadImpl::nowSeconds() {
    return Singleton<TimeMgrImpl>()->getTime() / 1000;
}

bool UploadImpl::failedLessThanAMinuteAgo(std::int64_t now) const {
    const std::int64_t distance = now - m_lastFailureTime;
    return m_lastFailureTime != 0 && distance >= 0 && distance < kRetrySeconds;
}

int UploadImpl::uploadEvents() {
    logLine("uploadEvents request");
    const Config config;
    if (!readyToUpload(config)) return 0;
    const std::int64_t now = nowSeconds();
    if (now == 0 || failedLessThanAMinuteAgo(now)) return 0;

    LocationInfo::getLocation();  // may use the network: not under the store's lock
    AwsWrapper::EventsPacket packet(config->GetMaxSize());
    const DB::EventSet events = packStoredEvents(packet);
    if (packet.IsEmpty()) return 0;
    logLine("Try to send packet");
    if (!packet.Send()) return recordFailedSend(now, "Event upload failed");
    m_lastFailureTime = 0;
    logLine("Delete marked events from database");
    if (!m_db->deleteMarkedEvents(events)) {
        // Or the same packet would go out for ever.
        return recordFailedSend(now, "Deleting the sent events failed");
    }
    return scheduleAfterSend();
}

/// Fills the packet with the oldest events. Holds the store's lock, so that pruning deletes no
/// row that is being packed; other locks are taken behind it.
DB::EventSet UploadImpl::packStoredEvents(AwsWrapper::EventsPacket& packet) {
    const Singleton<TimeMgrImpl> timeManager;  // kept: its end takes the store's lock
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    logLine("uploadEvents will be done");
    DB::EventSet events = m_db->getEvents(false);
    for (std::string event = events.getNextAndMark(); !event.empty();
         event = events.getNextAndMark()) {
        logLine("Process event: ", event);
        const UtcTimeMs time = EventTimeRework::reworkEventTime(event, true);
        logLine("Add event to packet with utc time = ", static_cast<std::int64_t>(time));
        if (!packet.AddEvent(event, time)) {
            logLine("Packet full. Unmark last event");
            events.unmarkLast();
            break;
        }
    }
    events.close();
    return events;
}

int UploadImpl::recordFailedSend(std::int64_t now, const char* reason) {
    logError(reason, ", will try later in ", kRetrySeconds, " seconds");
    m_lastFailureTime = now;
    ScheduleEventsTimeCheck(kRetryMs);
    return 0;
}

/// A backlog is drained packet after packet; the rest waits until it comes of age.
int UploadImpl::scheduleAfterSend() {
    const long size = m_db->totalEventSize();
    logLine("DB remaining size = ", size);
    if (Config()->MinimumSizeReached(size)) {
        logLine("Scheduling upload of events of size ", size);
        ScheduleEventsUpload();
    } else {
        ScheduleEventsTimeCheck();
    }
    return 1;
}

int UploadImpl::eventsTimeCheck() {
    logLine("eventsTimeCheck request");
    const Config config;
    if (config->configIsExpired()) return 0;
    const std::int64_t maxDelay = config->GetMaxDelay();  // seconds
    if (maxDelay < 1) return 0;
    const std::int64_t now = nowSeconds();
    if (now == 0) return 0;
    std::string oldest = m_db->getOldestEvent();
    if (oldest.empty()) {
        ScheduleEventsTimeCheck(delayMs(maxDelay));
        return 0;
    }
    const std::int64_t time = EventTimeRework::reworkEventTime(oldest, false) / 1000;
    const std::int64_t age = now - time;
    if (time != 0 && age < maxDelay) {
        // An event from the future must not put the check off for longer than the age rule.
        ScheduleEventsTimeCheck(delayMs(maxDelay - std::max<std::int64_t>(age, 0)));
        return 0;
    }
    if (uploadEvents() != 0) return 1;
    ScheduleEventsTimeCheck(kRecheckMs);
    return 0;
}

// --- files --------------------------------------------------------------------------------------

int UploadImpl::uploadFiles() {
    logLine("uploadFiles request");
    const Config config;
    if (!readyToUpload(config)) return 0;
    if (nowSeconds() == 0) return 0;
    FilesPass pass;
    while (uploadNextFile(pass)) {
    }
    return pass.handledAny ? 1 : 0;
}

/// Handles the file whose last failure is oldest. @return whether the pass goes on
bool UploadImpl::uploadNextFile(FilesPass& pass) {
    const std::unique_ptr<DB::PendingUpload> file = m_db->getFirstUpload();
    if (file == nullptr) return false;
    if (!pass.seen.insert(file->id).second) {
        ScheduleFilesUpload(kRetryMs);
        return false;
    }
    const std::int64_t wait = secondsUntilRetry(*file);
    if (wait > 0) {
        ScheduleFilesUpload(delayMs(wait));
        return false;
    }
    logLine("Trying upload of \"", file->url, "\" ", file->id, " (retries=", file->retries, ")");
    if (!isReadableFile(file->url)) {
        m_db->removeUpload(file->id);
        logLine("File \"", file->url, "\" is invalid, removing ", file->id, " from DB");
        pass.handledAny = true;
    } else if (uploadFile(*file)) {
        pass.handledAny = true;
    } else {
        m_db->retryUpload(file->id);
    }
    return true;
}

/// How long a file that failed still has to wait; 0 when it is due. The last failure is dated in
/// kernel time, of an earlier cycle perhaps: one that seems to lie ahead is due.
std::int64_t UploadImpl::secondsUntilRetry(const DB::PendingUpload& file) {
    if (file.retries <= 0) return 0;
    const std::int64_t now =
        file.lastfail < kFirstUtcMs ? KernelTime::getTimeMonotonicAsInt64() / 1000 : nowSeconds();
    const std::int64_t distance = now - file.lastfail / 1000;
    return distance >= 0 && distance < kRetrySeconds ? kRetrySeconds - distance : 0;
}

/// @return whether the file is in the cloud, and its record gone. A bucket that one file names
/// stays in force for the later ones that name none.
bool UploadImpl::uploadFile(const DB::PendingUpload& file) {
    const JsonObject metadata = file.info.empty() ? JsonObject() : JsonObject::parse(file.info);
    std::string objectName = file.id;
    if (metadata.isNull()) {
        objectName = componentFolder() + "/" + file.id;
    } else {
        std::string defaultBucket = Config()->GetS3Bucket();
        m_aws->SetBucketName(metadata.optString("bucketname", defaultBucket));
    }
    if (!m_aws->UploadFile(objectName, file.url)) return false;
    m_db->removeUpload(file.id);
    if (!metadata.isNull() && ::unlink(file.url.c_str()) != 0) {
        logError("Cannot delete ", file.url, ": ", ::strerror(errno));
    }
    return true;
}

// --- reports on the database --------------------------------------------------------------------

int UploadImpl::sendDBFullFile() {
    if (m_fullDBFileSent || !uploadIsPermitted()) return 1;
    if (!writeListing(m_listedDirectory, m_listingFile)) return 0;
    const UtcTime today(static_cast<std::int32_t>(Singleton<WebTimeImpl>()->getWebTimeValue()));
    const std::string objectName = componentFolder() + "/kivApp_databasefull_" +
                                   Singleton<CGlobalInfoImpl>()->getDeviceId() + "_" +
                                   today.getDateString() + ".log";
    const bool sent = m_aws->UploadFile(objectName, m_listingFile);
    if (sent) {
        m_fullDBFileSent = true;
        logLine(" Sent full DB file to AWS ");
    }
    return sent ? 1 : 0;
}

void UploadImpl::sendDBErrorEvent() {
    if (m_dbErrorEventSent || !uploadIsPermitted()) return;
    LocationInfo::getLocation();
    std::string event = databaseErrorEvent();
    AwsWrapper::EventsPacket packet(Config()->GetMaxSize());
    const UtcTimeMs time = EventTimeRework::reworkEventTime(event, true);
    if (!event.empty() && packet.AddEvent(event, time) && packet.Send()) {
        m_dbErrorEventSent = true;
    } else {
        logError("DB Error event upload failed ");
    }
}
