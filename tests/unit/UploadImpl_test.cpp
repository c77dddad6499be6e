#include "UploadImpl.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <signal.h>

#include "support/ConfigImplPeer.h"
#include "support/NoThreads.h"
#include "support/PoisonedOutput.h"
#include "support/RetryPausePeer.h"
#include "support/SystemCallFaults.h"
#include "support/UploadJobs.h"
#include "support/WebTimeImplPeer.h"

namespace {

class UploadImplTest : public UploadJobs {
  protected:
    /// An upload side at work.
    std::unique_ptr<UploadImpl> startAnother() const {
        auto another = std::make_unique<UploadImpl>();
        UploadImplPeer::db(*another).open(database, false);
        return another;
    }

    /// A configuration answer that the server dates now.
    static Response answerConfiguration(const Request& request) {
        Response response = accept(request);
        if (request.target == "/config/dev1") {
            response.body = R"({"kiv_tou": true, "expiry_tou": 100000})";
        }
        if (request.target == "/tou") response.body = "{}";
        response.headers.emplace_back("Date", "Thu, 07 Mar 2019 10:15:02 GMT");
        return response;
    }

    /// The signals that the thread of that name blocks; 0 when there is none.
    static unsigned long long blockedSignals(const std::string& name) {
        for (const auto& thread : threads()) {
            if (thread.first == name) return thread.second;
        }
        return 0;
    }

    /// How many threads the alarm may interrupt.
    static std::size_t threadsThatTakeTheAlarm() {
        std::size_t count = 0;
        for (const auto& thread : threads()) count += (thread.second & kAlarmBit) == 0 ? 1 : 0;
        return count;
    }

    /// Name and blocked signals of each thread of this process.
    static std::vector<std::pair<std::string, unsigned long long>> threads() {
        std::vector<std::pair<std::string, unsigned long long>> found;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream status(task.path() / "status");
            std::string name;
            unsigned long long blocked = 0;
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("Name:\t", 0) == 0) name = line.substr(6);
                if (line.rfind("SigBlk:", 0) == 0)
                    blocked = std::stoull(line.substr(7), nullptr, 16);
            }
            found.emplace_back(name, blocked);
        }
        return found;
    }

    static constexpr unsigned long kAlarmBit = 1UL << (SIGALRM - 1);
};

}  // namespace

// --- messages and thread ------------------------------------------------------------------------

/// A sent message is told when verbose, unless it was dropped.
TEST_F(UploadImplTest, TellsWhetherItIsVerbose) {
    EXPECT_FALSE(UploadImpl::GetVerbose());
    UploadImpl::SetVerbose(true);
    EXPECT_TRUE(UploadImpl::GetVerbose());
}

/// Unknown messages are ignored.
TEST_F(UploadImplTest, IgnoresUnknownMessages) {
    OutputCapture output;
    for (const int id : {-1, 0, 7, 1000}) upload->handleMsg(id, 0);
    output.stop();
    EXPECT_EQ(output.err(), "");
    EXPECT_TRUE(nothingIsScheduled());
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// The thread runs from the start, named "UploadThread", and leaves the alarm to the creating
/// one.
TEST_F(UploadImplTest, RunsTheThreadFromTheStart) {
    UploadImpl another;
    EXPECT_TRUE(WaitUntil([&] { return UploadImplPeer::isRunning(another); }));
}

/// A stop ends the thread after all waiting work, once.
TEST_F(UploadImplTest, EndsTheThreadAfterAllWaitingWork) {
    auto another = startAnother();
    std::unique_lock<std::recursive_mutex> store(DB::m_PruneLock);
    another->sendMsg(4, 0);  // waits for the store
    EXPECT_TRUE(WaitUntil([&] { return UploadImplPeer::waiting(*another).empty(); }));
    another->sendMsg(1, 0);
    another->sendMsg(2, 0);
    another->sendMsg(0, 0);
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    store.unlock();
    EXPECT_TRUE(WaitUntil([&] { return !UploadImplPeer::isRunning(*another); }));
    UploadImpl::SetVerbose(false);
    another->stopThread();
    output.stop();
    std::string got;
    std::istringstream lines(output.outWithoutPrefixes());
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("kivUpload: Got message ", 0) == 0) got += line + "\n";
    }
    EXPECT_EQ(got,
              "kivUpload: Got message 1 0\nkivUpload: Got message 2 0\n"
              "kivUpload: Got message 0 0\n");
    EXPECT_FALSE(UploadImplPeer::thread(*another).isStarted());
}

/// After each job free memory is given back.
TEST_F(UploadImplTest, GivesFreeMemoryBackAfterEachJob) {
    const int before = SystemCallFaults::heapTrims;
    auto another = startAnother();
    another->sendMsg(7, 0);
    EXPECT_TRUE(WaitUntil([&] { return SystemCallFaults::heapTrims == before + 1; }));
    another->sendMsg(7, 0);
    another->sendMsg(8, 0);
    another->stopThread();
    EXPECT_EQ(SystemCallFaults::heapTrims, before + 3);
}

/// A stop ends the thread after all waiting work, once.
TEST_F(UploadImplTest, StopsOnlyOnce) {
    upload->stopThread();
    EXPECT_EQ(waiting(), Messages{}) << "no thread, no stop message";
}

/// From within a job: "Cannot join on the same thread!", and the thread ends after it.
TEST_F(UploadImplTest, RefusesToJoinItselfButEndsAfterTheJob) {
    script(answerConfiguration);
    configure(R"({"expiry_tou": 0})");
    auto another = startAnother();
    std::atomic<bool> asked{false};
    config->RegisterCallback([&] {
        another->stopThread();
        asked = true;
    });
    OutputCapture output;
    another->sendMsg(3, 1);
    EXPECT_TRUE(WaitUntil([&] { return asked && !UploadImplPeer::isRunning(*another); }));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: Cannot join on the same thread!\n");
    config->RegisterCallback(nullptr);
}

/// A job that throws gets a line and ends no thread.
TEST_F(UploadImplTest, SurvivesAJobThatThrows) {
    script(answerConfiguration);
    config->RegisterCallback([] { throw std::runtime_error("out of order"); });
    OutputCapture output;
    upload->handleMsg(3, 1);
    config->RegisterCallback([] { throw 5; });
    ConfigImplPeer::setLastAttempt(*config, 0);
    ConfigImplPeer::lastAttemptKernelMs(*config) = -1;
    upload->handleMsg(3, 1);
    output.stop();
    config->RegisterCallback(nullptr);
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Message 3 failed: out of order\nkivUpload: Message 3 failed\n");
    EXPECT_EQ((UploadImplPeer::pendingDelay(*upload, 3) + 999) / 1000, 60) << "the next try";
}

/// A job that threw is tried again: events by the time check in 5 minutes, files, the refresh of
/// the configuration and the initialization in one.
TEST_F(UploadImplTest, AsksForTheNextTryOfAJobThatThrew) {
    const auto delayAfter = [this](int job, const std::string& firstLine, int next) {
        UploadImpl::SetVerbose(true);
        const PoisonedOutput output(firstLine, [] { UploadImpl::SetVerbose(false); });
        upload->handleMsg(job, 0);
        return (UploadImplPeer::pendingDelay(*upload, next) + 999) / 1000;
    };
    OutputCapture errors;
    EXPECT_EQ(delayAfter(1, "uploadEvents request", 4), 300);
    EXPECT_EQ(delayAfter(2, "uploadFiles request", 2), 60);
    EXPECT_EQ(delayAfter(3, "configRefresh request", 3), 60);
    EXPECT_EQ(delayAfter(5, "Initializ", 5), 60);
    upload->ScheduleEventsTimeCheck(1000);
    EXPECT_EQ(delayAfter(4, "eventsTimeCheck request", 4), 300);
}

/// A thread that cannot be started gets a line with the reason; the messages wait.
TEST_F(UploadImplTest, TellsThatItsThreadCannotBeStarted) {
    upload.reset();
    OutputCapture output;
    std::unique_ptr<UploadImpl> another;
    {
        const NoThreads noThreads;
        ASSERT_TRUE(noThreads.done());
        another = std::make_unique<UploadImpl>();
    }
    another->sendMsg(4, 0);
    another->stopThread();
    EXPECT_EQ(UploadImplPeer::waiting(*another), (Messages{{4, 0}})) << "and no stop message";
    another.reset();
    output.stop();
    EXPECT_NE(output.errWithoutPrefixes().find(
                  "kivUpload: Cannot start the thread: Resource temporarily unavailable\n"),
              std::string::npos)
        << output.err();
}

/// A thread that could not be started is started later, and runs the jobs that waited.
TEST_F(UploadImplTest, StartsAMissingThreadLater) {
    upload.reset();
    OutputCapture output;
    std::unique_ptr<UploadImpl> another;
    {
        const NoThreads noThreads;
        another = std::make_unique<UploadImpl>();
        another->sendMsg(4, 0);
        EXPECT_FALSE(another->startMissingThreads());
    }
    EXPECT_TRUE(another->startMissingThreads());
    EXPECT_TRUE(another->startMissingThreads());
    EXPECT_TRUE(WaitUntil([&] { return UploadImplPeer::waiting(*another).empty(); }));
    another.reset();
}

/// Each message runs its job.
TEST_F(UploadImplTest, RunsTheJobOfEachMessage) {
    setNetwork(false);
    UploadImplPeer::setReport(*upload, dir.path(), dir.file("none/full.log"));
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    for (const int id : {1, 2, 3, 4, 5, 6}) upload->handleMsg(id, 0);
    output.stop();
    std::string jobs;
    for (const char* line :
         {"uploadEvents request\n", "uploadFiles request\n", "configRefresh request\n",
          "eventsTimeCheck request\n", "Initialization not possible as network not available"}) {
        const std::size_t found = output.outWithoutPrefixes().find(kTag + std::string(line));
        jobs += found == std::string::npos ? "no " : "yes ";
    }
    EXPECT_EQ(jobs, "yes yes yes yes yes ");
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: Cannot write " + dir.file("none/full.log") +
                                               ": No such file or directory\n");
}

/// Every thread but the main one blocks it.
///
/// The thread runs from the start, named "UploadThread", and leaves the alarm to the creating
/// one.
TEST_F(UploadImplTest, NamesItsThreadAndLeavesTheAlarmToTheCreatingThread) {
    upload.reset();
    const std::size_t threadsBefore = threads().size();
    const std::size_t takersBefore = threadsThatTakeTheAlarm();
    const UploadImpl another;
    EXPECT_TRUE(WaitUntil([] { return (blockedSignals("UploadThread") & kAlarmBit) != 0; }));
    EXPECT_EQ(threads().size(), threadsBefore + 2);
    EXPECT_EQ(threadsThatTakeTheAlarm(), takersBefore) << "neither it nor the timers' thread";
    sigset_t own;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_EQ(::sigismember(&own, SIGALRM), 0);
}

// --- what jobs lacked ---------------------------------------------------------------------------

/// A file that was turned away while the time was not known goes by itself once it is: the time is
/// asked for again after its pause, and then all that waits is asked for.
TEST_F(UploadImplTest, AsksForTheTimeAgainAndThenForWhatWaits) {
    bool timeServed = false;
    script([&](const Request& request) {
        return request.target == "/time" && !timeServed ? refuse(request)
                                                        : answerConfiguration(request);
    });
    device->setBootCounts(8, 0);  // a cycle without web time
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    configure(R"({"upload_events": {"min-size": 10, "max-delay": 3600}})");
    db().addFile("f", dir.write("file", "text"), "");
    addEvent();
    OutputCapture output;
    upload->handleMsg(2, 0);
    EXPECT_EQ(otherRequests(), "/time ");
    EXPECT_TRUE(isDelayed(2, 10000));
    upload->handleMsg(1, 0);
    EXPECT_EQ(otherRequests(), "/time ") << "within the pause";
    EXPECT_TRUE(isDelayed(2, 10000));
    EXPECT_EQ(waiting(), Messages{});
    timeServed = true;
    RetryPausePeer::pass(WebTimeImplPeer::pause(), 10000);
    upload->handleMsg(2, 0);
    EXPECT_EQ(otherRequests(), "/time /time ");
    EXPECT_EQ(UploadImplPeer::take(*upload), (Messages{{1, 0}, {2, 0}, {4, 0}}));
    upload->handleMsg(1, 0);
    upload->handleMsg(2, 0);
    output.stop();
    EXPECT_EQ(storedEvents(), "0");
    EXPECT_EQ(query("SELECT COUNT(*) FROM Files"), "0");
}

/// While the time is not known each of its pauses ends with a job that asks for it, 10 s after the
/// first failure, then 20 s, whether a file waits or not.
TEST_F(UploadImplTest, AsksForTheTimeAfterEachPause) {
    script(refuse);
    device->setBootCounts(8, 0);
    configure(R"({"expiry_tou": 0})");
    OutputCapture output;
    upload->handleMsg(5, 0);
    EXPECT_TRUE(isDelayed(2, 10000));
    RetryPausePeer::pass(WebTimeImplPeer::pause(), 10000);
    upload->handleMsg(2, 0);
    output.stop();
    EXPECT_TRUE(isDelayed(2, 20000));
    EXPECT_EQ(otherRequests(), "/time /config/dev1 /tou /time ") << "and no more than that";
}

/// A configuration that comes in one job restarts what others were turned away from.
TEST_F(UploadImplTest, AsksForFilesWhenTheConfigurationComesInAnotherJob) {
    script(refuse);
    configure(R"({"expiry_tou": 0})");
    db().addFile("f", dir.write("file", "text"), "");
    OutputCapture output;
    upload->handleMsg(2, 0);
    EXPECT_EQ(waiting(), Messages{});
    script(answerConfiguration);
    ConfigImplPeer::setLastAttempt(*config, 0);
    ConfigImplPeer::lastAttemptKernelMs(*config) = -1;
    upload->handleMsg(1, 0);
    output.stop();
    EXPECT_EQ(waiting(), (Messages{{2, 0}, {4, 0}}));
    upload->handleMsg(7, 0);
    EXPECT_EQ(waiting(), (Messages{{2, 0}, {4, 0}})) << "once";
}

// --- scheduling ---------------------------------------------------------------------------------

/// Without a delay each call posts its message at once.
TEST_F(UploadImplTest, PostsAtOnceWithoutADelay) {
    upload->ScheduleEventsUpload();
    upload->ScheduleFilesUpload();
    upload->ScheduleRefreshConfig(true);
    upload->ScheduleRefreshConfig(false);
    upload->ScheduleEventsTimeCheck();
    upload->ScheduleInitialization();
    EXPECT_EQ(waiting(), (Messages{{1, 0}, {2, 0}, {3, 1}, {3, 0}, {4, 0}, {5, 0}}));
    EXPECT_EQ(UploadImplPeer::pendingTimers(*upload), 0);
}

/// Each kind has one timer; a new delay replaces the old, posting at once leaves it.
TEST_F(UploadImplTest, KeepsATimerOfItsOwnForEachKind) {
    upload->ScheduleEventsUpload(100000);
    upload->ScheduleFilesUpload(200000);
    upload->ScheduleRefreshConfig(300000, false);
    upload->ScheduleEventsTimeCheck(400000);
    upload->ScheduleInitialization(500000);
    EXPECT_TRUE(isDelayed(1, 100000));
    EXPECT_TRUE(isDelayed(2, 200000));
    EXPECT_TRUE(isDelayed(3, 300000));
    EXPECT_TRUE(isDelayed(4, 400000));
    EXPECT_TRUE(isDelayed(5, 500000));
    EXPECT_EQ(UploadImplPeer::pendingTimers(*upload), 5);
    EXPECT_EQ(waiting(), Messages{});
}

/// A cancelled timer, or one of an object that has gone, posts nothing.
TEST_F(UploadImplTest, PostsNothingForACancelledTimer) {
    UploadImpl::postponedSendMsg(true, UploadImplPeer::instance(*upload), 1);
    EXPECT_EQ(waiting(), Messages{});
    UploadImpl::postponedSendMsg(false, UploadImplPeer::instance(*upload), 1);
    EXPECT_EQ(waiting(), (Messages{{1, 0}}));
}

/// A cancelled timer, or one of an object that has gone, posts nothing.
TEST_F(UploadImplTest, PostsNothingForAnObjectThatHasGone) {
    unsigned int gone = 0;
    {
        UploadImpl another;
        gone = UploadImplPeer::instance(another);
        EXPECT_NE(gone, UploadImplPeer::instance(*upload));
    }
    UploadImpl::postponedSendMsg(false, gone, 1);
    UploadImpl::postponedSendMsg(false, 4000000000U, 1);
    EXPECT_EQ(waiting(), Messages{});
}

/// It ends whatever waits, with its last holder.
TEST_F(UploadImplTest, DiesWithTimersPendingAndMessagesWaiting) {
    upload->ScheduleEventsUpload(100000);
    upload->ScheduleFilesUpload(1);
    upload->sendMsg(1, 0);
    upload.reset();
    EXPECT_EQ(upload, nullptr);
}

/// The configuration's requests for a refresh are scheduled, until it has gone.
TEST_F(UploadImplTest, RunsTheRefreshesThatTheConfigurationAsksFor) {
    ConfigImplPeer::scheduleRefresh(7000, true);
    EXPECT_TRUE(isDelayed(3, 7000));
}

/// The configuration's requests for a refresh are scheduled, until it has gone.
TEST_F(UploadImplTest, TakesNoMoreRequestsOfTheConfigurationOnceGone) {
    upload.reset();
    ConfigImplPeer::scheduleRefresh(7000, true);
    EXPECT_FALSE(static_cast<bool>(DB::m_dbFullCb));
}

// --- start-up -----------------------------------------------------------------------------------

/// `Init` opens the store, forgets the last failure, posts message 5, and message 6 when the
/// store is full.
TEST_F(UploadImplTest, InitOpensTheStoreAndPostsTheInitialization) {
    UploadImplPeer::setLastFailureTime(*upload, 5);
    const std::string path = dir.file("Db2");
    upload->Init(path);
    EXPECT_TRUE(dir.has("Db2"));
    EXPECT_EQ(UploadImplPeer::lastFailureTime(*upload), 0);
    EXPECT_EQ(waiting(), (Messages{{5, 0}}));
}

/// `Init` opens the store, forgets the last failure, posts message 5, and message 6 when the
/// store is full.
TEST_F(UploadImplTest, PostsTheReportWhenTheDatabaseIsFull) {
    ASSERT_TRUE(static_cast<bool>(DB::m_dbFullCb));
    DB::m_dbFullCb();
    EXPECT_EQ(waiting(), (Messages{{6, 0}}));
}

/// Without a network only the initialization is tried again in 60000 ms.
TEST_F(UploadImplTest, TriesAgainInAMinuteWithoutANetwork) {
    setNetwork(false);
    addEvent();
    EXPECT_EQ(upload->initialize(), 0);
    EXPECT_TRUE(isDelayed(5, 60000));
    EXPECT_EQ(UploadImplPeer::pendingTimers(*upload), 1);
    EXPECT_EQ(waiting(), Messages{});
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// Without a network only the initialization is tried again in 60000 ms.
TEST_F(UploadImplTest, SaysThatThereIsNoNetworkWhenVerbose) {
    setNetwork(false);
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    upload->initialize();
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload: Initialization not possible as network not available, will retry in 1 "
              "minute\n");
}

/// Initialization asks web time, configuration and terms, in this order.
TEST_F(UploadImplTest, InitializesTimeConfigurationAndTermsInThisOrder) {
    script(answerConfiguration);
    device->setBootCounts(8, 0);  // a cycle without web time
    configure(R"({"expiry_tou": 1})");
    OutputCapture output;
    EXPECT_NE(upload->initialize(), 0);
    output.stop();
    EXPECT_EQ(otherRequests(), "/time /config/dev1 /tou ");
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
}

/// Then it asks for what is due and always for the time check.
TEST_F(UploadImplTest, AsksForPendingWorkWhenInitialized) {
    script(answerConfiguration);
    configure(R"({"upload_events": {"min-size": 10}})");
    addEvent();
    db().addFile("f", "/tmp/f", "");
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    EXPECT_NE(upload->initialize(), 0);
    output.stop();
    EXPECT_EQ(waiting(), (Messages{{1, 0}, {2, 0}, {4, 0}}));
    const std::string lines = taggedLines(output.outWithoutPrefixes(), kTag);
    EXPECT_EQ(
        lines.rfind("kivUpload: Initializing: refreshing config, tou and pending upload\n", 0), 0u)
        << lines;
}

/// Then it asks for what is due and always for the time check.
TEST_F(UploadImplTest, AsksForNoUploadOfASmallStore) {
    script(answerConfiguration);
    addEvent();
    OutputCapture output;
    EXPECT_NE(upload->initialize(), 0);
    output.stop();
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
}

/// It waits for the time manager's database.
TEST_F(UploadImplTest, WaitsForTheTimeManagersDatabaseBeforeItInitializes) {
    setNetwork(false);
    TimeMgrImpl::expectDBPath();
    std::atomic<bool> given{false};
    bool givenBefore = false;
    std::thread job([&] {
        upload->initialize();
        givenBefore = given;
    });
    given = true;
    timeManager->setDBPath(database);
    job.join();
    EXPECT_TRUE(givenBefore);
    EXPECT_TRUE(isDelayed(5, 60000));
}

/// Then it asks for what is due and always for the time check.
TEST_F(UploadImplTest, UploadsWhatIsDueFromStartUpOnItsOwnThread) {
    script(answerConfiguration);
    addEvent(4000000);
    const std::string path = dir.write("file", "content");
    db().addFile("f", path, R"({"bucketname": "b1"})");
    upload.reset();
    OutputCapture output;
    UploadImpl another;
    another.Init(database);
    EXPECT_TRUE(WaitUntil([&] { return storedEvents() == "0"; }));
    EXPECT_TRUE(WaitUntil([&] { return query("SELECT COUNT(*) FROM Files") == "0"; }));
    EXPECT_TRUE(WaitUntil([&] { return UploadImplPeer::pendingDelay(another, 4) > 0; }));
    another.stopThread();
    output.stop();
    EXPECT_EQ(records().size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(path));
}

/// It ends whatever waits, with its last holder.
TEST_F(UploadImplTest, EndsWithItsLastHolderHoweverMuchWaits) {
    upload.reset();
    {
        const Singleton<UploadImpl> holder;
        UploadImplPeer::db(*holder).open(database, false);
        for (const long param : {0, 1}) holder->sendMsg(3, param);
        holder->sendMsg(1, 0);
        holder->ScheduleEventsTimeCheck(1);
        holder->ScheduleFilesUpload(100000);
    }
    EXPECT_EQ(Singleton<UploadImpl>::m_RefCount, 0);
    EXPECT_EQ(Singleton<UploadImpl>::m_pImpl, nullptr);
}

// --- refreshing the configuration ---------------------------------------------------------------

/// A good refresh restarts the time check and, with files, their upload; a failed one nothing.
TEST_F(UploadImplTest, RestartsTheJobsAfterARefresh) {
    db().addFile("f", "/tmp/f", "");
    EXPECT_EQ(upload->refreshConfig(false), 1);
    EXPECT_EQ(waiting(), (Messages{{4, 0}, {2, 0}}));
    EXPECT_GT(UploadImplPeer::pendingDelay(*upload, 3), 0) << "the next check";
}

/// A good refresh restarts the time check and, with files, their upload; a failed one nothing.
TEST_F(UploadImplTest, AsksForNoFilesUploadWithoutFiles) {
    EXPECT_EQ(upload->refreshConfig(false), 1);
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
}

/// A good refresh restarts the time check and, with files, their upload; a failed one nothing.
TEST_F(UploadImplTest, RestartsNothingWhenTheRefreshFailed) {
    configure(R"({"expiry_tou": 0})");
    script([](const Request&) {
        Response response;
        response.closeWithoutAnswer = true;
        return response;
    });
    OutputCapture output;
    EXPECT_EQ(upload->refreshConfig(false), 1);
    output.stop();
    EXPECT_EQ(waiting(), Messages{});
}

/// A non-zero parameter forces the refresh; it is told when verbose.
TEST_F(UploadImplTest, ForcesARefreshWithANonZeroParameter) {
    script(answerConfiguration);
    upload->handleMsg(3, 0);
    EXPECT_EQ(otherRequests(), "") << "the configuration is current";
    upload->handleMsg(3, 1);
    EXPECT_EQ(otherRequests(), "/config/dev1 ");
}

/// A non-zero parameter forces the refresh; it is told when verbose.
TEST_F(UploadImplTest, NotesARefreshWhenVerbose) {
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    upload->refreshConfig(false);
    output.stop();
    EXPECT_EQ(output.outWithoutPrefixes().rfind("kivUpload: configRefresh request\n", 0), 0u);
}
