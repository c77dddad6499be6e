#include "GatewayImpl.h"

#include "AlarmBlock.h"
#include "CGlobalInfoImpl.h"
#include "Config.h"
#include "DBToken.h"
#include "DbgOut.h"
#include "EventType.h"
#include "Filename.h"
#include "KernelTime.h"
#include "PimAppVersion.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <utility>
#include <vector>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <cxxabi.h>
#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>
#include <unistd.h>

std::deque<JsonObject> GatewayImpl::m_Queue;
std::mutex GatewayImpl::m_QueueMutex;
std::string GatewayImpl::m_queueName = "/kiv_queue";
std::mutex GatewayImpl::m_latestMutex;
std::unique_ptr<TimeReference> GatewayImpl::m_latestEvent;

namespace {

constexpr char kTag[] = "kivGateway:";
constexpr std::size_t kMaxBatch = 256;
constexpr useconds_t kIdleMicroseconds = 200000;
constexpr int kRestPolls = 25;  // so many idle polls, 5 s, after an event are a rest
constexpr useconds_t kBusyMicroseconds = 20000;
constexpr useconds_t kShortMicroseconds = 200;
constexpr useconds_t kCrowdedMicroseconds = 2000;
constexpr std::size_t kMostWaiting = 512;  // events in memory; beyond that the senders wait
constexpr std::chrono::seconds kInitPatience(2);

std::atomic<bool> verboseFlag{false};

std::string errorText(int error) {
    return std::strerror(error);
}

void allowCancellation(bool allowed) {
    int previous = 0;
    ::pthread_setcancelstate(allowed ? PTHREAD_CANCEL_ENABLE : PTHREAD_CANCEL_DISABLE, &previous);
}

/// Says at its thread's end, however that comes, that the thread has ended.
class ExitTrace {
  public:
    explicit ExitTrace(const char* text) : m_text(text) {}
    ~ExitTrace() {
        if (verboseFlag) coutdbg << kTag << m_text << std::endl;
    }
    ExitTrace(const ExitTrace&) = delete;
    ExitTrace& operator=(const ExitTrace&) = delete;

  private:
    const char* m_text;
};

/// The receiving end of the message queue; its end closes the descriptor and unlinks the name.
class ReceivingQueue {
  public:
    explicit ReceivingQueue(std::string name) : m_name(std::move(name)) { open(); }

    ~ReceivingQueue() {
        if (!isOpen()) return;
        unlinkName();
        closeDescriptor();
    }

    ReceivingQueue(const ReceivingQueue&) = delete;
    ReceivingQueue& operator=(const ReceivingQueue&) = delete;

    bool isOpen() const { return m_queue != static_cast<mqd_t>(-1); }
    mqd_t descriptor() const { return m_queue; }

  private:
    void open() {
        m_queue = ::mq_open(m_name.c_str(), O_RDONLY);
        if (isOpen()) {
            if (verboseFlag) coutdbg << kTag << "mqueue already exists, reusing it..." << std::endl;
            return;
        }
        m_queue = ::mq_open(m_name.c_str(), O_RDONLY | O_CREAT, 0660, nullptr);
        if (!isOpen()) std::perror((std::string(kTag) + "mq_open failed ").c_str());
    }

    void unlinkName() const {
        if (verboseFlag) coutdbg << kTag << "Unlink mqueue " << m_name << std::endl;
        if (::mq_unlink(m_name.c_str()) != 0)
            std::perror((std::string(kTag) + "mq_unlink failed ").c_str());
    }

    void closeDescriptor() const {
        if (verboseFlag) coutdbg << kTag << "Close mqueue " << m_queue << std::endl;
        if (::mq_close(m_queue) != 0) std::perror((std::string(kTag) + "mq_close failed ").c_str());
    }

    std::string m_name;
    mqd_t m_queue = static_cast<mqd_t>(-1);
};

/// The largest message that the queue can hold; 0, with the error said, when that is unknown.
std::size_t messageSize(mqd_t queue) {
    mq_attr attributes{};
    if (::mq_getattr(queue, &attributes) != 0) {
        std::perror((std::string(kTag) + "mq_getattr failed ").c_str());
        return 0;
    }
    if (verboseFlag) {
        std::printf("%s queue attributes are: flags:0x%x  maxmsg: %d  msgsize: %d  curmsgs: %d\n",
                    kTag, static_cast<unsigned int>(attributes.mq_flags),
                    static_cast<int>(attributes.mq_maxmsg), static_cast<int>(attributes.mq_msgsize),
                    static_cast<int>(attributes.mq_curmsgs));
    }
    return static_cast<std::size_t>(attributes.mq_msgsize);
}

/// The threads can be cancelled here, and in `mq_receive`, and nowhere else.
void cancellableSleep(useconds_t microseconds) {
    allowCancellation(true);
    ::usleep(microseconds);
    allowCancellation(false);
}

std::size_t waitingEvents() {
    std::unique_lock<std::mutex> lock(GatewayImpl::m_QueueMutex);
    return GatewayImpl::m_Queue.size();
}

/// Holds the receiving thread back while the storing thread is far behind: the senders wait, and
/// the events in memory stay few.
void waitWhileCrowded() {
    while (waitingEvents() >= kMostWaiting) cancellableSleep(kCrowdedMicroseconds);
}

/// While events pour in, gives the next full batch a moment to gather: one sync pays for it.
void gatherBatch() {
    for (useconds_t slept = 0; slept < kBusyMicroseconds; slept += kShortMicroseconds) {
        if (waitingEvents() >= kMaxBatch) return;
        cancellableSleep(kShortMicroseconds);
    }
}

/// A message that is there already; -1 when there is none.
ssize_t receiveWaiting(mqd_t queue, std::vector<char>& buffer) {
    const timespec longAgo{};
    return ::mq_timedreceive(queue, buffer.data(), buffer.size() - 1, nullptr, &longAgo);
}

ssize_t receiveNext(mqd_t queue, std::vector<char>& buffer) {
    allowCancellation(true);
    const ssize_t size = ::mq_receive(queue, buffer.data(), buffer.size() - 1, nullptr);
    const int error = errno;
    allowCancellation(false);
    if (size >= 0 || error == EINTR) return size;
    cerrdbg << kTag << "mq_receive failed : " << errorText(error) << std::endl;
    cancellableSleep(kIdleMicroseconds);
    return size;
}

DB::NewEvent toRow(const JsonObject& event) {
    DB::NewEvent row;
    row.bootCount = static_cast<long>(event.optInteger("boot-count", 0));
    row.standbyCount = static_cast<long>(event.optInteger("standby-count", 0));
    row.kernelTime = event.optInteger("kernel-time", 0);
    row.type = event.optString("event-type");
    row.data = event.getStringRep();
    return row;
}

/// Empties the queue of completed events at the storing thread's end.
class DiscardWaitingEvents {
  public:
    DiscardWaitingEvents() = default;
    ~DiscardWaitingEvents() {
        std::unique_lock<std::mutex> lock(GatewayImpl::m_QueueMutex);
        GatewayImpl::m_Queue.clear();
    }
    DiscardWaitingEvents(const DiscardWaitingEvents&) = delete;
    DiscardWaitingEvents& operator=(const DiscardWaitingEvents&) = delete;
};

void reportFailedSemaphoreCall(const char* what, const std::string& name, int error) {
    cerrdbg << kTag << what << name << ": " << errorText(error) << std::endl;
}

}  // namespace

GatewayImpl::GatewayImpl() : m_db(std::make_unique<DB>()) {
    Config config;
    m_eventFilter = std::make_unique<EventFilter>(JsonObject::parse(config->GetEventFilter()));
    m_fileFilter = std::make_unique<EventFilter>(JsonObject::parse(config->GetFileFilter()));
    const AlarmBlock inherited;
    const int storerError = ::pthread_create(&m_storer, nullptr, storeEntry, this);
    m_storerStarted = storerError == 0;
    if (!m_storerStarted)
        cerrdbg << kTag << "Cannot start the storing thread: " << errorText(storerError)
                << std::endl;
    const int receiverError = ::pthread_create(&m_receiver, nullptr, receiveEntry, this);
    m_receiverStarted = receiverError == 0;
    if (!m_receiverStarted) {
        cerrdbg << kTag << "Cannot start the receiving thread: " << errorText(receiverError)
                << std::endl;
    }
}

GatewayImpl::~GatewayImpl() {
    if (m_receiverStarted) {
        ::pthread_cancel(m_receiver);
        ::pthread_join(m_receiver, nullptr);
    }
    if (m_storerStarted) {
        ::pthread_cancel(m_storer);
        ::pthread_join(m_storer, nullptr);
    }
}

void GatewayImpl::Init(std::string dbPath) {
    m_db->open(dbPath, false);
    {
        std::unique_lock<std::mutex> lock(m_initMutex);
        m_initialized = true;
    }
    m_initDone.notify_all();
    if (verboseFlag) coutdbg << kTag << "Gateway initialized" << std::endl;
}

void* GatewayImpl::receiveEntry(void* gateway) {
    allowCancellation(false);
    ::pthread_setname_np(::pthread_self(), "GatewayThread");
    const bool served = static_cast<GatewayImpl*>(gateway)->receive();
    return served ? nullptr : reinterpret_cast<void*>(1);
}

void* GatewayImpl::storeEntry(void* gateway) {
    allowCancellation(false);
    // One character longer than Linux takes: the thread keeps its inherited name.
    ::pthread_setname_np(::pthread_self(), "GatewayLogThread");
    static_cast<GatewayImpl*>(gateway)->store();
    return nullptr;
}

bool GatewayImpl::receive() {
    ReceivingQueue queue(m_queueName);
    if (!queue.isOpen()) return false;
    const ExitTrace trace("Gateway thread exited");
    const std::size_t limit = messageSize(queue.descriptor());
    if (limit == 0) return false;
    std::vector<char> buffer(limit + 1);
    for (bool first = true;;) {
        try {
            const ssize_t size = nextMessage(queue.descriptor(), buffer);
            if (size < 1) continue;
            buffer[static_cast<std::size_t>(size)] = '\0';
            if (first) waitForInit();
            first = false;
            handle(buffer.data(), Handover::MaySetAside);
            if (m_crowded) waitWhileCrowded();
            m_crowded = false;
        } catch (const std::exception& error) {  // the unwinding of a cancelled thread passes
            cerrdbg << kTag << "Message could not be received: " << error.what() << std::endl;
            cancellableSleep(kIdleMicroseconds);
        }
    }
}

/// Nothing stays set aside for longer than a batch, or while too many wait, nor while this thread
/// waits for a message.
ssize_t GatewayImpl::nextMessage(mqd_t queue, std::vector<char>& buffer) {
    if (isAnySetAside()) {
        const ssize_t size = receiveWaiting(queue, buffer);
        if (size >= 0) return size;
        queueSetAside();
    }
    return receiveNext(queue, buffer);
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
        cerrdbg << kTag << "Message could not be handled: " << error.what() << std::endl;
    } catch (...) {
        cerrdbg << kTag << "Message could not be handled: unknown error" << std::endl;
    }
}

std::string GatewayImpl::handleMessage(const std::string& message, Handover handover) {
    if (verboseFlag) coutdbg << kTag << " message received: " << message << std::endl;
    if (!m_initialized) {
        cerrdbg << kTag << "Gateway not initialized: Ignore" << std::endl;
        return JsonObject::parse(message).optString("syncsem");
    }
    JsonObject event = JsonObject::parse(message);
    if (!event.isObject()) {
        cerrdbg << kTag << "Invalid JSON object: Ignore" << std::endl;
        return "";
    }
    std::string semaphore = event.optString("syncsem");
    event.del("syncsem");
    try {
        std::unique_lock<std::mutex> lock(m_logMutex);
        handleEvent(std::move(event), semaphore.empty() ? handover : Handover::Wait);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        // The sender is woken all the same.
        cerrdbg << kTag << "Event could not be handled: " << error.what() << std::endl;
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
    if (!Config()->GetTouAccepted()) {
        if (verboseFlag) coutdbg << kTag << "TOU not accepted: will not send event" << std::endl;
        return;
    }
    if (verboseFlag) coutdbg << kTag << " will be sent" << std::endl;
    if (!m_eventFilter->matches(event)) return;
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
            cerrdbg << kTag << "oob-url is no string: Ignore the file " << url << std::endl;
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
    m_db->addFile(id, url, info.isNull() ? "" : info.getStringRep());
    event.set("oob-id", id);
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
        std::unique_lock<std::mutex> lock(m_latestMutex);
        m_latestEvent = std::make_unique<TimeReference>(now);
    }
    event.set("boot-count", JsonObject::createInteger(now.bootCount));
    event.set("standby-count", JsonObject::createInteger(now.standbyCount));
    if (sentKernelTime < 1) event.set("kernel-time", JsonObject::createInteger(now.kernelTime));
    if (verboseFlag) {
        std::printf("%s message stored in queue: %s\n", kTag, event.getStringRep().c_str());
    }
    // The handle goes in last, moved: jansson's counts must not be touched by two threads.
    m_setAside.push_back(std::move(event));
    if (handover == Handover::Wait || m_setAside.size() >= kMaxBatch)
        moveSetAside(std::unique_lock<std::mutex>(m_QueueMutex));
    else
        moveSetAside(std::unique_lock<std::mutex>(m_QueueMutex, std::try_to_lock));
}

bool GatewayImpl::isAnySetAside() {
    std::unique_lock<std::mutex> lock(m_logMutex);
    if (!m_setAside.empty())
        moveSetAside(std::unique_lock<std::mutex>(m_QueueMutex, std::try_to_lock));
    return !m_setAside.empty();
}

void GatewayImpl::queueSetAside() {
    std::unique_lock<std::mutex> lock(m_logMutex);
    moveSetAside(std::unique_lock<std::mutex>(m_QueueMutex));
}

void GatewayImpl::moveSetAside(std::unique_lock<std::mutex> lock) {
    if (!lock.owns_lock()) return;
    // All or nothing, should memory be short.
    m_Queue.insert(m_Queue.end(), std::make_move_iterator(m_setAside.begin()),
                   std::make_move_iterator(m_setAside.end()));
    m_crowded = m_Queue.size() >= kMostWaiting;
    std::vector<JsonObject> stored;  // freed after the lock
    stored.swap(m_stored);
    lock.unlock();
    m_setAside.clear();
}

void GatewayImpl::postSemaphore(const std::string& name) {
    if (verboseFlag) coutdbg << kTag << "Signal semaphore " << name << std::endl;
    sem_t* semaphore = ::sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) {
        reportFailedSemaphoreCall("Cannot open semaphore ", name, errno);
        return;
    }
    if (::sem_post(semaphore) != 0) reportFailedSemaphoreCall("Cannot post sem ", name, errno);
    if (::sem_close(semaphore) != 0) reportFailedSemaphoreCall("Cannot close sem ", name, errno);
}

void GatewayImpl::store() {
    const DiscardWaitingEvents discard;
    const ExitTrace trace("Gateway logging thread exited");
    for (int idlePolls = 0;;) {
        std::size_t stored = 0;
        try {
            stored = storeWaitingEvents();
        } catch (const std::exception& error) {  // cancellation is off: no unwinding passes here
            cerrdbg << kTag << "Events could not be stored: " << error.what() << std::endl;
        }
        idlePolls = stored > 0 ? 0 : std::min(idlePolls + 1, kRestPolls + 1);
        if (idlePolls == kRestPolls) m_db->returnFreeMemory();
        if (stored >= kMaxBatch)
            gatherBatch();
        else
            cancellableSleep(kIdleMicroseconds);
    }
}

/// Goes on while full batches wait; fewer are left for `gatherBatch` to make more of.
std::size_t GatewayImpl::storeWaitingEvents() {
    std::size_t stored = 0;
    for (bool more = true; more;) {
        long totalSize = 0;
        {
            std::unique_lock<std::mutex> lock(m_QueueMutex);
            if (m_Queue.empty()) {
                std::vector<JsonObject>().swap(m_stored);
                std::vector<DB::NewEvent>().swap(m_rows);
                return stored;
            }
            const std::size_t taken = storeFromFront(totalSize);
            if (taken == 0) return stored;  // the store is being read for long
            stored += taken;
            more = m_Queue.size() >= kMaxBatch || !m_rows.empty();
        }
        if (Config()->MinimumSizeReached(totalSize)) m_upload->ScheduleEventsUpload();
    }
    return stored;
}

std::size_t GatewayImpl::storeFromFront(long& totalSize) {
    // Rows that a batch left when it ended early go at once: ahead of the pruner that it called.
    if (m_rows.empty()) readFront();
    m_stored.reserve(m_stored.size() + m_rows.size());  // nothing may throw behind the commit
    std::size_t taken = 0;
    totalSize = m_db->addEvents(m_rows, taken);
    m_rows.erase(m_rows.begin(), m_rows.begin() + static_cast<std::ptrdiff_t>(taken));
    const auto end = m_Queue.begin() + static_cast<std::ptrdiff_t>(std::min(taken, m_Queue.size()));
    std::move(m_Queue.begin(), end, std::back_inserter(m_stored));
    m_Queue.erase(m_Queue.begin(), end);
    return taken;
}

void GatewayImpl::readFront() {
    m_rows.reserve(std::min(m_Queue.size(), kMaxBatch));
    for (const JsonObject& event : m_Queue) {
        if (m_rows.size() == kMaxBatch) break;
        m_rows.push_back(toRow(event));
        if (verboseFlag)
            std::printf("%s message read from queue: %s\n", kTag, m_rows.back().data.c_str());
    }
}

std::unique_ptr<TimeReference> GatewayImpl::latestEvent() {
    std::unique_lock<std::mutex> lock(m_latestMutex);
    return m_latestEvent ? std::make_unique<TimeReference>(*m_latestEvent) : nullptr;
}

void GatewayImpl::SetVerbose(bool verbose) {
    verboseFlag = verbose;
}
bool GatewayImpl::GetVerbose() {
    return verboseFlag;
}
