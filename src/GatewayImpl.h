#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <sys/types.h>

#include "DB.h"
#include "EventFilter.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "TimeReference.h"
#include "UploadImpl.h"
#include "WaitingEvents.h"
#include "WaitingFiles.h"
#include "WorkerThread.h"

class ReceivingQueue;

/// The intake: receives events from the POSIX message queue "/kiv_queue" (docs/event-message.md),
/// keeps those that consent and filters allow, completes them, and has them stored in batches.
///
/// It does not upload: it asks the upload side to. Reached through `Singleton<GatewayImpl>`.
///
/// Threads: "GatewayThread" receives messages and handles them as `Log` does, but does not wait
/// while a batch is being stored; "GatewayLogThread" stores. Both use the instance that started
/// them. They can be cancelled only where they wait: in `mq_receive` and in their sleeps. Lock
/// order: m_logMutex, m_QueueMutex, then `DB::m_PruneLock`. Errors: one line each; a thread that
/// cannot be started, or a queue that cannot be opened, leaves the rest running. The storing thread
/// starts a receiving thread that has ended so again, after 10 s, doubling to 300 s.
class GatewayImpl {
  public:
    GatewayImpl();
    /// Cancels and joins the threads; the queue is closed and unlinked, waiting events discarded.
    ~GatewayImpl();
    GatewayImpl(const GatewayImpl&) = delete;
    GatewayImpl& operator=(const GatewayImpl&) = delete;

    /// Starts the storing thread where it could not be started yet, and with it the receiving one,
    /// without a line; for the thread that made the gateway. @return whether it runs
    bool startMissingThread();

    /// Opens the store; messages are taken from then on.
    void Init(std::string dbPath);
    /// Handles one message: checks, filters, completes and queues the event, then posts the
    /// sender's semaphore. Waits for a batch that is being stored, but never for a store that
    /// fails: its events are kept in memory, at most 512 (`WaitingEvents`). Never throws.
    void Log(std::string message);

    /// The moment of the latest accepted event; null when there was none.
    static std::unique_ptr<TimeReference> latestEvent();

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

    static std::deque<JsonObject> m_Queue;  ///< completed events waiting to be stored
    static std::mutex m_QueueMutex;         ///< guards m_Queue; see `WaitingEvents`

  private:
    friend struct GatewayImplPeer;

    using Handover = WaitingEvents::Handover;

    void makeFilters();
    int startStorer();  ///< 0, or the errno for which it is missing
    void startReceiver();
    void receiverHasEnded();  ///< by itself, or it could not be started: it is to be started again
    void restartReceiver();   ///< when it is time
    bool receive();  ///< false when the queue cannot be served; otherwise ends by cancellation
    ssize_t nextMessage(ReceivingQueue& queue);  ///< as `ReceivingQueue::receiveNext` returns
    void waitForInit();
    void store();                      ///< ends by cancellation
    std::size_t storeWaitingEvents();  ///< one look at the queue; how many events were handled
    void registerWaitingFiles();
    void gatherBatch();
    /// @param handover when the message names no semaphore; a sender that waits for one always
    /// waits for the batch, too
    void handle(const std::string& message, Handover handover);
    /// @return the semaphore to post, or ""
    std::string handleMessage(const std::string& message, Handover handover);
    void handleEvent(JsonObject event, Handover handover);
    bool takeAnnouncedFile(JsonObject& event);  ///< whether the event travels as a file's facts
    void registerFile(JsonObject& event, const std::string& url, const JsonObject& info);
    void addFile(WaitingFiles::File file);
    void completeAndQueue(JsonObject event, const std::string& typeText, Handover handover);
    bool handOver(Handover handover);  ///< `WaitingEvents::handOver` under m_logMutex
    static void postSemaphore(const std::string& name);

    Singleton<UploadImpl> m_upload;
    std::atomic<bool> m_initialized{false};
    bool m_filtersAreDefaults = false;  ///< they were made before the stored configuration was read
    std::unique_ptr<EventFilter> m_eventFilter;
    std::unique_ptr<EventFilter> m_fileFilter;
    std::mutex m_logMutex;  ///< one message at a time in the filters and into m_waiting
    WaitingEvents m_waiting;
    WaitingFiles m_waitingFiles;
    bool m_filesAreNew = false;  ///< registered since their upload was asked for; the storer's
    std::mutex m_initMutex;      ///< guards the wait for Init
    std::condition_variable m_initDone;
    std::unique_ptr<DB> m_db;

    std::mutex m_receiverMutex;  ///< guards m_ending, and m_receiver until it is set
    bool m_ending = false;
    /// Whether it waits to be started again. The two below are the receiving thread's until then.
    std::atomic<bool> m_receiverEnded{false};
    std::chrono::steady_clock::time_point m_receiverDue;
    std::chrono::milliseconds m_receiverRest = m_firstReceiverRest;

    WorkerThread m_receiver;
    WorkerThread m_storer;

    static std::string m_queueName;  ///< "/kiv_queue"; not changed while a gateway lives
    static std::chrono::milliseconds m_firstReceiverRest;  ///< not changed while a gateway lives

    static std::mutex m_latestMutex;  ///< guards m_latestEvent
    static std::unique_ptr<TimeReference> m_latestEvent;
};
