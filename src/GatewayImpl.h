#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <mqueue.h>
#include <pthread.h>
#include <sys/types.h>

#include "DB.h"
#include "EventFilter.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "TimeReference.h"
#include "UploadImpl.h"

/// The intake: receives events from the POSIX message queue "/kiv_queue" (docs/event-message.md),
/// keeps those that consent and filters allow, completes them, and stores them in batches.
///
/// Reached through `Singleton<GatewayImpl>`. Two threads: "GatewayThread" receives and handles
/// messages as `Log` does, but without waiting for a batch that is being stored;
/// "GatewayLogThread" stores. Both use the instance they were started by. They can be
/// cancelled only where they wait: in `mq_receive` and in their sleeps. Lock order: m_logMutex,
/// m_QueueMutex, then `DB::m_PruneLock`.
class GatewayImpl {
  public:
    GatewayImpl();
    /// Cancels and joins the threads; the queue is closed and unlinked, waiting events discarded.
    ~GatewayImpl();
    GatewayImpl(const GatewayImpl&) = delete;
    GatewayImpl& operator=(const GatewayImpl&) = delete;

    /// Opens the store; messages are taken from then on.
    void Init(std::string dbPath);
    /// Handles one message: checks, filters, completes and queues the event, then posts the
    /// sender's semaphore. Never throws.
    void Log(std::string message);

    /// The moment of the latest accepted event; null when there was none.
    static std::unique_ptr<TimeReference> latestEvent();

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

    static std::deque<JsonObject> m_Queue;  ///< completed events waiting to be stored
    static std::mutex m_QueueMutex;         ///< guards m_Queue

  private:
    friend struct GatewayImplPeer;

    static void* receiveEntry(void* gateway);
    static void* storeEntry(void* gateway);
    bool receive();  ///< false when the queue cannot be served; otherwise ends by cancellation
    ssize_t nextMessage(mqd_t queue, std::vector<char>& buffer);  ///< as `mq_receive` returns
    void waitForInit();
    void store();
    std::size_t storeWaitingEvents();  ///< one look at the queue; how many events were handled
    std::size_t storeFromFront(long& totalSize);  ///< one batch, with m_QueueMutex held; how many
    void readFront();                             ///< fills m_rows, with m_QueueMutex held
    /// What an event does that is complete while a batch is being stored.
    enum class Handover {
        Wait,         ///< waits for the batch
        MaySetAside,  ///< lets the thread go on: the event follows with a later one
    };
    void handle(const std::string& message, Handover handover);
    /// @return the semaphore to post, or ""
    std::string handleMessage(const std::string& message, Handover handover);
    void handleEvent(JsonObject event, Handover handover);
    bool takeAnnouncedFile(JsonObject& event);  ///< whether the event travels as a file's facts
    void registerFile(JsonObject& event, const std::string& url, const JsonObject& info);
    void completeAndQueue(JsonObject event, const std::string& typeText, Handover handover);
    bool isAnySetAside();  ///< after what has its batch behind it went into the queue
    void queueSetAside();  ///< waits for the batch that is being stored
    /// Into m_Queue, if `lock` has m_QueueMutex; with m_logMutex held.
    void moveSetAside(std::unique_lock<std::mutex> lock);
    static void postSemaphore(const std::string& name);

    Singleton<UploadImpl> m_upload;
    std::atomic<bool> m_initialized{false};
    std::unique_ptr<EventFilter> m_eventFilter;
    std::unique_ptr<EventFilter> m_fileFilter;
    std::vector<DB::NewEvent> m_rows;  ///< the queue's first events as rows; storing thread only
    std::mutex m_logMutex;             ///< one message at a time in the filters; guards m_setAside
    /// Complete events, in their order, that met the lock of a batch; fewer than a batch of them.
    std::vector<JsonObject> m_setAside;
    /// Stored events, left to the threads that made them: freed by the storing thread, they would
    /// have both wait for the allocator's lock. Guarded by m_QueueMutex.
    std::vector<JsonObject> m_stored;
    std::atomic<bool> m_crowded{false};  ///< at the last look, too many events waited
    std::mutex m_initMutex;              ///< guards the wait for Init
    std::condition_variable m_initDone;
    pthread_t m_receiver{};
    pthread_t m_storer{};
    bool m_receiverStarted = false;
    bool m_storerStarted = false;
    std::unique_ptr<DB> m_db;

    static std::string m_queueName;  ///< "/kiv_queue"; not changed while a gateway lives

    static std::mutex m_latestMutex;  ///< guards m_latestEvent
    static std::unique_ptr<TimeReference> m_latestEvent;
};
