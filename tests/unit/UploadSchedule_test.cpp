#include "UploadSchedule.h"

#include <thread>

#include <limits.h>

#include "UploadLog.h"
#include "support/KivTest.h"
#include "support/NoThreads.h"
#include "support/OutputCapture.h"
#include "support/UploadSchedulePeer.h"
#include "support/WaitUntil.h"

namespace {

class UploadScheduleTest : public KivTest {
  protected:
    using Messages = UploadSchedulePeer::Messages;

    Messages waiting() { return UploadSchedulePeer::waiting(asked); }

    /// Whether the kind's timer is pending and was asked for with `delayMs`, a moment ago.
    ::testing::AssertionResult isDelayed(int id, long long delayMs) {
        const long long left = UploadSchedulePeer::pendingDelay(asked, id);
        if (left <= delayMs && left > delayMs - 10000) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "pending: " << left << " ms";
    }

    UploadSchedule asked;
};

}  // namespace

// --- messages -----------------------------------------------------------------------------------

/// Equal messages that wait are one; a forced refresh stands beside a plain one.
TEST_F(UploadScheduleTest, KeepsOneOfTwoEqualMessages) {
    asked.post(1, 0);
    asked.post(1, 0);
    EXPECT_EQ(waiting(), (Messages{{1, 0}}));
}

/// Equal messages that wait are one; a forced refresh stands beside a plain one.
TEST_F(UploadScheduleTest, KeepsAForcedRefreshBesideAPlainOne) {
    asked.post(3, 0);
    asked.post(3, 1);
    asked.post(3, 0);
    EXPECT_EQ(waiting(), (Messages{{3, 0}, {3, 1}}));
}

/// A sent message is told when verbose, unless it was dropped.
TEST_F(UploadScheduleTest, NotesASentMessageWhenVerboseUnlessItWasDropped) {
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    asked.post(3, 1);
    asked.post(3, 1);
    output.stop();
    EXPECT_EQ(output.outWithoutPrefixes(), "kivUpload:  Send message 3 1\n");
}

/// A sent message is told when verbose, unless it was dropped.
TEST_F(UploadScheduleTest, SaysNothingOtherwise) {
    OutputCapture output;
    asked.post(3, 1);
    asked.requestRefreshConfig(5000, true);
    output.stop();
    EXPECT_EQ(output.out(), "");
}

// --- scheduling ---------------------------------------------------------------------------------

/// Without a delay each call posts its message at once.
TEST_F(UploadScheduleTest, PostsAtOnceWithoutADelay) {
    asked.requestEventsUpload();
    asked.requestFilesUpload();
    asked.requestRefreshConfig(0, true);
    asked.requestRefreshConfig(0, false);
    asked.requestEventsTimeCheck();
    asked.requestInitialization();
    EXPECT_EQ(waiting(), (Messages{{1, 0}, {2, 0}, {3, 1}, {3, 0}, {4, 0}, {5, 0}}));
    EXPECT_EQ(UploadSchedulePeer::pendingTimers(asked), 0);
}

/// Each kind has one timer; a new delay replaces the old, posting at once leaves it.
TEST_F(UploadScheduleTest, KeepsATimerOfItsOwnForEachKind) {
    asked.requestEventsUpload(100000);
    asked.requestFilesUpload(200000);
    asked.requestRefreshConfig(300000, false);
    asked.requestEventsTimeCheck(400000);
    asked.requestInitialization(500000);
    EXPECT_TRUE(isDelayed(1, 100000));
    EXPECT_TRUE(isDelayed(2, 200000));
    EXPECT_TRUE(isDelayed(3, 300000));
    EXPECT_TRUE(isDelayed(4, 400000));
    EXPECT_TRUE(isDelayed(5, 500000));
    EXPECT_EQ(UploadSchedulePeer::pendingTimers(asked), 5);
    EXPECT_EQ(waiting(), Messages{});
}

/// Each kind has one timer; a new delay replaces the old, posting at once leaves it.
TEST_F(UploadScheduleTest, ReplacesAPendingDelayByALongerOrAShorterOne) {
    asked.requestEventsTimeCheck(60000);
    asked.requestEventsTimeCheck(300000);
    EXPECT_TRUE(isDelayed(4, 300000));
    asked.requestEventsTimeCheck(30000);
    EXPECT_TRUE(isDelayed(4, 30000));
    EXPECT_TRUE(WaitUntil([&] { return UploadSchedulePeer::pendingTimers(asked) == 1; }));
    EXPECT_EQ(waiting(), Messages{}) << "a cancelled timer posts nothing";
}

/// Each kind has one timer; a new delay replaces the old, posting at once leaves it.
TEST_F(UploadScheduleTest, LeavesAPendingDelayAloneWhenPostingAtOnce) {
    asked.requestEventsTimeCheck(60000);
    const std::uint64_t handle = UploadSchedulePeer::timer(asked, 4);
    asked.requestEventsTimeCheck();
    EXPECT_TRUE(isDelayed(4, 60000));
    EXPECT_EQ(UploadSchedulePeer::timer(asked, 4), handle);
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
}

/// A passed delay posts the message and keeps the handle.
TEST_F(UploadScheduleTest, PostsWhenTheDelayHasPassedAndKeepsTheHandle) {
    asked.requestFilesUpload(1);
    const std::uint64_t handle = UploadSchedulePeer::timer(asked, 2);
    EXPECT_NE(handle, 0u);
    EXPECT_TRUE(WaitUntil([&] { return waiting() == Messages{{2, 0}}; }));
    EXPECT_EQ(UploadSchedulePeer::timer(asked, 2), handle);
}

/// The force of a delayed refresh is not carried.
TEST_F(UploadScheduleTest, DoesNotCarryTheForceOfADelayedRefresh) {
    asked.requestRefreshConfig(1, true);
    EXPECT_TRUE(WaitUntil([&] { return waiting() == Messages{{3, 0}}; }));
    asked.requestRefreshConfig(0, true);
    EXPECT_EQ(waiting(), (Messages{{3, 0}, {3, 1}}));
}

/// The delay of a refresh is told when verbose.
TEST_F(UploadScheduleTest, NotesTheDelayOfARefreshWhenVerbose) {
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    asked.requestRefreshConfig(5000, true);
    asked.requestRefreshConfig(0, true);
    output.stop();
    EXPECT_EQ(output.outWithoutPrefixes(),
              "kivUpload: ScheduleRefreshConfig delay:5000\n"
              "kivUpload: ScheduleRefreshConfig delay:0\n"
              "kivUpload:  Send message 3 1\n");
}

/// Delays are clamped to 1 ... 2147483647 ms.
TEST_F(UploadScheduleTest, ClampsDelays) {
    asked.requestEventsUpload(LONG_MAX);
    EXPECT_TRUE(isDelayed(1, 2147483647));
    asked.requestFilesUpload(-5);
    EXPECT_TRUE(WaitUntil([&] { return waiting() == Messages{{2, 0}}; }));
}

/// A cancelled timer, or one of an object that has gone, posts nothing.
TEST_F(UploadScheduleTest, PostsNothingForACancelledTimer) {
    UploadSchedule::postTo(true, asked.instance(), 1);
    EXPECT_EQ(waiting(), Messages{});
    UploadSchedule::postTo(false, asked.instance(), 1);
    EXPECT_EQ(waiting(), (Messages{{1, 0}}));
}

/// A cancelled timer, or one of an object that has gone, posts nothing.
TEST_F(UploadScheduleTest, PostsNothingForAnObjectThatHasGone) {
    unsigned int gone = 0;
    {
        const UploadSchedule another;
        gone = another.instance();
        EXPECT_NE(gone, asked.instance());
    }
    UploadSchedule::postTo(false, gone, 1);
    UploadSchedule::postTo(false, 4000000000U, 1);
    EXPECT_EQ(waiting(), Messages{});
}

/// It ends whatever waits, with its last holder.
TEST_F(UploadScheduleTest, DiesWithTimersPendingAndMessagesWaiting) {
    unsigned int gone = 0;
    {
        UploadSchedule another;
        gone = another.instance();
        another.requestEventsUpload(100000);
        another.requestFilesUpload(1);
        another.post(1, 0);
    }
    UploadSchedule::postTo(false, gone, 1);
    EXPECT_EQ(waiting(), Messages{});
}

/// A refresh can be asked for by the schedule's number, of the living one only.
TEST_F(UploadScheduleTest, RequestsARefreshByItsNumber) {
    UploadSchedule::requestRefreshConfigOf(asked.instance(), 7000, true);
    EXPECT_TRUE(isDelayed(3, 7000));
    UploadSchedule::requestRefreshConfigOf(asked.instance(), 0, true);
    EXPECT_EQ(waiting(), (Messages{{3, 1}}));
    UploadSchedule::requestRefreshConfigOf(4000000000U, 0, false);
    EXPECT_EQ(waiting(), (Messages{{3, 1}}));
}

/// Seconds become a delay in milliseconds, no longer than a delay can be.
TEST_F(UploadScheduleTest, TurnsSecondsIntoADelay) {
    EXPECT_EQ(UploadSchedule::delayOfSeconds(1), 1000);
    EXPECT_EQ(UploadSchedule::delayOfSeconds(3600), 3600000);
    EXPECT_EQ(UploadSchedule::delayOfSeconds(2147484), 2147483000);
    EXPECT_EQ(UploadSchedule::delayOfSeconds(INT64_MAX), 2147483000);
}

/// The thread that works waits for its message.
TEST_F(UploadScheduleTest, HandsTheNextMessageToTheThreadThatWaits) {
    UploadSchedule::Message got{0, 0};
    std::thread worker([&] { got = asked.wait(); });
    asked.post(3, 1);
    worker.join();
    EXPECT_EQ(got.id, 3);
    EXPECT_EQ(got.param, 1);
    EXPECT_EQ(waiting(), Messages{});
}

/// Without a thread for the timers, messages are posted all the same and delayed ones are not.
TEST_F(UploadScheduleTest, PostsWithoutTimersWhenTheirThreadCannotBeStarted) {
    OutputCapture output;
    const NoThreads noThreads;
    ASSERT_TRUE(noThreads.done());
    UploadSchedule another;
    another.requestFilesUpload(1);
    another.requestEventsUpload();
    output.stop();
    EXPECT_EQ(UploadSchedulePeer::waiting(another), (Messages{{1, 0}}));
    EXPECT_EQ(output.errWithoutPrefixes(),
              "TimerQueue: Cannot start the timer thread: Resource temporarily unavailable\n");
}
