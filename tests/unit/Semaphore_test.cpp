#include "Semaphore.h"

#include "support/WaitUntil.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

bool takeNow(Semaphore& semaphore) {
    return semaphore.waitUntil(steady_clock::now());
}

}  // namespace

/// Each notification lets one wait through.
TEST(Semaphore, TakesOneForEachNotification) {
    Semaphore semaphore;
    semaphore.notify();
    semaphore.notify();
    EXPECT_TRUE(takeNow(semaphore));
    EXPECT_TRUE(takeNow(semaphore));
    EXPECT_FALSE(takeNow(semaphore));
}

/// Each notification lets one wait through.
TEST(Semaphore, WaitTakesWhatIsThereAtOnce) {
    Semaphore semaphore;
    semaphore.notify();
    semaphore.wait();
    EXPECT_FALSE(takeNow(semaphore));
}

/// A timed wait ends at its deadline, not before, and returns false.
TEST(Semaphore, TimesOutAtTheDeadlineAndNotBefore) {
    Semaphore semaphore;
    const auto deadline = steady_clock::now() + milliseconds(30);
    EXPECT_FALSE(semaphore.waitUntil(deadline));
    EXPECT_GE(steady_clock::now(), deadline);
}

/// A deadline that has passed ends the wait at once, but takes what is there.
TEST(Semaphore, TimesOutAtOnceForADeadlineThatHasPassed) {
    Semaphore semaphore;
    EXPECT_FALSE(semaphore.waitUntil(steady_clock::time_point{}));
    EXPECT_FALSE(semaphore.waitUntil(steady_clock::time_point::min()));
    semaphore.notify();
    EXPECT_TRUE(semaphore.waitUntil(steady_clock::time_point{}));
}

/// A notification ends a timed wait with true, also with the farthest deadline.
TEST(Semaphore, ANotificationEndsATimedWait) {
    Semaphore semaphore;
    std::atomic<bool> taken{false};
    std::thread waiter(
        [&] { taken = semaphore.waitUntil(steady_clock::now() + std::chrono::minutes(5)); });
    semaphore.notify();
    waiter.join();
    EXPECT_TRUE(taken);
    EXPECT_FALSE(takeNow(semaphore));
}

/// A notification ends a timed wait with true, also with the farthest deadline.
TEST(Semaphore, ANotificationEndsAWaitForTheFarthestDeadline) {
    Semaphore semaphore;
    std::atomic<bool> done{false};
    std::atomic<bool> taken{false};
    std::thread waiter([&] {
        taken = semaphore.waitUntil(steady_clock::time_point::max());
        done = true;
    });
    std::this_thread::yield();
    EXPECT_FALSE(done);
    semaphore.notify();
    waiter.join();
    EXPECT_TRUE(taken);
}

/// A notification ends a wait without limit.
TEST(Semaphore, ANotificationEndsAWaitWithoutLimit) {
    Semaphore semaphore;
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        semaphore.wait();
        done = true;
    });
    std::this_thread::yield();
    EXPECT_FALSE(done);
    semaphore.notify();
    waiter.join();
    EXPECT_TRUE(done);
}

/// Each notification lets one wait through.
TEST(Semaphore, WakesAsManyWaitersAsItIsNotified) {
    Semaphore semaphore;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            semaphore.wait();
            ++woken;
        });
    }
    semaphore.notify();
    EXPECT_TRUE(WaitUntil([&] { return woken == 1; }));
    semaphore.notify();
    semaphore.notify();
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(woken, 3);
    EXPECT_FALSE(takeNow(semaphore));
}
