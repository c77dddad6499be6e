#include "GatewayImpl.h"

#include "CGlobalInfoImpl.h"
#include "ClassLog.h"
#include "Config.h"
#include "DBToken.h"
#include "EventType.h"
#include "Filename.h"
#include "KernelTime.h"
#include "OwnFiles.h"
#include "PimAppVersion.h"
#include "ReceivingQueue.h"
#include "SenderSemaphore.h"
#include "Status.h"
#include "StatusDocument.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include <cstddef>
#include <cstdio>

#include <cxxabi.h>

std::deque<JsonObject> GatewayImpl::m_Queue;
std::mutex GatewayImpl::m_QueueMutex;
std::string GatewayImpl::m_queueName = "/kiv_queue";
std::chrono::milliseconds GatewayImpl::m_firstReceiverRest(10000);
std::mutex GatewayImpl::m_latestMutex;
std::unique_ptr<TimeReference> GatewayImpl::m_latestEvent;

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::microseconds kIdleRest = 200ms;
constexpr int kRestPolls = 25;  // so many idle polls, 5 s, after an event are a rest
constexpr std::chrono::microseconds kLongestGathering = 20ms;
constexpr std::chrono::microseconds kGatheringStep = 200us;
constexpr std::chrono::microseconds kCrowdedRest = 2ms;
constexpr std::chrono::seconds kInitPatience = 2s;
constexpr std::chrono::milliseconds kLongestReceiverRest = 300s;

ClassLog s_log("kivGateway:");

/// Says at its thread's end, however that comes, that the thread has ended.
class ExitTrace {
  public:
    explicit ExitTrace(const char* text) : m_text(text) {}
    ~ExitTrace() { s_log.info(m_text); }
    ExitTrace(const ExitTrace&) = delete;
    ExitTrace& operator=(const ExitTrace&) = delete;

  private:
    const char* m_text;
};

/// How long the storing thread rests before it tries a store that fails once more: 200 ms in the
/// first second, then a second, and after ten seconds five.
class RetryPace {
  public:
    std::chrono::microseconds next() {
        const std::chrono::microseconds rest = m_rested < 1s ? 200ms : m_rested < 10s ? 1s : 5s;
        m_rested += rest;
        return rest;
    }
    void reset() { m_rested = 0us; }

  private:
    std::chrono::microseconds m_rested = 0us;
};

/// Drops the events that still wait, at the storing thread's end.
class DiscardAtTheEnd {
  public:
    explicit DiscardAtTheEnd(WaitingEvents& waiting) : m_waiting(waiting) {}
    ~DiscardAtTheEnd() { m_waiting.discard(); }
    DiscardAtTheEnd(const DiscardAtTheEnd&) = delete;
    DiscardAtTheEnd& operator=(const DiscardAtTheEnd&) = delete;

  private:
    WaitingEvents& m_waiting;
};

}  // namespace

GatewayImpl::GatewayImpl()
    : m_waiting(m_Queue, m_QueueMutex, s_log), m_waitingFiles(s_log), m_db(std::make_unique<DB>()) {
    makeFilters();
    const int storerError = startStorer();
    if (storerError != 0)
        s_log.error("Cannot start the storing thread: ", ClassLog::errnoText(storerError));
    const std::lock_guard<std::mutex> lock(m_receiverMutex);
    startReceiver();
}

GatewayImpl::~GatewayImpl() {
    {
        const std::lock_guard<std::mutex> lock(m_receiverMutex);
        m_ending = true;
    }
    m_receiver.cancel();
    m_receiver.join();
    m_storer.cancel();
    m_storer.join();
}

int GatewayImpl::startStorer() {
    // One character longer than Linux takes: the thread keeps its inherited name.
    return m_storer.start("GatewayLogThread", [this] {
        store();
        return 0;
    });
}

bool GatewayImpl::startMissingThread() {
    return m_storer.isStarted() || startStorer() == 0;
}

void GatewayImpl::makeFilters() {
    const Config config;
    m_filtersAreDefaults = config->storedIsUnread();
    m_eventFilter = std::make_unique<EventFilter>(JsonObject::parse(config->GetEventFilter()));
    m_fileFilter = std::make_unique<EventFilter>(JsonObject::parse(config->GetFileFilter()));
}

void GatewayImpl::Init(std::string dbPath) {
    m_db->open(dbPath, false);
    {
        const std::lock_guard<std::mutex> lock(m_initMutex);
        m_initialized = true;
    }
    m_initDone.notify_all();
    s_log.info("Gateway initialized");
}

// --- the receiving thread -----------------------------------------------------------------------

void GatewayImpl::startReceiver() {
    m_receiverEnded = false;
    const int error = m_receiver.start("GatewayThread", [this] {
        if (receive()) return 0;
        receiverHasEnded();
        return 1;
    });
    if (error == 0) return;
    s_log.error("Cannot start the receiving thread: ", ClassLog::errnoText(error));
    receiverHasEnded();
}

void GatewayImpl::receiverHasEnded() {
    m_receiverDue = std::chrono::steady_clock::now() + m_receiverRest;
    m_receiverRest = std::min(2 * m_receiverRest, kLongestReceiverRest);
    m_receiverEnded = true;  // last: from now on another thread looks at the two
}

void GatewayImpl::restartReceiver() {
    if (!m_receiverEnded || std::chrono::steady_clock::now() < m_receiverDue) return;
    const std::lock_guard<std::mutex> lock(m_receiverMutex);
    if (m_ending) return;
    m_receiver.join();
    startReceiver();
}

bool GatewayImpl::receive() {
    ReceivingQueue queue(m_queueName, s_log);
    if (!queue.isOpen()) return false;
    const ExitTrace trace("Gateway thread exited");
    if (!queue.makeRoom()) return false;
    m_receiverRest = m_firstReceiverRest;
    for (bool first = true;;) {
        try {
            if (nextMessage(queue) < 1) continue;
            if (first) waitForInit();
            first = false;
            handle(queue.text(), Handover::MaySetAside);
            // The senders wait meanwhile, and the events in memory stay few.
            while (m_waiting.isCrowded()) WorkerThread::sleep(kCrowdedRest);
        } catch (const std::exception& error) {  // the unwinding of a cancelled thread passes
            s_log.error("Message could not be received: ", ClassLog::foreign(error.what()));
            WorkerThread::sleep(kIdleRest);
        }
    }
}

/// Nothing stays set aside while this thread waits for a message: where none is there, it waits for
/// the batch first.
ssize_t GatewayImpl::nextMessage(ReceivingQueue& queue) {
    if (!handOver(Handover::MaySetAside)) {
        const ssize_t size = queue.receiveWaiting();
        if (size >= 0) return size;
        handOver(Handover::Wait);
    }
    return queue.receiveNext();
}

bool GatewayImpl::handOver(Handover handover) {
    const std::lock_guard<std::mutex> lock(m_logMutex);
    return m_waiting.handOver(handover);
}

void GatewayImpl::waitForInit() {
    std::unique_lock<std::mutex> lock(m_initMutex);
    m_initDone.wait_for(lock, kInitPatience, [this] { return m_initialized.load(); });
}

void GatewayImpl::Log(std::string message) {
    handle(message, Handover::Wait);
}

void GatewayImpl::handle(const std::string& message, Handover handover) {
    try {
        const std::string semaphore = handleMessage(message, handover);
        if (!semaphore.empty()) postSemaphore(semaphore);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        s_log.error("Message could not be handled: ", ClassLog::foreign(error.what()));
    } catch (...) {
        s_log.error("Message could not be handled: unknown error");
    }
}

std::string GatewayImpl::handleMessage(const std::string& message, Handover handover) {
    s_log.info(" message received: ", message);
    if (!m_initialized) {
        s_log.error("Gateway not initialized: Ignore");
        return JsonObject::parse(message).optString("syncsem");
    }
    Status::count(Status::Received);
    JsonObject event = JsonObject::parse(message);
    if (!event.isObject()) {
        s_log.error("Invalid JSON object: Ignore");
        Status::count(Status::NotAnEvent);
        return "";
    }
    std::string semaphore = event.optString("syncsem");
    event.del("syncsem");
    try {
        const std::lock_guard<std::mutex> lock(m_logMutex);
        handleEvent(std::move(event), semaphore.empty() ? handover : Handover::Wait);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        // The sender is woken all the same.
        s_log.error("Event could not be handled: ", ClassLog::foreign(error.what()));
    }
    return semaphore;
}

void GatewayImpl::handleEvent(JsonObject event, Handover handover) {
    const std::string typeText = event.optString("event-type");
    if (typeText == "pim.start") {
        const JsonObject data = event.getObject("data");
        PimAppVersion::updatePimVersion(data.optString("pim-version"),
                                        data.optString("pim-builddate"));
    }
    if (!Config()->collectionAllowed()) {
        s_log.info("TOU not accepted: will not send event");
        Status::count(Status::RefusedByConsent);
        return;
    }
    if (m_filtersAreDefaults) makeFilters();
    s_log.info(" will be sent");
    if (!m_eventFilter->matches(event)) {
        Status::count(Status::RefusedByFilter);
        return;
    }
    const bool travelsAsFile = takeAnnouncedFile(event);
    if (!travelsAsFile) completeAndQueue(std::move(event), typeText, handover);
}

bool GatewayImpl::takeAnnouncedFile(JsonObject& event) {
    const JsonObject url = event.getObject("oob-url");
    const JsonObject info = event.getObject("data").getObject("oob-info");
    if (!url.isNull() && m_fileFilter->matches(event)) {
        if (url.isString())
            registerFile(event, url.getAsString(), info);
        else
            s_log.error("oob-url is no string: Ignore the file ",
                        ClassLog::foreign(url.getStringRep()));
    }
    return !info.isNull();
}

void GatewayImpl::registerFile(JsonObject& event, const std::string& url, const JsonObject& info) {
    const std::string random = DBToken::randomUuid();
    std::string id = info.optString("unique-id");
    if (id.empty()) {
        id = "oob_" + Singleton<CGlobalInfoImpl>()->getDeviceId() + "_" + random +
             Filename::getFileExt(url);
    }
    event.set("oob-id", id);
    if (OwnFiles::contains(url)) {
        s_log.error("File is the daemon's own: Ignore the file ", ClassLog::foreign(url));
        return;
    }
    addFile({id, url, info.isNull() ? "" : info.getStringRep()});
}

/// At once where nothing is in the way: its event is not stored ahead of it. Otherwise the storing
/// thread does it.
void GatewayImpl::addFile(WaitingFiles::File file) {
    using Outcome = WaitingFiles::Outcome;
    const bool mayBeTaken = !m_waiting.isStoreFailing() && m_waitingFiles.isEmpty();
    const Outcome outcome = !FilesTable::accepts(file) ? Outcome::Refused
                            : mayBeTaken               ? m_db->registerFileAtOnce(file)
                                                       : Outcome::NotNow;
    if (outcome == Outcome::NotNow) {
        m_waitingFiles.add(std::move(file));
        return;
    }
    if (outcome == Outcome::Refused)
        s_log.error("File could not be registered: ", ClassLog::foreign(file.url));
    m_upload->ScheduleFilesUpload();
}

void GatewayImpl::completeAndQueue(JsonObject event, const std::string& typeText,
                                   Handover handover) {
    const long long sentKernelTime = event.optInteger("kernel-time", 0);
    const EventType type(typeText);
    event.set("eventid", JsonObject::createInteger(type.getId()));
    event.set("event-type", type.getName());
    const TimeReference now;
    {
        const std::lock_guard<std::mutex> lock(m_latestMutex);
        m_latestEvent = std::make_unique<TimeReference>(now);
    }
    event.set("boot-count", JsonObject::createInteger(now.bootCount));
    event.set("standby-count", JsonObject::createInteger(now.standbyCount));
    if (sentKernelTime < 1) event.set("kernel-time", JsonObject::createInteger(now.kernelTime));
    if (s_log.isVerbose()) {
        std::printf("%s message stored in queue: %s\n", s_log.tag(), event.getStringRep().c_str());
    }
    m_waiting.add(std::move(event), handover);
}

void GatewayImpl::postSemaphore(const std::string& name) {
    s_log.info("Signal semaphore ", name);
    SenderSemaphore(name, s_log).post();
}

void GatewayImpl::store() {
    const DiscardAtTheEnd discard(m_waiting);
    const ExitTrace trace("Gateway logging thread exited");
    RetryPace retries;
    StatusDocument status;
    for (int idlePolls = 0;;) {
        restartReceiver();
        status.write();
        std::size_t stored = 0;
        try {
            stored = storeWaitingEvents();
        } catch (const std::exception& error) {  // cancellation is off: no unwinding passes here
            s_log.error("Events could not be stored: ", ClassLog::foreign(error.what()));
        }
        if (m_waiting.isStoreFailing() || (stored == 0 && !m_waitingFiles.isEmpty())) {
            WorkerThread::sleep(retries.next());
            continue;
        }
        retries.reset();
        idlePolls = stored > 0 ? 0 : std::min(idlePolls + 1, kRestPolls + 1);
        if (idlePolls == kRestPolls) m_db->returnFreeMemory();
        if (stored >= WaitingEvents::kMostOfABatch)
            gatherBatch();
        else
            WorkerThread::sleep(kIdleRest);
    }
}

/// Goes on while full batches wait; fewer events are left for `gatherBatch` to make more of.
std::size_t GatewayImpl::storeWaitingEvents() {
    std::size_t stored = 0;
    registerWaitingFiles();  // the most of them here, where no sender waits for it
    for (bool more = true; more;) {
        long totalSize = 0;
        const auto addEvents = [&](const WaitingEvents::Rows& rows) {
            registerWaitingFiles();  // ahead of their events, as far as that goes at once
            std::size_t taken = 0;
            totalSize = m_db->addEvents(rows, taken);
            return taken;
        };
        const auto batch = m_waiting.storeBatch(addEvents, [this](const EventPruner::Range& lost) {
            return m_db->addOverflowEvent(lost);
        });
        // Also when a full store took nothing: only an upload makes room.
        if (totalSize > 0 && Config()->MinimumSizeReached(totalSize))
            m_upload->ScheduleEventsUpload();
        if (batch.taken == 0) break;  // nothing waits, or the store fails
        stored += batch.taken;
        Status::count(Status::Stored, batch.taken);
        more = batch.more;
    }
    // Only now: until events are stored again the upload would find the store in error.
    if (m_filesAreNew) m_upload->ScheduleFilesUpload();
    m_filesAreNew = false;
    return stored;
}

void GatewayImpl::registerWaitingFiles() {
    const auto inStore = [this](const WaitingFiles::File& file) {
        return m_db->registerFile(file);
    };
    if (m_waitingFiles.registerAll(inStore)) m_filesAreNew = true;
}

/// While events pour in, gives the next full batch a moment to gather: one sync pays for it.
void GatewayImpl::gatherBatch() {
    for (auto slept = 0us; slept < kLongestGathering; slept += kGatheringStep) {
        if (m_waiting.size() >= WaitingEvents::kMostOfABatch) return;
        WorkerThread::sleep(kGatheringStep);
    }
}

std::unique_ptr<TimeReference> GatewayImpl::latestEvent() {
    const std::lock_guard<std::mutex> lock(m_latestMutex);
    return m_latestEvent ? std::make_unique<TimeReference>(*m_latestEvent) : nullptr;
}

void GatewayImpl::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}
bool GatewayImpl::GetVerbose() {
    return s_log.isVerbose();
}
