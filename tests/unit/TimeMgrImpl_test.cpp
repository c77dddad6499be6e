#include "TimeMgrImpl.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include <cerrno>

#include <unistd.h>

#include <gmock/gmock.h>

#include "CGlobalInfoImpl.h"
#include "DB.h"
#include "KernelTime.h"
#include "Singleton.h"
#include "support/AppClockPeer.h"
#include "support/KivTest.h"
#include "support/MiddlewareTimePeer.h"
#include "support/OutputCapture.h"
#include "support/StoreFaults.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"
#include "support/TimeMgrImplPeer.h"
#include "support/TimePipe.h"
#include "support/WaitUntil.h"

#include <sqlite3.h>

namespace {

using ::testing::HasSubstr;

constexpr std::int64_t kTime = 1551953702000;  // UTC ms: 2019-03-07T10:15:02Z
constexpr std::int64_t kMinute = 60000;
const TimeReference kRef(7, 3, 500000);

class TimeMgrImplTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        TimeMgrImpl::SetVerbose(false);
        DB::setVerbose(false);
        DB::m_dbError = false;
        MiddlewareTimePeer::setPipePath(m_dir.file("pipe"));
        AppClockPeer::forget();
        m_info->setBootCounts(7, 3);
    }
    void TearDown() override {
        m_manager.reset();
        TimeMgrImpl::SetVerbose(false);
        DB::m_dbError = false;
        MiddlewareTimePeer::setPipePath(MiddlewareTimePeer::productPipe);
        AppClockPeer::forget();
        KivTest::TearDown();
    }

    std::string dbPath() const { return m_dir.file("Db"); }

    /// The class's lines on standard output while it is verbose.
    static std::string linesOf(const std::function<void()>& action) {
        TimeMgrImpl::SetVerbose(true);
        OutputCapture capture;
        action();
        capture.stop();
        TimeMgrImpl::SetVerbose(false);
        EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "TimeMgr: "), "");
        EXPECT_EQ(taggedLines(capture.out(), "TimeMgr: "), "");  // none without a prefix
        return prefixedLines(capture.out(), "TimeMgr: ");
    }

    /// The class's lines on standard error while it is not verbose; it writes no others then.
    static std::string errorsOf(const std::function<void()>& action) {
        OutputCapture capture;
        action();
        capture.stop();
        EXPECT_EQ(taggedLines(capture.outWithoutPrefixes(), "TimeMgr: "), "");
        EXPECT_EQ(taggedLines(capture.err(), "TimeMgr: "), "");  // none without a prefix
        return prefixedLines(capture.err(), "TimeMgr: ");
    }

    /// The start time that is stored for the cycle of `kRef`.
    std::int64_t storedStart(TimeSource source) const {
        DB db;
        db.open(dbPath(), false);
        return db.getStartTime(7, 3, source);
    }

    TempDir m_dir;
    Singleton<CGlobalInfoImpl> m_info;
    std::unique_ptr<TimeMgrImpl> m_manager = std::make_unique<TimeMgrImpl>();
};

/// The same with its store open; the middleware is not watched.
class OpenTimeMgrTest : public TimeMgrImplTest {
  protected:
    void SetUp() override {
        TimeMgrImplTest::SetUp();
        m_manager->setDBPath(dbPath());
        m_manager->setAutoUpdateSystemTime(false);
    }
};

// --- names --------------------------------------------------------------------------------------

/// The sources are named "Invalid", "system", "web", and "unknown" otherwise.
TEST_F(TimeMgrImplTest, NamesTheSources) {
    EXPECT_STREQ(TimeMgrImpl::getTimeSourceAsString(-1), "Invalid");
    EXPECT_STREQ(TimeMgrImpl::getTimeSourceAsString(0), "system");
    EXPECT_STREQ(TimeMgrImpl::getTimeSourceAsString(1), "web");
    EXPECT_STREQ(TimeMgrImpl::getTimeSourceAsString(5), "unknown");
    EXPECT_STREQ(TimeMgrImpl::getTimeSourceAsString(-2), "unknown");
}

/// The sources are named "Invalid", "system", "web", and "unknown" otherwise.
TEST_F(TimeMgrImplTest, WritesASourceAsItsName) {
    std::ostringstream out;
    out << TimeSourceInvalid << TimeSourceSystem << TimeSourceWeb;
    EXPECT_EQ(out.str(), "Invalidsystemweb");
}

// --- application clock --------------------------------------------------------------------------

/// `setSystemTime` sets the application clock.
TEST_F(TimeMgrImplTest, SetsTheApplicationClock) {
    TimeMgrImpl::setSystemTime(kTime + 347);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
    EXPECT_EQ(AppClockPeer::asSet().tv_nsec, 347000000);
    EXPECT_GE(kivAppNow().time_since_epoch(), std::chrono::milliseconds(kTime + 347));
}

/// Setting it is logged when verbose.
TEST_F(TimeMgrImplTest, SettingTheApplicationClockIsLoggedWhenVerbose) {
    EXPECT_EQ(linesOf([] { TimeMgrImpl::setSystemTime(kTime); }),
              "TimeMgr: setSystemTime: 1551953702000\n");
    EXPECT_EQ(errorsOf([] { TimeMgrImpl::setSystemTime(kTime); }), "");
}

// --- without a database -------------------------------------------------------------------------

/// Without a database times are 0 with "No DB set", and setting does nothing with "setTime: No
/// DB set".
TEST_F(TimeMgrImplTest, WithoutADatabaseGetTimeIsZeroWithALine) {
    EXPECT_EQ(errorsOf([this] { EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), 0); }),
              "TimeMgr: No DB set\n");
    EXPECT_EQ(errorsOf([this] { EXPECT_EQ(m_manager->getTime(kRef), 0); }),
              "TimeMgr: No DB set\nTimeMgr: No DB set\n");
}

/// Without a database times are 0 with "No DB set", and setting does nothing with "setTime: No
/// DB set".
TEST_F(TimeMgrImplTest, WithoutADatabaseSetTimeDoesNothingWithALine) {
    EXPECT_EQ(errorsOf([this] { m_manager->setTime(TimeSourceWeb, kRef, kTime); }),
              "TimeMgr: setTime: No DB set\n");
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, 0);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), -1);
}

/// An empty path closes the database; a new one opens another and forgets the source.
TEST_F(OpenTimeMgrTest, AnEmptyPathClosesTheDatabase) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    m_manager->setDBPath("");
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
    EXPECT_EQ(errorsOf([this] { EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), 0); }),
              "TimeMgr: No DB set\n");
}

/// An empty path closes the database; a new one opens another and forgets the source.
TEST_F(OpenTimeMgrTest, ANewPathOpensAnotherStoreAndForgetsTheSource) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 1);
    m_manager->setDBPath(m_dir.file("Other"));
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), -1);
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), 0);
    m_manager->setDBPath(dbPath());
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), kTime);
}

/// A file that is not a database is not recreated.
TEST_F(OpenTimeMgrTest, AStoreThatIsNotADatabaseIsNotRecreated) {
    const std::string path = m_dir.write("Foreign", std::string(4096, 'x'));
    OutputCapture quiet;
    m_manager->setDBPath(path);
    quiet.stop();
    EXPECT_EQ(TempDir::readFile(path), std::string(4096, 'x'));
}

// --- getting times ------------------------------------------------------------------------------

/// Without rows no time is known: 0, no source, two objects with "utc" 0.
TEST_F(OpenTimeMgrTest, WithoutRowsNoTimeIsKnown) {
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, kRef), 0);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), 0);
    EXPECT_EQ(m_manager->getTime(kRef), 0);
    EXPECT_EQ(m_manager->getPreferredTimeSource(kRef), TimeSourceInvalid);
    EXPECT_EQ(m_manager->getAllTimesAsJson(kRef).dumpAsString(),
              R"([{"src": "system", "utc": 0}, {"src": "web", "utc": 0}])");
}

/// A moment of a cycle is its start plus its kernel time; other cycles are unknown.
TEST_F(OpenTimeMgrTest, ALaterMomentOfTheCycleIsThatMuchLater) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, TimeReference(7, 3, 512345)), kTime + 12345);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, TimeReference(7, 3, 400000)), kTime - 100000);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, TimeReference(7, 4, 512345)), 0);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, TimeReference(8, 3, 512345)), 0);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime - 500000);
}

/// Web time is preferred to system time.
TEST_F(OpenTimeMgrTest, WebTimeIsPreferredToSystemTime) {
    m_manager->setTime(TimeSourceSystem, kRef, kTime - 10 * kMinute);
    EXPECT_EQ(m_manager->getTime(kRef), kTime - 10 * kMinute);
    EXPECT_EQ(m_manager->getPreferredTimeSource(kRef), TimeSourceSystem);
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(m_manager->getTime(kRef), kTime);
    EXPECT_EQ(m_manager->getPreferredTimeSource(kRef), TimeSourceWeb);
    EXPECT_EQ(m_manager->getAllTimesAsJson(kRef).dumpAsString(),
              R"([{"src": "system", "utc": 1551953102000}, {"src": "web", "utc": 1551953702000}])");
}

/// Verbose, times given and taken are told; otherwise nothing is.
TEST_F(OpenTimeMgrTest, SaysWhichTimeItGives) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(linesOf([this] { m_manager->getTime(TimeSourceWeb, TimeReference(7, 3, 600000)); }),
              "TimeMgr: getTime ts=web bc = 7 sc = 3 utc = 1551953202000\n"
              "TimeMgr: getTime for tr=(7,3,600000) is 1551953802000\n");
    EXPECT_EQ(linesOf([this] { m_manager->getTime(TimeSourceSystem, kRef); }),
              "TimeMgr: getTime ts=system bc = 7 sc = 3 utc = 0\n");
}

/// Verbose, times given and taken are told; otherwise nothing is.
TEST_F(OpenTimeMgrTest, IsSilentWhenNotVerbose) {
    EXPECT_EQ(errorsOf([this] {
                  m_manager->setTime(TimeSourceWeb, kRef, kTime);
                  m_manager->setTime(TimeSourceWeb, kRef, kTime);
                  m_manager->getTime(kRef);
              }),
              "");
}

/// Verbose, times given and taken are told; otherwise nothing is.
TEST_F(OpenTimeMgrTest, ItsLinesCarryTheDiagnosticPrefix) {
    TimeMgrImpl::SetVerbose(true);
    OutputCapture capture;
    TimeMgrImpl::setSystemTime(kTime);
    m_manager->setDBPath("");
    m_manager->getTime(TimeSourceWeb, kRef);
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "TimeMgr: "), "TimeMgr: setSystemTime: 1551953702000\n");
    EXPECT_EQ(prefixedLines(capture.err(), "TimeMgr: "), "TimeMgr: No DB set\n");
}

// --- setting times ------------------------------------------------------------------------------

/// Verbose, times given and taken are told; otherwise nothing is.
TEST_F(OpenTimeMgrTest, SaysWhichTimeItTakes) {
    EXPECT_EQ(linesOf([this] { m_manager->setTime(TimeSourceWeb, kRef, kTime); }),
              "TimeMgr: setTime ts=web timeRef = (7,3,500000) to utc = 1551953702000\n"
              "TimeMgr: setSystemTime: 1551953702000\n"
              "TimeMgr: getTime ts=web bc = 7 sc = 3 utc = 0\n"
              "TimeMgr: Utc of start of session = 1551953202000\n"
              "TimeMgr: Time changed from 0 to 1551953702000\n");
}

/// A change of up to 60000 ms is ignored, a larger one stored.
TEST_F(OpenTimeMgrTest, AChangeOfUpToAMinuteIsIgnored) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(linesOf([this] { m_manager->setTime(TimeSourceWeb, kRef, kTime + kMinute); }),
              "TimeMgr: setTime ts=web timeRef = (7,3,500000) to utc = 1551953762000\n"
              "TimeMgr: setSystemTime: 1551953762000\n"
              "TimeMgr: getTime ts=web bc = 7 sc = 3 utc = 1551953202000\n"
              "TimeMgr: getTime for tr=(7,3,500000) is 1551953702000\n"
              "TimeMgr: No significant change in time. Not updating. Old time = 1551953702000 "
              "New time = 1551953762000\n");
    m_manager->setTime(TimeSourceWeb, kRef, kTime - kMinute);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime - 500000);
}

/// A change of up to 60000 ms is ignored, a larger one stored.
TEST_F(OpenTimeMgrTest, AChangeOfMoreThanAMinuteIsStored) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    m_manager->setTime(TimeSourceWeb, kRef, kTime + kMinute + 1);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime + kMinute + 1 - 500000);
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime - 500000);
}

/// Time 0 forgets the cycle and leaves the clock.
TEST_F(OpenTimeMgrTest, TimeZeroForgetsTheCycleAndLeavesTheClock) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(linesOf([this] { m_manager->setTime(TimeSourceWeb, kRef, 0); }),
              "TimeMgr: setTime ts=web timeRef = (7,3,500000) to utc = 0\n");
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), 0);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 1);
}

/// System time sets the clock until web time has; afterwards it is only stored.
TEST_F(OpenTimeMgrTest, SystemTimeSetsTheClockUntilWebTimeHasSetIt) {
    m_manager->setTime(TimeSourceSystem, kRef, kTime);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 0);
    m_manager->setTime(TimeSourceSystem, kRef, kTime + 5000);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000 + 5);

    m_manager->setTime(TimeSourceWeb, kRef, kTime + 10000);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000 + 10);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 1);
    m_manager->setTime(TimeSourceSystem, kRef, kTime + 10 * kMinute);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000 + 10);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 1);
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, kRef), kTime + 10 * kMinute);
}

/// Times of any size are survived; readers never meet half a setting.
TEST_F(OpenTimeMgrTest, TimesOfAnySizeAreCarriedWithoutOverflow) {
    m_manager->setTime(TimeSourceSystem, kRef, INT64_MAX);
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference(7, 3, 600000)), INT64_MAX);
    m_manager->setTime(TimeSourceSystem, kRef, INT64_MIN);
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference(7, 3, -1)), INT64_MIN);
}

/// Web time ends the watch on the pipe.
TEST_F(OpenTimeMgrTest, WebTimeStopsTheWatching) {
    m_manager->setAutoUpdateSystemTime(true);
    m_manager->setTime(TimeSourceSystem, kRef, kTime);
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
}

/// Web time ends the watch on the pipe.
TEST_F(OpenTimeMgrTest, WebTimeStopsTheWatchingAlsoWhenItHasSetTheClockBefore) {
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    m_manager->setAutoUpdateSystemTime(true);
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
}

/// System time sets the clock until web time has; afterwards it is only stored.
TEST_F(OpenTimeMgrTest, ABetterSourceThatComesWhileTheWatchingStopsKeepsTheClock) {
    constexpr int better = TimeSourceWeb + 1;
    m_manager->setAutoUpdateSystemTime(true);
    std::thread setter;
    {
        const std::lock_guard<std::mutex> stopping(
            MiddlewareTimePeer::wakeMutex(TimeMgrImplPeer::watch(*m_manager)));
        setter = std::thread([this] { m_manager->setTime(TimeSourceWeb, kRef, kTime); });
        // Web time was the best when the stopping began.
        EXPECT_TRUE(WaitUntil([this] {
            return !std::unique_lock<std::mutex>(
                        MiddlewareTimePeer::threadMutex(TimeMgrImplPeer::watch(*m_manager)),
                        std::try_to_lock)
                        .owns_lock();
        }));
        TimeMgrImplPeer::setCurrentSource(*m_manager, better);
    }
    setter.join();
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), better);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, 0);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime - 500000);
}

/// A failed storing, or a store in error, calls the error callback, without a lock.
TEST_F(OpenTimeMgrTest, AFailedStoringCallsTheErrorCallbackWithoutALock) {
    int calls = 0;
    m_manager->setErrorCallback([&] {
        ++calls;
        EXPECT_TRUE(std::async(std::launch::async, [this] {
                        const std::unique_lock<std::recursive_mutex> store(DB::m_PruneLock,
                                                                           std::try_to_lock);
                        const std::unique_lock<std::mutex> own(TimeMgrImplPeer::mutex(*m_manager),
                                                               std::try_to_lock);
                        return store.owns_lock() && own.owns_lock();
                    }).get());
    });
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(calls, 0);
    StoreFaults faults;
    faults.failEach(StoreFaults::Call::Write, EIO);
    OutputCapture quiet;
    m_manager->setTime(TimeSourceWeb, kRef, kTime + 10 * kMinute);
    quiet.stop();
    EXPECT_EQ(calls, 1);
}

/// A start time that the store does not take holds in memory, for its cycle and its source, and for
/// the application clock.
TEST_F(OpenTimeMgrTest, AStartTimeThatIsNotStoredHoldsInMemory) {
    const OutputCapture quiet;
    StoreFaults faults;
    faults.failEach(StoreFaults::Call::Write, EIO);
    m_manager->setTime(TimeSourceWeb, kRef, kTime + 10 * kMinute);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), kTime + 10 * kMinute);
    EXPECT_EQ(m_manager->getPreferredTimeSource(kRef), TimeSourceWeb);
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, kRef), 0);
    TimeReference other = kRef;
    other.standbyCount += 1;
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, other), 0);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, (kTime + 10 * kMinute) / 1000);
    m_manager->setTime(TimeSourceWeb, kRef, 0);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), 0) << "forgotten";
}

/// What holds in memory is stored by the next report, however small the change, once the store
/// takes it.
TEST_F(OpenTimeMgrTest, WhatHoldsInMemoryIsStoredByTheNextReport) {
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> owner(other, sqlite3_close);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    OutputCapture capture;
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    capture.stop();
    EXPECT_NE(capture.err().find("Can't Insert into table TimeOffsets"), std::string::npos);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), kTime);
    ASSERT_EQ(sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(storedStart(TimeSourceWeb), 0);
    m_manager->setTime(TimeSourceWeb, kRef, kTime + 1);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime + 1 - kRef.kernelTime);
    m_manager->setTime(TimeSourceWeb, kRef, kTime + 2);
    EXPECT_EQ(storedStart(TimeSourceWeb), kTime + 1 - kRef.kernelTime) << "no longer in memory";
}

/// A failed storing, or a store in error, calls the error callback, without a lock.
TEST_F(OpenTimeMgrTest, AStoreInErrorCallsTheErrorCallback) {
    int calls = 0;
    m_manager->setErrorCallback([&] { ++calls; });
    DB::m_dbError = true;
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(calls, 1);
    m_manager->setTime(TimeSourceWeb, kRef, kTime);  // nothing stored, nothing reported
    EXPECT_EQ(calls, 1);
}

/// A failed storing, or a store in error, calls the error callback, without a lock.
TEST_F(OpenTimeMgrTest, WithoutAnErrorCallbackAFailureIsSurvived) {
    DB::m_dbError = true;
    m_manager->setTime(TimeSourceWeb, kRef, kTime);
    EXPECT_EQ(m_manager->getTime(TimeSourceWeb, kRef), kTime);
}

/// The store's lock comes before its own mutex.
TEST_F(OpenTimeMgrTest, AHolderOfTheStoresLockMayAskWhileAnotherThreadSets) {
    std::atomic<bool> finished{false};
    std::thread setter([&] {
        for (int i = 0; i < 10; ++i) {
            m_manager->setTime(TimeSourceSystem, kRef, kTime + i * 10 * kMinute);
        }
        finished = true;
    });
    while (!finished) {
        const std::lock_guard<std::recursive_mutex> packing(DB::m_PruneLock);
        m_manager->getTime(kRef);
        m_manager->getPreferredTimeSource(kRef);
        m_manager->getAllTimesAsJson(kRef);
    }
    setter.join();
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, kRef), kTime + 90 * kMinute);
}

// --- acceptable times ---------------------------------------------------------------------------

/// 0, a boot before August 2016, one before the build and negative times are not acceptable.
TEST_F(TimeMgrImplTest, TimeZeroIsNotAcceptable) {
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(0));
}

/// 0, a boot before August 2016, one before the build and negative times are not acceptable.
TEST_F(TimeMgrImplTest, ABootBeforeAugust2016IsNotAcceptable) {
    const auto uptime = static_cast<unsigned long long>(TimeReference().kernelTime / 1000);
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(1470009599));
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(1470009599 + uptime));
    EXPECT_TRUE(m_manager->isSystemTimeAcceptable(1470009600 + uptime + 30));
}

/// 0, a boot before August 2016, one before the build and negative times are not acceptable.
TEST_F(TimeMgrImplTest, ABootBeforeTheBuildIsNotAcceptable) {
    m_info->Load(m_dir.write("Info", R"({"builddate": "UTC time=20190307 10:15:02="})"));
    const auto uptime = static_cast<unsigned long long>(TimeReference().kernelTime / 1000);
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(1551953702 + uptime));
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(1551953702 + 60 + uptime));
    EXPECT_TRUE(m_manager->isSystemTimeAcceptable(1551953702 + 61 + uptime + 30));
}

/// 0, a boot before August 2016, one before the build and negative times are not acceptable.
TEST_F(TimeMgrImplTest, NegativeTimesAreNotAcceptable) {
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(static_cast<unsigned long long>(-1)));
    EXPECT_FALSE(m_manager->isSystemTimeAcceptable(static_cast<unsigned long long>(INT64_MIN)));
}

/// The middleware's value is judged as received.
TEST_F(TimeMgrImplTest, MillisecondsAreAcceptableAsReceived) {
    EXPECT_TRUE(m_manager->isSystemTimeAcceptable(kTime));
}

// --- waiting for the database path --------------------------------------------------------------

/// Whoever waits for the database waits only when one was announced, until the limit.
TEST_F(TimeMgrImplTest, WithoutAnAnnouncementNobodyWaits) {
    EXPECT_TRUE(TimeMgrImpl::waitForDBPath(std::chrono::milliseconds(0)));
}

/// Whoever waits for the database waits only when one was announced, until the limit.
TEST_F(TimeMgrImplTest, AnAnnouncedPathIsWaitedForUntilTheLimit) {
    TimeMgrImpl::expectDBPath();
    EXPECT_FALSE(TimeMgrImpl::waitForDBPath(std::chrono::milliseconds(20)));
    m_manager->setDBPath(dbPath());
    EXPECT_TRUE(TimeMgrImpl::waitForDBPath(std::chrono::milliseconds(0)));
}

/// Whoever waits for the database waits only when one was announced, until the limit.
TEST_F(TimeMgrImplTest, AWaiterIsWokenWhenTheDatabaseIsOpen) {
    TimeMgrImpl::expectDBPath();
    auto waiter = std::async(std::launch::async, [this] {
        const bool came = TimeMgrImpl::waitForDBPath(std::chrono::seconds(30));
        OutputCapture capture;
        m_manager->getTime(kRef);
        return came && capture.err().empty();
    });
    m_manager->setDBPath(dbPath());
    EXPECT_TRUE(waiter.get());
}

// --- the middleware's time ----------------------------------------------------------------------

/// Messages of the middleware, handled on the test's thread.
class MiddlewareMessagesTest : public OpenTimeMgrTest {
  protected:
    /// Handles `text` as if it came `afterMs` after the previous message.
    void receive(const std::string& text, std::int64_t afterMs = 0) {
        m_previous.kernelTime = KernelTime::getTimeMonotonicAsInt64() - afterMs;
        MiddlewareTimePeer::handleMessage(TimeMgrImplPeer::watch(*m_manager), text, m_previous);
    }

    MiddlewareTimePeer::Previous m_previous;
};

/// The first message and any jump beyond the kernel's time plus 60000 ms set system time.
TEST_F(MiddlewareMessagesTest, TheFirstMessageIsAJumpAndSetsSystemTime) {
    const std::string lines = linesOf([this] { receive("1551953702000"); });
    EXPECT_EQ(lines.rfind("TimeMgr: MW time = 1551953702000\n"
                          "TimeMgr: System time changed from 0 to 1551953702000\n"
                          "TimeMgr: setTime ts=system timeRef = (7,3,",
                          0),
              0u)
        << lines;
    EXPECT_NEAR(static_cast<double>(m_manager->getTime(TimeSourceSystem, TimeReference())), kTime,
                30000);
    EXPECT_EQ(m_previous.time, kTime);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
}

/// The first message and any jump beyond the kernel's time plus 60000 ms set system time.
TEST_F(MiddlewareMessagesTest, AJumpIsTold) {
    receive("1551953702000");
    EXPECT_THAT(linesOf([this] { receive("1551953822000", 5000); }),
                HasSubstr("TimeMgr: System time changed from 1551953702000 to 1551953822000\n"));
    EXPECT_THAT(linesOf([this] { receive("1551953702000", 5000); }),
                HasSubstr("TimeMgr: System time changed from 1551953822000 to 1551953702000\n"));
    EXPECT_EQ(linesOf([this] { receive("1551953702000", 5000); }),
              "TimeMgr: MW time = 1551953702000\n");
}

/// A jump that is not acceptable is not taken.
TEST_F(MiddlewareMessagesTest, AnUnacceptableJumpIsNotTaken) {
    EXPECT_EQ(linesOf([this] { receive("1000000000"); }),
              "TimeMgr: MW time = 1000000000\n"
              "TimeMgr: System time changed from 0 to 1000000000\n");
    EXPECT_EQ(linesOf([this] { receive("-9223372036854775808"); }),
              "TimeMgr: MW time = -9223372036854775808\n"
              "TimeMgr: System time changed from 1000000000 to -9223372036854775808\n");
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference()), 0);
}

/// The first message and any jump beyond the kernel's time plus 60000 ms set system time.
TEST_F(MiddlewareMessagesTest, AJumpOfAnySizeIsTold) {
    receive("-9223372036854775808");
    EXPECT_THAT(linesOf([this] { receive("9223372036854775807"); }),
                HasSubstr("TimeMgr: System time changed from -9223372036854775808 to "
                          "9223372036854775807\n"));
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(MiddlewareMessagesTest, AnInvalidTimeIsNotTaken) {
    EXPECT_EQ(errorsOf([this] { receive("99999999999999999999"); }),
              "TimeMgr: Invalid MW time : 99999999999999999999\n");
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference()), 0);
}

/// The time manager with the middleware's pipe.
class MiddlewareWatchTest : public TimeMgrImplTest {
  protected:
    void SetUp() override {
        TimeMgrImplTest::SetUp();
        m_manager->setDBPath(dbPath());
        m_writer = m_pipe.openWriter();
        ASSERT_GE(m_writer, 0);
    }
    void TearDown() override {
        if (m_writer >= 0) ::close(m_writer);
        TimeMgrImplTest::TearDown();
    }

    bool waitForSystemTime(std::int64_t utc) const {
        return WaitUntil([&] {
            const std::int64_t known = m_manager->getTime(TimeSourceSystem, TimeReference());
            return known >= utc && known < utc + kMinute;
        });
    }

    const TimePipe m_pipe{m_dir.file("pipe")};
    int m_writer = -1;
};

/// The middleware's time is taken from the pipe and sets the clock.
TEST_F(MiddlewareWatchTest, TakesTheMiddlewaresTime) {
    TimePipe::send(m_writer, "1551953702000");
    EXPECT_TRUE(waitForSystemTime(kTime));
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
    TimePipe::send(m_writer, std::to_string(kTime + 10 * kMinute));
    EXPECT_TRUE(waitForSystemTime(kTime + 10 * kMinute));
}

/// Web time ends the watch on the pipe.
TEST_F(MiddlewareWatchTest, WebTimeMayArriveWhileAMessageWaitsForTheStore) {
    for (int i = 0; i < 50; ++i) {
        TimePipe::send(m_writer, std::to_string(kTime + i * 10 * kMinute) + " ");
    }
    m_manager->setTime(TimeSourceWeb, TimeReference(), kTime);
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
}

/// The watch is never cancelled while it handles a message, and cannot stop itself.
TEST_F(MiddlewareWatchTest, IsNotCancelledWhileItStoresATime) {
    std::promise<void> reached;
    std::promise<void> goOn;
    std::atomic<bool> handled{false};
    m_manager->setErrorCallback([&] {
        reached.set_value();
        goOn.get_future().wait();
        // A series of waits, any of which would be the end of a cancellable thread.
        WaitUntil([] { return false; }, std::chrono::milliseconds(50));
        handled = true;
    });
    DB::m_dbError = true;
    TimePipe::send(m_writer, "1551953702000");
    reached.get_future().wait();
    std::thread stopper([this] { m_manager->setAutoUpdateSystemTime(false); });
    EXPECT_TRUE(WaitUntil(
        [this] { return MiddlewareTimePeer::isBeingStopped(TimeMgrImplPeer::watch(*m_manager)); }));
    goOn.set_value();
    stopper.join();
    EXPECT_TRUE(handled);
}

/// The watch is never cancelled while it handles a message, and cannot stop itself.
TEST_F(MiddlewareWatchTest, ACallbackOfTheWatchDoesNotStopIt) {
    std::promise<void> done;
    m_manager->setErrorCallback([&] {
        m_manager->setAutoUpdateSystemTime(false);
        done.set_value();
    });
    DB::m_dbError = true;
    OutputCapture capture;
    TimePipe::send(m_writer, "1551953702000");
    done.get_future().wait();
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "TimeMgr: "),
              "TimeMgr: The checker cannot stop or start itself\n");
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
}

/// Destroying the manager stops the watch.
TEST_F(MiddlewareWatchTest, DestroyingTheManagerStopsTheWatch) {
    m_manager.reset();
    EXPECT_TRUE(m_pipe.isUnread());
}

}  // namespace
