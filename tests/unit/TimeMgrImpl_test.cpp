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
#include <vector>

#include <csignal>
#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "CGlobalInfoImpl.h"
#include "DB.h"
#include "KernelTime.h"
#include "Singleton.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"
#include "support/TimeMgrImplPeer.h"
#include "support/WaitUntil.h"

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
        TimeMgrImplPeer::setPipePath(m_dir.file("pipe"));
        TimeMgrImplPeer::forgetSystemTime();
        m_info->setBootCounts(7, 3);
    }
    void TearDown() override {
        m_manager.reset();
        TimeMgrImpl::SetVerbose(false);
        DB::m_dbError = false;
        TimeMgrImplPeer::setPipePath(TimeMgrImplPeer::productPipe);
        TimeMgrImplPeer::forgetSystemTime();
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

    static std::int64_t appClockMs() {
        using std::chrono::milliseconds;
        return std::chrono::duration_cast<milliseconds>(kivAppNow().time_since_epoch()).count();
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

    /// Makes the store unusable under the open connection.
    void breakStore() const { std::ofstream(dbPath(), std::ios::trunc) << "no database at all"; }
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

/// The application clock is the system clock while it was never set.
TEST_F(TimeMgrImplTest, TheApplicationClockIsTheSystemClockWhileItWasNeverSet) {
    const auto before = std::chrono::system_clock::now();
    const auto now = kivAppNow();
    const auto after = std::chrono::system_clock::now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

/// Once set it runs on with the monotonic clock.
TEST_F(TimeMgrImplTest, TheApplicationClockRunsOnFromTheTimeThatItWasSetTo) {
    const std::int64_t before = KernelTime::getTimeMonotonicAsInt64();
    TimeMgrImpl::setSystemTime(kTime);
    TimeMgrImplPeer::ageSystemTime({2, 500000000});
    const std::int64_t now = appClockMs();
    const std::int64_t passed = KernelTime::getTimeMonotonicAsInt64() - before;
    EXPECT_GE(now, kTime + 2500);
    EXPECT_LE(now, kTime + 2500 + passed + 1);
}

/// Once set it runs on with the monotonic clock.
TEST_F(TimeMgrImplTest, TheApplicationClockCarriesNanosecondsIntoSeconds) {
    TimeMgrImpl::setSystemTime(kTime + 999);
    TimeMgrImplPeer::ageSystemTime({0, 900000000});
    const std::int64_t now = appClockMs();
    EXPECT_GE(now, kTime + 1899);
    EXPECT_LT(now, kTime + 1899 + kMinute);
}

/// Once set it runs on with the monotonic clock.
TEST_F(TimeMgrImplTest, SettingTheApplicationClockSplitsMilliseconds) {
    TimeMgrImpl::setSystemTime(kTime + 347);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_nsec, 347000000);
}

/// Setting it is logged when verbose.
TEST_F(TimeMgrImplTest, SettingTheApplicationClockIsLoggedWhenVerbose) {
    EXPECT_EQ(linesOf([] { TimeMgrImpl::setSystemTime(kTime); }),
              "TimeMgr: setSystemTime: 1551953702000\n");
    EXPECT_EQ(errorsOf([] { TimeMgrImpl::setSystemTime(kTime); }), "");
}

/// Times of any size are survived; readers never meet half a setting.
TEST_F(TimeMgrImplTest, TheApplicationClockSurvivesTimesOfAnySize) {
    for (const std::int64_t ms : {INT64_MAX, INT64_MIN, INT64_MIN + 1}) {
        TimeMgrImpl::setSystemTime(ms);
        kivAppNow();
    }
    TimeMgrImpl::setSystemTime(kTime);
    EXPECT_GE(appClockMs(), kTime);
}

/// Times of any size are survived; readers never meet half a setting.
TEST_F(TimeMgrImplTest, ReadersOfTheApplicationClockNeverMeetHalfASetting) {
    TimeMgrImpl::setSystemTime(kTime);
    std::atomic<bool> finished{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i) TimeMgrImpl::setSystemTime(i % 2 == 0 ? kTime : 2 * kTime);
        finished = true;
    });
    while (!finished) {
        const std::int64_t now = appClockMs();
        EXPECT_TRUE((now >= kTime && now < kTime + 10 * kMinute) ||
                    (now >= 2 * kTime && now < 2 * kTime + 10 * kMinute))
            << now;
    }
    writer.join();
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
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, 0);
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
TEST_F(OpenTimeMgrTest, AStoreThatIsNoDatabaseIsNotRecreated) {
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
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 1);
}

/// System time sets the clock until web time has; afterwards it is only stored.
TEST_F(OpenTimeMgrTest, SystemTimeSetsTheClockUntilWebTimeHasSetIt) {
    m_manager->setTime(TimeSourceSystem, kRef, kTime);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 0);
    m_manager->setTime(TimeSourceSystem, kRef, kTime + 5000);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000 + 5);

    m_manager->setTime(TimeSourceWeb, kRef, kTime + 10000);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000 + 10);
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), 1);
    m_manager->setTime(TimeSourceSystem, kRef, kTime + 10 * kMinute);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000 + 10);
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
        const std::lock_guard<std::mutex> stopping(TimeMgrImplPeer::wakeMutex(*m_manager));
        setter = std::thread([this] { m_manager->setTime(TimeSourceWeb, kRef, kTime); });
        // Web time was the best when the stopping began.
        EXPECT_TRUE(WaitUntil([this] {
            return !std::unique_lock<std::mutex>(TimeMgrImplPeer::checkerMutex(*m_manager),
                                                 std::try_to_lock)
                        .owns_lock();
        }));
        TimeMgrImplPeer::setCurrentSource(*m_manager, better);
    }
    setter.join();
    EXPECT_EQ(TimeMgrImplPeer::currentSource(*m_manager), better);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, 0);
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
    breakStore();
    OutputCapture quiet;
    m_manager->setTime(TimeSourceWeb, kRef, kTime + 10 * kMinute);
    quiet.stop();
    EXPECT_EQ(calls, 1);
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

// --- middleware messages ------------------------------------------------------------------------

class MiddlewareTimeTest : public OpenTimeMgrTest {
  protected:
    /// Handles `text` as if it came `afterMs` after the previous message.
    void receive(const std::string& text, std::int64_t afterMs = 0) {
        m_previousRef = TimeReference();
        m_previousRef.kernelTime -= afterMs;
        TimeMgrImplPeer::handleMiddlewareTime(*m_manager, text, m_previousTime, m_previousRef);
    }

    long long m_previousTime = 0;
    TimeReference m_previousRef;
};

/// The first message and any jump beyond the kernel's time plus 60000 ms set system time.
TEST_F(MiddlewareTimeTest, TheFirstMessageIsAJumpAndSetsSystemTime) {
    const std::string lines = linesOf([this] { receive("1551953702000"); });
    EXPECT_EQ(lines.rfind("TimeMgr: MW time = 1551953702000\n"
                          "TimeMgr: System time changed from 0 to 1551953702000\n"
                          "TimeMgr: setTime ts=system timeRef = (7,3,",
                          0),
              0u)
        << lines;
    EXPECT_NEAR(static_cast<double>(m_manager->getTime(TimeSourceSystem, TimeReference())), kTime,
                30000);
    EXPECT_EQ(m_previousTime, kTime);
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000);
}

/// The same time again, and time that runs with the kernel, are not a jump.
TEST_F(MiddlewareTimeTest, TheSameTimeAgainAfterFiveSecondsIsNoJump) {
    receive("1551953702000");
    EXPECT_EQ(linesOf([this] { receive("1551953702000", 5000); }),
              "TimeMgr: MW time = 1551953702000\n");
}

/// The first message and any jump beyond the kernel's time plus 60000 ms set system time.
TEST_F(MiddlewareTimeTest, TwoMinutesAheadIsAJump) {
    receive("1551953702000");
    EXPECT_THAT(linesOf([this] { receive("1551953822000", 5000); }),
                HasSubstr("TimeMgr: System time changed from 1551953702000 to 1551953822000\n"));
    EXPECT_THAT(linesOf([this] { receive("1551953702000", 5000); }),
                HasSubstr("TimeMgr: System time changed from 1551953822000 to 1551953702000\n"));
}

/// The same time again, and time that runs with the kernel, are not a jump.
TEST_F(MiddlewareTimeTest, TimeThatRunsWithTheKernelIsNoJump) {
    receive("1551953702000");
    EXPECT_EQ(linesOf([this] { receive("1551954002000", 300000); }),
              "TimeMgr: MW time = 1551954002000\n");
}

/// Each message is the previous one of the next.
TEST_F(MiddlewareTimeTest, EachMessageIsThePreviousOneOfTheNext) {
    receive("1551953702000");
    const std::int64_t before = TimeReference().kernelTime;
    receive("1551953752000", 5000);
    EXPECT_EQ(m_previousTime, 1551953752000);
    EXPECT_GE(m_previousRef.kernelTime, before);
    EXPECT_EQ(linesOf([this] { receive("1551953802000"); }), "TimeMgr: MW time = 1551953802000\n");
}

/// A jump that is not acceptable is not taken.
TEST_F(MiddlewareTimeTest, AnUnacceptableJumpIsNotTaken) {
    EXPECT_EQ(linesOf([this] { receive("1000000000"); }),
              "TimeMgr: MW time = 1000000000\n"
              "TimeMgr: System time changed from 0 to 1000000000\n");
    EXPECT_EQ(linesOf([this] { receive("-9223372036854775808"); }),
              "TimeMgr: MW time = -9223372036854775808\n"
              "TimeMgr: System time changed from 1000000000 to -9223372036854775808\n");
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference()), 0);
}

/// The first message and any jump beyond the kernel's time plus 60000 ms set system time.
TEST_F(MiddlewareTimeTest, JumpsOfAnySizeAreMeasuredRight) {
    receive("-9223372036854775808");
    EXPECT_THAT(linesOf([this] { receive("9223372036854775807"); }),
                HasSubstr("TimeMgr: System time changed from -9223372036854775808 to "
                          "9223372036854775807\n"));
}

/// Leading blanks and what follows the number do not matter.
TEST_F(MiddlewareTimeTest, LeadingBlanksAndWhatFollowsTheNumberDoNotMatter) {
    receive(" 1551953702000 ms\n");
    EXPECT_EQ(m_previousTime, kTime);
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(MiddlewareTimeTest, AMessageThatIsNoNumberIsSkippedWithALine) {
    m_previousTime = kTime;
    for (const char* text : {"noon", "-", "", " ms", "x1551953702000"}) {
        EXPECT_EQ(errorsOf([&] { receive(text); }),
                  std::string("TimeMgr: Invalid MW time : ") + text + "\n");
        EXPECT_EQ(m_previousTime, kTime);
    }
    TimeReference ref(7, 3, 5);
    OutputCapture quiet;
    TimeMgrImplPeer::handleMiddlewareTime(*m_manager, "noon", m_previousTime, ref);
    EXPECT_EQ(ref.kernelTime, 5);
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(MiddlewareTimeTest, ANumberOutOfRangeIsSkippedWithALine) {
    EXPECT_EQ(errorsOf([this] { receive("99999999999999999999"); }),
              "TimeMgr: Invalid MW time : 99999999999999999999\n");
    EXPECT_EQ(m_previousTime, 0);
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference()), 0);
}

// --- the pipe -----------------------------------------------------------------------------------

class TimePipeTest : public TimeMgrImplTest {
  protected:
    void SetUp() override {
        TimeMgrImplTest::SetUp();
        // A writer that the checker leaves is told by EPIPE.
        m_onBrokenPipe = std::signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        TimeMgrImplTest::TearDown();
        std::signal(SIGPIPE, m_onBrokenPipe);
    }

    std::string pipePath() const { return m_dir.file("pipe"); }

    /// Opens the pipe for writing as soon as the checker reads it; -1 when it never does.
    int openWriter() const {
        int fd = -1;
        WaitUntil([&] {
            fd = ::open(pipePath().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return fd >= 0;
        });
        return fd;
    }

    static void send(int fd, const std::string& text) {
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    /// Sends `text` through a writer of its own, and again through another one whenever the checker
    /// has just closed the pipe. What the pipe has taken stays in it until the checker reads it, as
    /// long as the writer is open. @return the writer, or -1
    int sendThroughANewWriter(const std::string& text) const {
        for (;;) {
            const int fd = openWriter();
            if (fd < 0) return -1;
            if (::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
                return fd;
            }
            const int error = errno;
            ::close(fd);
            if (error != EPIPE) return -1;
        }
    }

    /// Waits until the clock is set to `utc`; without a line of the time manager's.
    static bool waitForClock(std::int64_t utc) {
        return WaitUntil([utc] {
            const timespec time = TimeMgrImplPeer::systemTimeAsSet();
            return time.tv_sec == utc / 1000 && time.tv_nsec == utc % 1000 * 1000000;
        });
    }

    /// The monotonic milliseconds in the prefixes of the lines of `text` that read `line`.
    static std::vector<std::int64_t> momentsOf(const std::string& text, const std::string& line) {
        std::istringstream lines(text);
        std::vector<std::int64_t> moments;
        for (std::string each; std::getline(lines, each);) {
            if (OutputCapture::withoutPrefixes(each) != line) continue;
            moments.push_back(std::strtoll(each.c_str() + 1, nullptr, 10));
        }
        return moments;
    }

    bool waitForSystemTime(std::int64_t utc) const {
        return WaitUntil([&] {
            const std::int64_t known = m_manager->getTime(TimeSourceSystem, TimeReference());
            return known >= utc && known < utc + kMinute;
        });
    }

    static std::size_t openDescriptors() {
        std::size_t count = 0;
        const std::unique_ptr<DIR, int (*)(DIR*)> list(::opendir("/proc/self/fd"), &::closedir);
        while (::readdir(list.get()) != nullptr) ++count;
        return count;
    }

  private:
    void (*m_onBrokenPipe)(int) = SIG_DFL;
};

/// The pipe is "/tmp/MTKTimePipe", made with mode 0666, or taken as it is.
TEST_F(TimePipeTest, TheProductsPipeIsTheMiddlewares) {
    TimeMgrImplPeer::setPipePath(TimeMgrImplPeer::productPipe);
    EXPECT_EQ(TimeMgrImplPeer::pipePath(), "/tmp/MTKTimePipe");
}

/// The pipe is "/tmp/MTKTimePipe", made with mode 0666, or taken as it is.
TEST_F(TimePipeTest, MakesThePipe) {
    const mode_t mask = ::umask(0);
    m_manager->setDBPath(dbPath());
    struct stat status {};
    EXPECT_TRUE(WaitUntil([&] { return ::stat(pipePath().c_str(), &status) == 0; }));
    ::umask(mask);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0666u);
}

/// The pipe is "/tmp/MTKTimePipe", made with mode 0666, or taken as it is.
TEST_F(TimePipeTest, TakesAPipeThatIsThereAlready) {
    ASSERT_EQ(::mkfifo(pipePath().c_str(), 0600), 0);
    EXPECT_EQ(errorsOf([this] {
                  m_manager->setDBPath(dbPath());
                  const int writer = openWriter();
                  EXPECT_GE(writer, 0);
                  ::close(writer);
                  m_manager->setAutoUpdateSystemTime(false);
              }),
              "");
}

/// The middleware's time is taken from it, and it is opened again when its writer closes.
TEST_F(TimePipeTest, TakesTheMiddlewaresTime) {
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    send(writer, "1551953702000");
    EXPECT_TRUE(waitForSystemTime(kTime));
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000);
    ::close(writer);
}

/// The middleware's time is taken from it, and it is opened again when its writer closes.
TEST_F(TimePipeTest, ReopensThePipeWhenTheWriterHasClosedIt) {
    m_manager->setDBPath(dbPath());
    for (const std::int64_t time : {kTime, kTime + 10 * kMinute}) {
        const int writer = sendThroughANewWriter(std::to_string(time));
        ASSERT_GE(writer, 0);
        EXPECT_TRUE(waitForSystemTime(time));
        ::close(writer);
    }
}

/// The middleware's time is taken from it, and it is opened again when its writer closes.
TEST_F(TimePipeTest, TheSameTimeBehindAReopeningIsNoJump) {
    TimeMgrImpl::SetVerbose(true);
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const int first = openWriter();
    ASSERT_GE(first, 0);
    send(first, "1551953702000");
    EXPECT_TRUE(waitForClock(kTime));
    // Another pipe of the same name: only a checker that opened again reads it.
    ASSERT_EQ(::unlink(pipePath().c_str()), 0);
    ASSERT_EQ(::mkfifo(pipePath().c_str(), 0600), 0);
    ::close(first);
    const int second = openWriter();
    ASSERT_GE(second, 0);
    send(second, "1551953702000");
    const auto received = [&] {
        return momentsOf(capture.out(), "TimeMgr: MW time = 1551953702000");
    };
    EXPECT_TRUE(WaitUntil([&] { return received().size() == 2; }));
    m_manager->setAutoUpdateSystemTime(false);  // returns once the handling is done
    ::close(second);
    EXPECT_EQ(prefixedLines(capture.out(), "TimeMgr: System time changed "),
              "TimeMgr: System time changed from 0 to 1551953702000\n");
}

/// A message has up to 1024 bytes; what follows is one of its own.
TEST_F(TimePipeTest, ReadsAMessageOfUpTo1024BytesAsOne) {
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    send(writer, std::string(500, ' ') + std::to_string(kTime));
    EXPECT_TRUE(waitForClock(kTime));
    const std::string number = std::to_string(kTime + 10 * kMinute);
    send(writer, std::string(1024 - number.size(), ' ') + number);
    EXPECT_TRUE(waitForClock(kTime + 10 * kMinute));
    ::close(writer);
    EXPECT_EQ(prefixedLines(capture.err(), "TimeMgr: "), "");
}

/// A message has up to 1024 bytes; what follows is one of its own.
TEST_F(TimePipeTest, WhatFollows1024BytesIsAMessageOfItsOwn) {
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    send(writer, std::string(1024, ' ') + std::to_string(kTime));
    EXPECT_TRUE(waitForClock(kTime));
    ::close(writer);
    EXPECT_EQ(prefixedLines(capture.err(), "TimeMgr: "),
              "TimeMgr: Invalid MW time : " + std::string(1024, ' ') + "\n");
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(TimePipeTest, GoesOnAfterAMessageThatIsNoNumber) {
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    send(writer, "noon");
    EXPECT_TRUE(WaitUntil([&] {
        return taggedLines(capture.errWithoutPrefixes(), "TimeMgr: ") ==
               "TimeMgr: Invalid MW time : noon\n";
    }));
    send(writer, "1551953702000");
    EXPECT_TRUE(waitForSystemTime(kTime));
    ::close(writer);
}

/// The start of the watch is told when verbose.
TEST_F(TimePipeTest, SaysThatItStarted) {
    TimeMgrImpl::SetVerbose(true);
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    EXPECT_TRUE(WaitUntil([&] {
        return capture.outWithoutPrefixes().find("TimeMgr: checkSystemTimeThread started\n") !=
               std::string::npos;
    }));
    m_manager->setAutoUpdateSystemTime(false);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StopsInTheOpening) {
    m_manager->setDBPath(dbPath());
    EXPECT_TRUE(WaitUntil([this] { return m_dir.has("pipe"); }));
    m_manager->setAutoUpdateSystemTime(false);
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
    EXPECT_LT(::open(pipePath().c_str(), O_WRONLY | O_NONBLOCK), 0);
    EXPECT_EQ(errno, ENXIO);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StopsInTheReadingAndClosesThePipe) {
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    m_manager->setAutoUpdateSystemTime(false);
    EXPECT_LT(::open(pipePath().c_str(), O_WRONLY | O_NONBLOCK), 0);  // nobody reads any more
    EXPECT_EQ(errno, ENXIO);
    ::close(writer);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StartingAndStoppingLeavesNoDescriptorBehind) {
    m_manager->setDBPath(dbPath());
    m_manager->setAutoUpdateSystemTime(false);
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        m_manager->setAutoUpdateSystemTime(true);
        const int writer = openWriter();
        ASSERT_GE(writer, 0);
        m_manager->setAutoUpdateSystemTime(false);
        ::close(writer);
    }
    EXPECT_EQ(openDescriptors(), before);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, AReaderThatTheCancellationLostIsClosed) {
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    const int lost = ::open(pipePath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(lost, 0);
    m_manager->setAutoUpdateSystemTime(false);
    EXPECT_LT(::fcntl(lost, F_GETFD), 0);
    EXPECT_GE(::fcntl(writer, F_GETFD), 0);
    ::close(writer);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StoppingAtAnyMomentEnds) {
    m_manager->setDBPath(dbPath());
    for (int i = 0; i < 200; ++i) {
        m_manager->setAutoUpdateSystemTime(false);
        m_manager->setAutoUpdateSystemTime(true);
    }
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
}

/// Starting or stopping twice is once.
TEST_F(TimePipeTest, StartingTwiceAndStoppingTwiceIsOnce) {
    m_manager->setDBPath(dbPath());
    m_manager->setAutoUpdateSystemTime(true);
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
    m_manager->setAutoUpdateSystemTime(false);
    m_manager->setAutoUpdateSystemTime(false);
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
}

/// It is never cancelled while it handles a message, and cannot stop itself.
TEST_F(TimePipeTest, IsNotCancelledWhileItHandlesAMessage) {
    m_manager->setDBPath(dbPath());
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
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    send(writer, "1551953702000");
    reached.get_future().wait();
    std::thread stopper([this] { m_manager->setAutoUpdateSystemTime(false); });
    EXPECT_TRUE(WaitUntil([this] { return TimeMgrImplPeer::isBeingStopped(*m_manager); }));
    goOn.set_value();
    stopper.join();
    EXPECT_TRUE(handled);
    ::close(writer);
}

/// Web time ends the watch on the pipe.
TEST_F(TimePipeTest, WebTimeMayArriveWhileAMessageWaitsForTheStore) {
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    for (int i = 0; i < 50; ++i) send(writer, std::to_string(kTime + i * 10 * kMinute) + " ");
    m_manager->setTime(TimeSourceWeb, TimeReference(), kTime);
    EXPECT_FALSE(TimeMgrImplPeer::isWatching(*m_manager));
    EXPECT_EQ(TimeMgrImplPeer::systemTimeAsSet().tv_sec, kTime / 1000);
    ::close(writer);
}

/// It is never cancelled while it handles a message, and cannot stop itself.
TEST_F(TimePipeTest, TheCheckerDoesNotStopItself) {
    m_manager->setDBPath(dbPath());
    std::promise<void> done;
    m_manager->setErrorCallback([&] {
        m_manager->setAutoUpdateSystemTime(false);
        done.set_value();
    });
    DB::m_dbError = true;
    OutputCapture capture;
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    send(writer, "1551953702000");
    done.get_future().wait();
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "TimeMgr: "),
              "TimeMgr: The checker cannot stop or start itself\n");
    EXPECT_TRUE(TimeMgrImplPeer::isWatching(*m_manager));
    ::close(writer);
}

/// A pipe that cannot be made or opened gets "Cannot create fifo : " and "Cannot open fifo : ";
/// a file in its place is a failed opening.
TEST_F(TimePipeTest, APipeThatCannotBeMadeOrOpenedIsReportedAndTriedAgainLater) {
    TimeMgrImplPeer::setPipePath(m_dir.file("missing/pipe"));
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const std::string lines =
        "TimeMgr: Cannot create fifo : No such file or directory\n"
        "TimeMgr: Cannot open fifo : No such file or directory\n";
    EXPECT_TRUE(
        WaitUntil([&] { return taggedLines(capture.errWithoutPrefixes(), "TimeMgr: ") == lines; }));
    // The pause of ten seconds does not hold up who stops the checker.
    const auto begin = std::chrono::steady_clock::now();
    m_manager->setAutoUpdateSystemTime(false);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "TimeMgr: "), lines);
}

/// A failed opening is tried again 10 s later.
TEST_F(TimePipeTest, PausesForTenSecondsBehindAFailedOpening) {
    TimeMgrImplPeer::setPipePath(m_dir.file("missing/pipe"));
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const auto failures = [&] {
        return momentsOf(capture.err(), "TimeMgr: Cannot open fifo : No such file or directory");
    };
    ASSERT_TRUE(WaitUntil([&] { return failures().size() == 2; }, std::chrono::seconds(60)));
    m_manager->setAutoUpdateSystemTime(false);
    const std::vector<std::int64_t> at = failures();
    EXPECT_GE(at[1] - at[0], 9999);  // both are rounded down
    EXPECT_LT(at[1] - at[0], 30000);
}

/// A pipe that cannot be made or opened gets "Cannot create fifo : " and "Cannot open fifo : ";
/// a file in its place is a failed opening.
TEST_F(TimePipeTest, AFileThatIsNoPipeIsAFailedOpening) {
    m_dir.write("pipe", "1551953702000");
    OutputCapture capture;
    m_manager->setDBPath(dbPath());
    const std::string line = "TimeMgr: Cannot open fifo : Not a named pipe\n";
    EXPECT_TRUE(
        WaitUntil([&] { return taggedLines(capture.errWithoutPrefixes(), "TimeMgr: ") == line; }));
    m_manager->setAutoUpdateSystemTime(false);
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "TimeMgr: "), line);
    EXPECT_EQ(m_manager->getTime(TimeSourceSystem, TimeReference()), 0);
    EXPECT_EQ(m_dir.read("pipe"), "1551953702000");
}

/// Destroying the manager stops it.
TEST_F(TimePipeTest, DestroyingTheManagerStopsTheChecker) {
    m_manager->setDBPath(dbPath());
    const int writer = openWriter();
    ASSERT_GE(writer, 0);
    m_manager.reset();
    EXPECT_LT(::open(pipePath().c_str(), O_WRONLY | O_NONBLOCK), 0);
    EXPECT_EQ(errno, ENXIO);
    ::close(writer);
}

}  // namespace
