#include "PrunerThreads.h"

#include "ClassLog.h"
#include "WorkerThread.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <new>
#include <utility>

#include <cerrno>
#include <cstdint>

namespace {

const ClassLog s_log("kivDB: ");

/// Too long for the kernel, which then keeps the name of the thread that starts it.
constexpr const char* kThreadName = "DBPruneAboveSizeThread";

constexpr std::uint64_t kNone = 0;

/// After so long an insert that waits for a pruner checks whether its own thread holds the lock. A
/// pruner that nobody keeps from the lock takes it within far less.
constexpr auto kPatience = std::chrono::seconds(1);

thread_local std::uint64_t t_ownTicket = kNone;  ///< of the pruner that this thread is
thread_local std::uint64_t t_barred = kNone;     ///< the pruner that waits for this thread's lock

void runToItsEnd(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::exception& e) {
        s_log.error("Pruning failed: ", e.what());
    }
}

/// Whether the lock can be had at once: it is free, or this thread holds it already.
bool isFreeOrOurs(std::recursive_mutex& lock) {
    return std::unique_lock<std::recursive_mutex>(lock, std::try_to_lock).owns_lock();
}

}  // namespace

/// Shared with the threads, so that the last one may outlive the object by its last steps.
struct PrunerThreads::Running {
    std::mutex mutex;  ///< guards count; a leaf
    std::condition_variable ended;
    int count = 0;

    void begin() {
        const std::lock_guard<std::mutex> lock(mutex);
        ++count;
    }
    void end() {
        const std::lock_guard<std::mutex> lock(mutex);
        --count;
        ended.notify_all();
    }
};

/// The one pruner of the process that has not yet taken the lock.
struct PrunerThreads::HandOver {
    std::mutex mutex;  ///< guards the tickets; nothing but a try for the prune lock is under it
    std::condition_variable left;
    std::uint64_t waiting = kNone;  ///< ticket of the waiting pruner
    std::uint64_t last = kNone;     ///< ticket given last
    bool headStartTaken = false;    ///< whether a batch has gone ahead of the waiting one

    std::uint64_t enter() {
        const std::lock_guard<std::mutex> lock(mutex);
        if (waiting != kNone) return kNone;
        waiting = ++last;
        headStartTaken = false;
        return waiting;
    }
    void leave(std::uint64_t ticket) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (ticket == kNone || waiting != ticket) return;
        waiting = kNone;
        left.notify_all();
    }
};

PrunerThreads::HandOver& PrunerThreads::handOver() {
    static HandOver state;
    return state;
}

PrunerThreads::PrunerThreads() : m_running(std::make_shared<Running>()) {}

PrunerThreads::~PrunerThreads() {
    waitForAll();
}

void PrunerThreads::start(std::function<void()> body) {
    const std::uint64_t ticket = handOver().enter();
    if (ticket == kNone) return;
    m_running->begin();
    const int error = startThread(ticket, std::move(body));
    if (error == 0) return;
    handOver().leave(ticket);
    m_running->end();
    s_log.error("Cannot start the pruning thread: ", ClassLog::errnoText(error));
}

int PrunerThreads::startThread(std::uint64_t ticket, std::function<void()> body) {
    try {
        return WorkerThread::startDetached(kThreadName,
                                           [running = m_running, ticket, body = std::move(body)] {
                                               t_ownTicket = ticket;
                                               runToItsEnd(body);
                                               handOver().leave(ticket);
                                               running->end();
                                               return 0;
                                           });
    } catch (const std::bad_alloc&) {  // no memory for the thread's own copy
        return ENOMEM;
    }
}

void PrunerThreads::waitForAll() {
    std::unique_lock<std::mutex> lock(m_running->mutex);
    m_running->ended.wait(lock, [this] { return m_running->count == 0; });
}

void PrunerThreads::tookTheLock() {
    handOver().leave(t_ownTicket);
}

bool PrunerThreads::takeHeadStart() {
    HandOver& state = handOver();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.waiting != kNone && !std::exchange(state.headStartTaken, true);
}

void PrunerThreads::letWaitingOneGoFirst(std::recursive_mutex& lock) {
    HandOver& state = handOver();
    std::unique_lock<std::mutex> tickets(state.mutex);
    const std::uint64_t pruner = state.waiting;
    if (pruner == kNone || pruner == t_barred || t_ownTicket != kNone) return;
    const auto hasTheLock = [&state, pruner] { return state.waiting != pruner; };
    while (!state.left.wait_for(tickets, kPatience, hasTheLock)) {
        // A caller further up on this thread may hold the recursive lock: waiting on would hang.
        if (isFreeOrOurs(lock)) {
            t_barred = pruner;
            return;
        }
    }
}
