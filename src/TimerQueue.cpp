#include "TimerQueue.h"

#include "ClassLog.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include <cstdio>

#include <cxxabi.h>

using SteadyTime = std::chrono::steady_clock::time_point;

namespace {

constexpr SteadyTime kDueAtOnce{};
/// Long before the clock's zero, so that items that were due before the set was switched on keep
/// their order; far enough from the end of its range to reckon with.
constexpr SteadyTime kEarliest{SteadyTime::duration::min() / 2};

const ClassLog s_log("TimerQueue: ");

// Delays beyond the range of the clock end at its ends.
SteadyTime dueAfter(long long delayMs) {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;

    const SteadyTime now = std::chrono::steady_clock::now();
    if (delayMs >= duration_cast<milliseconds>(SteadyTime::max() - now).count()) {
        return SteadyTime::max();
    }
    if (delayMs <= duration_cast<milliseconds>(kEarliest - now).count()) return kEarliest;
    return now + milliseconds(delayMs);
}

}  // namespace

void TimerQueue::WorkItem::call() {
    if (!handler) return;
    try {
        handler(id == 0, firstArgument, secondArgument);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        s_log.error("A handler failed: ", error.what());
    } catch (...) {
        s_log.error("A handler failed");
    }
}

TimerQueue::WorkItem TimerQueue::Items::takeTop() {
    std::pop_heap(c.begin(), c.end(), comp);
    WorkItem item = std::move(c.back());
    c.pop_back();
    return item;
}

TimerQueue::TimerQueue() {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    startThread();
}

/// With m_queueMutex held, which the thread then waits for.
void TimerQueue::startThread() {
    if (m_thread.isStarted()) return;
    // One character too long for Linux, which then keeps the old name.
    const int error = m_thread.start("TimerQueueThread", [this] {
        run();
        return 0;
    });
    const bool failed = error != 0;
    if (failed && !m_lineWritten)
        s_log.error("Cannot start the timer thread: ", ClassLog::errnoText(error));
    m_lineWritten = failed;
}

bool TimerQueue::startMissingThread() {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    startThread();
    return m_thread.isStarted();
}

TimerQueue::~TimerQueue() {
    {
        const std::lock_guard<std::mutex> lock(m_queueMutex);
        // The order holds without more: items that were cancelled before are due at once, too.
        for (WorkItem& item : m_items.storage()) {
            item.end = kDueAtOnce;
            item.id = 0;
        }
    }
    notify();
    add(0, 0, 0, [this](bool, unsigned int, int) { m_finish = true; });
    if (!m_thread.isStarted()) run();
    m_thread.join();
}

std::uint64_t TimerQueue::add(long long milliseconds, unsigned int firstArgument,
                              int secondArgument, Handler handler) {
    WorkItem item;
    item.end = dueAfter(milliseconds);
    item.firstArgument = firstArgument;
    item.secondArgument = secondArgument;
    item.handler = std::move(handler);

    std::unique_lock<std::mutex> lock(m_queueMutex);
    const std::uint64_t id = ++m_lastId;
    item.id = id;
    m_items.push(std::move(item));
    startThread();
    lock.unlock();

    notify();
    return id;
}

bool TimerQueue::cancel(std::uint64_t id) {
    if (id == 0) return false;

    std::unique_lock<std::mutex> lock(m_queueMutex);
    auto& items = m_items.storage();
    const auto found = std::find_if(items.begin(), items.end(), [id](const WorkItem& item) {
        return item.id == id && item.handler;
    });
    if (found == items.end()) return false;

    WorkItem cancelled;
    cancelled.end = kDueAtOnce;
    cancelled.firstArgument = found->firstArgument;
    cancelled.secondArgument = found->secondArgument;
    cancelled.handler = std::exchange(found->handler, nullptr);
    m_items.push(std::move(cancelled));
    lock.unlock();

    notify();
    return true;
}

void TimerQueue::run() {
    while (!m_finish) {
        if (const std::optional<SteadyTime> deadline = nextDeadline()) {
            waitUntil(*deadline);
        } else {
            wait();
        }
        checkWork();
    }

    const std::lock_guard<std::mutex> lock(m_queueMutex);
    if (!m_items.empty()) {
        std::printf("KIV Timer queue is not empty (%d)\n", static_cast<int>(m_items.size()));
    }
}

std::optional<SteadyTime> TimerQueue::nextDeadline() {
    const std::lock_guard<std::mutex> lock(m_queueMutex);
    while (!m_items.empty() && !m_items.top().handler) m_items.pop();
    if (m_items.empty()) return std::nullopt;
    return m_items.top().end;
}

void TimerQueue::checkWork() {
    std::unique_lock<std::mutex> lock(m_queueMutex);
    while (!m_items.empty() && std::chrono::steady_clock::now() >= m_items.top().end) {
        {
            WorkItem item = m_items.takeTop();
            lock.unlock();
            item.call();
        }  // what its handler holds goes without the lock, too
        lock.lock();
    }
}
