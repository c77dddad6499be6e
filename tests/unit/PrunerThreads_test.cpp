#include "PrunerThreads.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <pthread.h>
#include <signal.h>

#include "support/KivTest.h"
#include "support/NoThreads.h"
#include "support/OutputCapture.h"
#include "support/WaitUntil.h"

namespace {

class PrunerThreadsTest : public KivTest {
  protected:
    /// A body that takes the lock and counts.
    void startOne() {
        threads.start([this] {
            ++arrived;
            const std::lock_guard<std::recursive_mutex> lock(pruneLock);
            PrunerThreads::tookTheLock();
            ++ran;
        });
    }

    std::recursive_mutex pruneLock;
    std::atomic<int> arrived{0};
    std::atomic<int> ran{0};
    PrunerThreads threads;
};

/// A prune runs on a thread of its own, with the alarm blocked.
TEST_F(PrunerThreadsTest, RunsTheBodyOnAThreadOfItsOwn) {
    std::thread::id id;
    threads.start([&id] { id = std::this_thread::get_id(); });
    threads.waitForAll();
    EXPECT_NE(id, std::thread::id());
    EXPECT_NE(id, std::this_thread::get_id());
}

/// While one thread waits for the lock no second is started, by any `DB`.
TEST_F(PrunerThreadsTest, StartsNoSecondThreadWhileOneWaitsForTheLock) {
    {
        const std::lock_guard<std::recursive_mutex> lock(pruneLock);
        for (int i = 0; i < 100; ++i) startOne();
        EXPECT_TRUE(WaitUntil([this] { return arrived == 1; }));
    }
    threads.waitForAll();
    EXPECT_EQ(arrived, 1);
    EXPECT_EQ(ran, 1);
    startOne();
    threads.waitForAll();
    EXPECT_EQ(ran, 2);
}

/// While one thread waits for the lock no second is started, by any `DB`.
TEST_F(PrunerThreadsTest, TheWaitingOneBarsThoseOfOtherObjectsToo) {
    PrunerThreads others;
    int otherRan = 0;
    {
        const std::lock_guard<std::recursive_mutex> lock(pruneLock);
        startOne();
        others.start([&otherRan] { ++otherRan; });
    }
    threads.waitForAll();
    others.waitForAll();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(otherRan, 0);
}

/// A thread that has the lock bars no other.
TEST_F(PrunerThreadsTest, AThreadThatHasTheLockBarsNoOther) {
    std::atomic<bool> goOn{false};
    std::atomic<bool> has{false};
    threads.start([&] {
        PrunerThreads::tookTheLock();
        has = true;
        WaitUntil([&] { return goOn.load(); });
    });
    EXPECT_TRUE(WaitUntil([&] { return has.load(); }));
    startOne();
    EXPECT_TRUE(WaitUntil([this] { return ran == 1; }));
    goOn = true;
    threads.waitForAll();
}

/// Inserts let the waiting thread go first, at most one batch goes ahead of it.
TEST_F(PrunerThreadsTest, LetsTheWaitingOneGoFirst) {
    std::atomic<int> ranBefore{-1};
    std::unique_lock<std::recursive_mutex> lock(pruneLock);
    startOne();
    std::thread insert([&] {
        PrunerThreads::letWaitingOneGoFirst(pruneLock);
        ranBefore = 0;
        const std::lock_guard<std::recursive_mutex> own(pruneLock);
        ranBefore = ran.load();
    });
    EXPECT_FALSE(WaitUntil([&] { return ranBefore != -1; }, std::chrono::milliseconds(50)));
    lock.unlock();
    insert.join();
    EXPECT_EQ(ranBefore, 1);
    threads.waitForAll();
}

/// Inserts let the waiting thread go first, at most one batch goes ahead of it.
TEST_F(PrunerThreadsTest, WaitsForTheWaitingOneAsLongAsAnotherThreadHoldsTheLock) {
    std::atomic<bool> passed{false};
    std::unique_lock<std::recursive_mutex> lock(pruneLock);
    startOne();
    std::thread insert([&] {
        PrunerThreads::letWaitingOneGoFirst(pruneLock);
        passed = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return passed.load(); }, std::chrono::milliseconds(1500)))
        << "longer than it takes to look whether the lock is its own";
    lock.unlock();
    insert.join();
    threads.waitForAll();
}

/// Inserts let the waiting thread go first, at most one batch goes ahead of it.
TEST_F(PrunerThreadsTest, OneBatchMayGoAheadOfEachWaitingOne) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(PrunerThreads::takeHeadStart()) << "nobody to go ahead of";
        std::unique_lock<std::recursive_mutex> lock(pruneLock);
        startOne();
        EXPECT_TRUE(PrunerThreads::takeHeadStart());
        EXPECT_FALSE(PrunerThreads::takeHeadStart());
        lock.unlock();
        threads.waitForAll();
    }
}

/// Nobody waits without need: none waiting, the lock one's own, or a pruning thread.
TEST_F(PrunerThreadsTest, WithoutAWaitingOneNobodyWaits) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) PrunerThreads::letWaitingOneGoFirst(pruneLock);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

/// Nobody waits without need: none waiting, the lock one's own, or a pruning thread.
TEST_F(PrunerThreadsTest, AThreadThatHoldsTheLockItselfDoesNotHang) {
    const std::lock_guard<std::recursive_mutex> lock(pruneLock);
    startOne();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) PrunerThreads::letWaitingOneGoFirst(pruneLock);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10))
        << "it finds out once and remembers";
    EXPECT_EQ(ran, 0);
    pruneLock.unlock();
    threads.waitForAll();
    pruneLock.lock();
    EXPECT_EQ(ran, 1);
}

/// Nobody waits without need: none waiting, the lock one's own, or a pruning thread.
TEST_F(PrunerThreadsTest, APruningThreadDoesNotWaitForAnother) {
    std::atomic<bool> done{false};
    std::unique_lock<std::recursive_mutex> lock(pruneLock);
    std::atomic<bool> begun{false};
    std::atomic<bool> goOn{false};
    PrunerThreads first;
    first.start([&] {
        PrunerThreads::tookTheLock();
        begun = true;
        WaitUntil([&] { return goOn.load(); });
        PrunerThreads::letWaitingOneGoFirst(pruneLock);
        done = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return begun.load(); }));
    startOne();
    ASSERT_TRUE(WaitUntil([&] { return arrived == 1; }));
    goOn = true;
    EXPECT_TRUE(WaitUntil([&] { return done.load(); })) << "the lock is still held";
    lock.unlock();
    threads.waitForAll();
}

/// Destruction waits for the threads.
TEST_F(PrunerThreadsTest, DestructionWaitsForTheThreads) {
    std::atomic<bool> goOn{false};
    std::atomic<bool> destroyed{false};
    auto own = std::make_unique<PrunerThreads>();
    own->start([&goOn] { WaitUntil([&goOn] { return goOn.load(); }); });
    std::thread destroyer([&] {
        own.reset();
        destroyed = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return destroyed.load(); }, std::chrono::milliseconds(50)));
    goOn = true;
    destroyer.join();
}

/// A failed start gets a line and the next one tries again.
TEST_F(PrunerThreadsTest, AFailedStartIsReportedAndTheNextOneTriesAgain) {
    OutputCapture capture;
    {
        const NoThreads none;
        ASSERT_TRUE(none.done());
        startOne();
    }
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Cannot start the pruning thread: Resource temporarily unavailable\n");
    startOne();
    threads.waitForAll();
    capture.stop();
    EXPECT_EQ(ran, 1);
}

/// What a prune throws gets a line and bars nothing.
TEST_F(PrunerThreadsTest, WhatABodyThrowsGetsALineAndBarsNothing) {
    OutputCapture capture;
    threads.start([] { throw std::runtime_error("broken"); });
    threads.waitForAll();
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: Pruning failed: broken\n");
    startOne();
    threads.waitForAll();
    EXPECT_EQ(ran, 1);
}

/// Every thread but the main one blocks it.
///
/// A prune runs on a thread of its own, with the alarm blocked.
TEST_F(PrunerThreadsTest, TheAlarmIsBlockedOnItsThreads) {
    bool blocked = false;
    threads.start([&blocked] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        blocked = sigismember(&mask, SIGALRM) == 1;
    });
    threads.waitForAll();
    EXPECT_TRUE(blocked);
}

}  // namespace
