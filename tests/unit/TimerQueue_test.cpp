#include "TimerQueue.h"

#include "support/NoThreads.h"
#include "support/OutputCapture.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <gtest/gtest.h>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr long long kMinutes = 600000;  // longer than any test
using Ids = std::vector<std::uint64_t>;

struct Call {
    bool cancelled;
    unsigned int first;
    int second;

    bool operator==(const Call& other) const {
        return cancelled == other.cancelled && first == other.first && second == other.second;
    }
};

std::ostream& operator<<(std::ostream& out, const Call& call) {
    return out << "(" << call.cancelled << "," << call.first << "," << call.second << ")";
}

using Calls = std::vector<Call>;

/// Notes the calls of the handlers that it hands out; outlives the queue.
class Recorder {
  public:
    TimerQueue::Handler handler() {
        return [this](bool cancelled, unsigned int first, int second) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back({cancelled, first, second});
        };
    }

    Calls calls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    bool waitFor(std::size_t count) {
        return WaitUntil([&] { return calls().size() >= count; });
    }

  private:
    std::mutex m_mutex;
    Calls m_calls;
};

/// Holds the queue's thread inside a handler until it is opened.
class Gate {
  public:
    explicit Gate(TimerQueue& queue) {
        queue.add(0, 0, 0, [this](bool, unsigned int, int) {
            m_reached.set_value();
            m_opened.get_future().wait();
        });
        m_reached.get_future().wait();
    }
    void open() { m_opened.set_value(); }

  private:
    std::promise<void> m_reached;
    std::promise<void> m_opened;
};

/// Returns when the queue's thread has done all that is due now.
void drain(TimerQueue& queue) {
    std::promise<void> reached;
    queue.add(0, 0, 0, [&](bool, unsigned int, int) { reached.set_value(); });
    reached.get_future().wait();
}

}  // namespace

/// An item without delay is called promptly, not cancelled, with its arguments.
TEST(TimerQueue, CallsAnItemWithoutDelayPromptly) {
    Recorder recorder;
    TimerQueue queue;
    queue.add(0, 4000000000U, -7, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.calls(), (Calls{{false, 4000000000U, -7}}));
}

/// Items are called in the order of their due times.
TEST(TimerQueue, CallsItemsInTheOrderOfTheirDelays) {
    Recorder recorder;
    TimerQueue queue;
    Gate gate(queue);
    queue.add(300, 300, 0, recorder.handler());
    queue.add(100, 100, 0, recorder.handler());
    queue.add(200, 200, 0, recorder.handler());
    gate.open();
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(recorder.calls(), (Calls{{false, 100, 0}, {false, 200, 0}, {false, 300, 0}}));
}

/// No item is called before its delay has passed.
TEST(TimerQueue, NeverCallsBeforeTheDelayHasPassed) {
    TimerQueue queue;
    std::promise<steady_clock::time_point> called;
    const auto start = steady_clock::now();
    queue.add(50, 0, 0, [&](bool, unsigned int, int) { called.set_value(steady_clock::now()); });
    EXPECT_GE(called.get_future().get() - start, milliseconds(50));
}

/// A new earlier item shortens the sleep.
TEST(TimerQueue, AnEarlierItemShortensTheSleep) {
    Recorder recorder;
    TimerQueue queue;
    queue.add(kMinutes, 1, 0, recorder.handler());
    drain(queue);
    queue.add(20, 2, 0, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.calls(), (Calls{{false, 2, 0}}));
}

/// Identifiers are 1, 2, 3, ... per queue and never used again.
TEST(TimerQueue, NumbersItemsFromOneAndNeverReusesANumber) {
    Recorder recorder;
    TimerQueue queue;
    Ids ids;
    ids.push_back(queue.add(0, 0, 0, recorder.handler()));
    ids.push_back(queue.add(kMinutes, 0, 0, recorder.handler()));
    ASSERT_TRUE(queue.cancel(2));
    ASSERT_TRUE(recorder.waitFor(2));
    ids.push_back(queue.add(kMinutes, 0, 0, recorder.handler()));
    ids.push_back(queue.add(0, 0, 0, recorder.handler()));
    EXPECT_EQ(ids, (Ids{1, 2, 3, 4}));

    TimerQueue other;
    EXPECT_EQ(other.add(kMinutes, 0, 0, recorder.handler()), 1U);
}

/// A cancelled item is called at once with true and its own arguments.
TEST(TimerQueue, CallsACancelledItemAtOnceWithItsOwnArguments) {
    Recorder recorder;
    TimerQueue queue;
    const std::uint64_t id = queue.add(kMinutes, 5, -6, recorder.handler());
    EXPECT_TRUE(queue.cancel(id));
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.calls(), (Calls{{true, 5, -6}}));
}

/// Cancelling twice, or what is unknown, done or number 0, is false.
TEST(TimerQueue, CancelsOnlyOnce) {
    Recorder recorder;
    TimerQueue queue;
    const std::uint64_t id = queue.add(kMinutes, 5, 6, recorder.handler());
    EXPECT_TRUE(queue.cancel(id));
    EXPECT_FALSE(queue.cancel(id));
    drain(queue);
    EXPECT_FALSE(queue.cancel(id));
    EXPECT_EQ(recorder.calls().size(), 1U);
}

/// Cancelling twice, or what is unknown, done or number 0, is false.
TEST(TimerQueue, DoesNotCancelWhatIsUnknownOrDone) {
    Recorder recorder;
    TimerQueue queue;
    EXPECT_FALSE(queue.cancel(1));
    const std::uint64_t id = queue.add(0, 0, 0, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_FALSE(queue.cancel(id));
    EXPECT_FALSE(queue.cancel(id + 1));
    EXPECT_FALSE(queue.cancel(std::numeric_limits<std::uint64_t>::max()));
}

/// Cancelling twice, or what is unknown, done or number 0, is false.
TEST(TimerQueue, NeverCancelsNumberZeroAlsoWithCancelledItemsWaiting) {
    Recorder recorder;
    TimerQueue queue;
    Gate gate(queue);
    const std::uint64_t id = queue.add(kMinutes, 1, 1, recorder.handler());
    EXPECT_TRUE(queue.cancel(id));
    EXPECT_FALSE(queue.cancel(0));
    gate.open();
    ASSERT_TRUE(recorder.waitFor(1));
    drain(queue);
    EXPECT_EQ(recorder.calls(), (Calls{{true, 1, 1}}));
}

/// Cancelling one item leaves the others.
TEST(TimerQueue, CancellingOneItemLeavesTheOthers) {
    Recorder recorder;
    TimerQueue queue;
    Gate gate(queue);
    queue.add(10, 1, 0, recorder.handler());
    const std::uint64_t second = queue.add(20, 2, 0, recorder.handler());
    queue.add(30, 3, 0, recorder.handler());
    ASSERT_TRUE(queue.cancel(second));
    gate.open();
    ASSERT_TRUE(recorder.waitFor(3));
    drain(queue);
    EXPECT_EQ(recorder.calls(), (Calls{{true, 2, 0}, {false, 1, 0}, {false, 3, 0}}));
}

/// Handlers may add and cancel on their own queue.
TEST(TimerQueue, HandlersMayAddAndCancel) {
    Recorder recorder;
    TimerQueue queue;
    const std::uint64_t victim = queue.add(kMinutes, 1, 0, recorder.handler());
    std::promise<bool> cancelled;
    queue.add(0, 0, 0, [&](bool, unsigned int, int) {
        cancelled.set_value(queue.cancel(victim));
        queue.add(10, 2, 0, recorder.handler());
    });
    EXPECT_TRUE(cancelled.get_future().get());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.calls(), (Calls{{true, 1, 0}, {false, 2, 0}}));
}

/// Handlers may add and cancel on their own queue.
TEST(TimerQueue, ACancelledHandlerMayAddAgain) {
    Recorder recorder;
    TimerQueue queue;
    const std::uint64_t id = queue.add(kMinutes, 0, 0, [&](bool cancelled, unsigned int, int) {
        queue.add(0, cancelled ? 1 : 2, 0, recorder.handler());
    });
    ASSERT_TRUE(queue.cancel(id));
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.calls(), (Calls{{false, 1, 0}}));
}

/// Destruction calls every pending item once with true, then ends the thread.
TEST(TimerQueue, DestructionCallsAllPendingItemsAsCancelled) {
    Recorder recorder;
    {
        TimerQueue queue;
        queue.add(kMinutes, 1, 10, recorder.handler());
        queue.add(2 * kMinutes, 2, 20, recorder.handler());
        queue.add(3 * kMinutes, 3, 30, recorder.handler());
    }
    const Calls calls = recorder.calls();
    ASSERT_EQ(calls.size(), 3U);
    for (const Call& expected : Calls{{true, 1, 10}, {true, 2, 20}, {true, 3, 30}}) {
        EXPECT_EQ(std::count(calls.begin(), calls.end(), expected), 1) << expected;
    }
}

/// Destruction calls every pending item once with true, then ends the thread.
TEST(TimerQueue, DestructionDoesNotRepeatWhatWasCancelledOrDone) {
    Recorder recorder;
    OutputCapture capture;
    {
        TimerQueue queue;
        queue.add(0, 1, 0, recorder.handler());
        queue.add(kMinutes, 2, 0, recorder.handler());
        const std::uint64_t id = queue.add(2 * kMinutes, 3, 0, recorder.handler());
        ASSERT_TRUE(recorder.waitFor(1));
        ASSERT_TRUE(queue.cancel(id));
        ASSERT_TRUE(recorder.waitFor(2));
    }
    capture.stop();
    EXPECT_EQ(recorder.calls(), (Calls{{false, 1, 0}, {true, 3, 0}, {true, 2, 0}}));
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// Items left at the end are told: "KIV Timer queue is not empty (".
TEST(TimerQueue, SaysWhenItemsAreLeftAtItsEnd) {
    Recorder recorder;
    OutputCapture capture;
    {
        TimerQueue queue;
        queue.add(kMinutes, 0, 0, [&](bool, unsigned int, int) {
            queue.add(kMinutes, 1, 0, recorder.handler());
            queue.add(kMinutes, 2, 0, recorder.handler());
        });
    }
    capture.stop();
    EXPECT_EQ(capture.out(), "KIV Timer queue is not empty (2)\n");
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(recorder.calls(), Calls{});
}

/// Destruction calls every pending item once with true, then ends the thread.
TEST(TimerQueue, EndsWithoutHavingBeenUsed) {
    OutputCapture capture;
    for (int i = 0; i < 20; ++i) TimerQueue{};
    capture.stop();
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// Delays of any size do not overflow; negative ones are due at once.
TEST(TimerQueue, FarDelaysDoNotOverflow) {
    Recorder recorder;
    TimerQueue queue;
    for (long long delay : {std::numeric_limits<long long>::max(), 9223372036854LL, 9223372036855LL,
                            9223372036854775LL, 2147483648000LL}) {
        queue.add(delay, 1, 0, recorder.handler());
    }
    queue.add(20, 2, 0, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
    drain(queue);
    EXPECT_EQ(recorder.calls(), (Calls{{false, 2, 0}}));
    EXPECT_TRUE(queue.cancel(1));
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.calls()[1], (Call{true, 1, 0}));
}

/// Items that were due before the machine was switched on keep their order, too.
TEST(TimerQueue, KeepsTheOrderOfItemsOverdueByMoreThanTheUptime) {
    constexpr long long kYear = 365LL * 86400 * 1000;
    Recorder recorder;
    TimerQueue queue;
    Gate gate(queue);
    Calls expected;
    for (unsigned int years = 40; years > 0; --years) expected.push_back({false, years, 0});
    for (const unsigned int start : {1U, 2U, 0U}) {
        for (unsigned int years = 40; years > 0; --years) {
            if (years % 3 == start) queue.add(-kYear * years, years, 0, recorder.handler());
        }
    }
    gate.open();
    ASSERT_TRUE(recorder.waitFor(40));
    EXPECT_EQ(recorder.calls(), expected);
}

/// A handler that throws gets a line, and the next ones are called.
TEST(TimerQueue, SurvivesAHandlerThatThrows) {
    Recorder recorder;
    OutputCapture capture;
    {
        TimerQueue queue;
        Gate gate(queue);
        queue.add(0, 1, 0, [](bool, unsigned int, int) { throw std::runtime_error("no room"); });
        queue.add(1, 2, 0, [](bool, unsigned int, int) { throw 5; });
        queue.add(2, 3, 0, recorder.handler());
        gate.open();
        ASSERT_TRUE(recorder.waitFor(1));
        queue.add(kMinutes, 4, 0, [](bool, unsigned int, int) { throw std::bad_alloc(); });
    }
    capture.stop();
    const std::string lines = capture.errWithoutPrefixes();
    const std::string first =
        "TimerQueue: A handler failed: no room\nTimerQueue: A handler failed\n"
        "TimerQueue: A handler failed: ";
    EXPECT_EQ(lines.substr(0, first.size()), first);
    EXPECT_EQ(recorder.calls(), (Calls{{false, 3, 0}}));
}

/// Delays of any size do not overflow; negative ones are due at once.
TEST(TimerQueue, ANegativeDelayIsDueAtOnceAndNotCancelled) {
    Recorder recorder;
    TimerQueue queue;
    queue.add(-1, 1, 0, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
    queue.add(std::numeric_limits<long long>::min(), 2, 0, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.calls(), (Calls{{false, 1, 0}, {false, 2, 0}}));
}

/// An item without handler is dropped.
TEST(TimerQueue, DropsAnItemWithoutHandler) {
    Recorder recorder;
    TimerQueue queue;
    const std::uint64_t id = queue.add(kMinutes, 0, 0, nullptr);
    EXPECT_EQ(id, 1U);
    EXPECT_FALSE(queue.cancel(id));
    queue.add(0, 0, 0, nullptr);
    queue.add(0, 1, 0, recorder.handler());
    ASSERT_TRUE(recorder.waitFor(1));
}

/// Each handler is called exactly once with many adders and cancellers.
TEST(TimerQueue, CallsEachHandlerOnceWithManyAddersAndCancellers) {
    constexpr int kThreads = 4;
    constexpr int kItems = 250;
    std::atomic<int> plain{0};
    std::atomic<int> cancelled{0};
    std::atomic<int> cancels{0};
    {
        TimerQueue queue;
        std::vector<std::thread> users;
        for (int t = 0; t < kThreads; ++t) {
            users.emplace_back([&] {
                for (int i = 0; i < kItems; ++i) {
                    const std::uint64_t id =
                        queue.add(i % 5, 0, 0, [&](bool isCancelled, unsigned int, int) {
                            ++(isCancelled ? cancelled : plain);
                        });
                    if (i % 3 == 0 && queue.cancel(id)) ++cancels;
                }
            });
        }
        for (std::thread& user : users) user.join();
        EXPECT_TRUE(WaitUntil([&] { return plain + cancelled == kThreads * kItems; }));
    }
    EXPECT_EQ(plain + cancelled, kThreads * kItems);
    EXPECT_EQ(cancelled, cancels);
}

/// Handlers are moved, never copied, and released after their call without a lock.
TEST(TimerQueue, MovesHandlersAndNeverCopiesThem) {
    struct Counting {
        explicit Counting(std::atomic<int>& count) : copies(&count) {}
        Counting(const Counting& other) : copies(other.copies) { ++*copies; }
        Counting(Counting&&) = default;
        void operator()(bool, unsigned int, int) const {}
        std::atomic<int>* copies;
    };
    std::atomic<int> copies{0};
    TimerQueue queue;
    TimerQueue::Handler first{Counting(copies)};
    TimerQueue::Handler second{Counting(copies)};
    const int before = copies;
    queue.add(0, 0, 0, std::move(first));
    const std::uint64_t id = queue.add(kMinutes, 0, 0, std::move(second));
    ASSERT_TRUE(queue.cancel(id));
    drain(queue);
    EXPECT_EQ(copies, before);
}

/// Handlers are moved, never copied, and released after their call without a lock.
TEST(TimerQueue, ReleasesWhatAHandlerHoldsOnceItWasCalled) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = held;
    TimerQueue queue;
    queue.add(0, 0, 0, [held](bool, unsigned int, int) {});
    held.reset();
    EXPECT_TRUE(WaitUntil([&] { return watch.expired(); }));
}

/// Handlers are moved, never copied, and released after their call without a lock.
TEST(TimerQueue, WhatAHandlerHoldsMayUseTheQueueWhenItGoes) {
    Recorder recorder;
    TimerQueue queue;
    {
        const std::shared_ptr<void> held(nullptr,
                                         [&](void*) { queue.add(0, 1, 0, recorder.handler()); });
        queue.add(0, 0, 0, [held](bool, unsigned int, int) {});
    }
    EXPECT_TRUE(recorder.waitFor(1));
}

/// All handlers run on one thread of the queue's own, which blocks the alarm.
TEST(TimerQueue, RunsHandlersOnAThreadOfItsOwn) {
    TimerQueue queue;
    std::promise<std::thread::id> first;
    std::promise<std::thread::id> second;
    queue.add(0, 0, 0,
              [&](bool, unsigned int, int) { first.set_value(std::this_thread::get_id()); });
    queue.add(0, 0, 0,
              [&](bool, unsigned int, int) { second.set_value(std::this_thread::get_id()); });
    const std::thread::id thread = first.get_future().get();
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(second.get_future().get(), thread);
}

/// Every thread but the main one blocks it.
///
/// All handlers run on one thread of the queue's own, which blocks the alarm.
TEST(TimerQueue, LeavesAlarmsToOtherThreads) {
    TimerQueue queue;
    std::promise<bool> blocked;
    queue.add(0, 0, 0, [&](bool, unsigned int, int) {
        sigset_t mask;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        blocked.set_value(::sigismember(&mask, SIGALRM) == 1);
    });
    EXPECT_TRUE(blocked.get_future().get());
}

/// Its thread sleeps when there is nothing to do, and until the next item is due.
TEST(TimerQueue, SleepsWhileNothingIsDue) {
    TimerQueue queue;
    const auto processorTime = [&queue] {
        std::promise<milliseconds> used;
        queue.add(0, 0, 0, [&used](bool, unsigned int, int) {
            timespec spent{};
            ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
            used.set_value(milliseconds(spent.tv_sec * 1000 + spent.tv_nsec / 1000000));
        });
        return used.get_future().get();
    };
    for (const bool hasItem : {false, true}) {
        if (hasItem) queue.add(kMinutes, 0, 0, [](bool, unsigned int, int) {});
        const milliseconds before = processorTime();
        std::this_thread::sleep_for(milliseconds(300));
        EXPECT_LT(processorTime() - before, milliseconds(20)) << "with an item: " << hasItem;
    }
}

/// A thread that cannot be started gets a line; what was added is cancelled at the end.
TEST(TimerQueue, SaysWhenItHasNoThreadAndCancelsEverythingAtItsEnd) {
    Recorder recorder;
    OutputCapture capture;
    {
        const NoThreads none;
        ASSERT_TRUE(none.done());
        TimerQueue queue;
        EXPECT_EQ(queue.add(0, 1, 10, recorder.handler()), 1U);
        EXPECT_EQ(queue.add(kMinutes, 2, 20, recorder.handler()), 2U);
        EXPECT_EQ(recorder.calls(), Calls{});
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "TimerQueue: Cannot start the timer thread: Resource temporarily unavailable\n");
    EXPECT_EQ(capture.out(), "");
    const Calls calls = recorder.calls();
    ASSERT_EQ(calls.size(), 2U);
    for (const Call& expected : Calls{{true, 1, 10}, {true, 2, 20}})
        EXPECT_EQ(std::count(calls.begin(), calls.end(), expected), 1) << expected;
}

/// The next item starts a thread that could not be started; what was added before is not lost.
TEST(TimerQueue, StartsItsThreadWithTheNextItemWhenItCan) {
    Recorder recorder;
    OutputCapture capture;
    std::unique_ptr<TimerQueue> queue;
    {
        const NoThreads none;
        ASSERT_TRUE(none.done());
        queue = std::make_unique<TimerQueue>();
        queue->add(0, 1, 10, recorder.handler());
    }
    EXPECT_EQ(recorder.calls(), Calls{});
    queue->add(kMinutes, 2, 20, recorder.handler());
    EXPECT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.calls(), (Calls{{false, 1, 10}}));
    queue.reset();
    capture.stop();
    EXPECT_EQ(recorder.calls(), (Calls{{false, 1, 10}, {true, 2, 20}}));
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "TimerQueue: Cannot start the timer thread: Resource temporarily unavailable\n");
}
