#include "PrunerThreads.h"

#include "AlarmBlock.h"
#include "DB.h"
#include "DbgOut.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace {

constexpr std::uint64_t kNone = 0;

/// How long an insert waits before it looks whether it bars the way itself. A pruner whose way is
/// free takes the lock within far less.
constexpr auto kPatience = std::chrono::seconds(1);

thread_local std::uint64_t t_ownTicket = kNone;  ///< of the pruner that this thread is
thread_local std::uint64_t t_barred = kNone;     ///< the pruner that waits for this thread's lock

void failureLine(const char* what, const char* why) {
    cerrdbg << "kivDB: " << what << why << std::endl;
}

void runToItsEnd(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::exception& e) {
        failureLine("Pruning failed: ", e.what());
    }
}

/// Whether the lock can be had at once: it is free, or this thread holds it already.
bool lockIsFreeOrOurs() {
    if (!DB::m_PruneLock.try_lock()) return false;
    DB::m_PruneLock.unlock();
    return true;
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
    const AlarmBlock inherited;
    try {
        std::thread([running = m_running, ticket, body = std::move(body)] {
            t_ownTicket = ticket;
            runToItsEnd(body);
            handOver().leave(ticket);
            running->end();
        }).detach();
    } catch (const std::exception& e) {  // no thread, or no memory for one
        handOver().leave(ticket);
        m_running->end();
        failureLine("Cannot start the pruning thread: ", e.what());
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

void PrunerThreads::letWaitingOneGoFirst() {
    HandOver& state = handOver();
    std::unique_lock<std::mutex> lock(state.mutex);
    const std::uint64_t pruner = state.waiting;
    if (pruner == kNone || pruner == t_barred || t_ownTicket != kNone) return;
    const auto hasTheLock = [&state, pruner] { return state.waiting != pruner; };
    while (!state.left.wait_for(lock, kPatience, hasTheLock)) {
        // A caller further up on this thread may hold the recursive lock: waiting on would hang.
        if (lockIsFreeOrOurs()) {
            t_barred = pruner;
            return;
        }
    }
}
