#include "CKivApp.h"

#include "DB.h"
#include "DBToken.h"
#include "GatewayImpl.h"
#include "LocationInfo.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UploadImpl.h"
#include "support/AppSetup.h"
#include "support/EventSessionHeaderPeer.h"
#include "support/FakeCommands.h"
#include "support/GatewayImplPeer.h"
#include "support/LocationInfoPeer.h"
#include "support/OutputCapture.h"
#include "support/PimAppVersionPeer.h"
#include "support/TimeMgrImplPeer.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include <mqueue.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

std::string uniqueQueueName() {
    static std::atomic<int> count{0};
    return "/kivtest-app-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
}

/// Whether the kernel's task file says that the thread blocks the signal.
bool blocksSignal(const std::filesystem::path& task, int signal) {
    std::ifstream status(task / "status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigBlk:", 0) != 0) continue;
        return ((std::stoull(line.substr(7), nullptr, 16) >> (signal - 1)) & 1) != 0;
    }
    return false;
}

void tellSignal(int) {
    const char mark = '!';
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, &mark, 1);
}

/// Holds whoever says that the gateway is ready for half a second, unless the upload side says
/// meanwhile that it initializes. Writes nothing.
class HeldStart : public std::streambuf {
  public:
    HeldStart() : m_before(std::cout.rdbuf(this)) {}
    ~HeldStart() override { std::cout.rdbuf(m_before); }

    bool wasHeld() const { return m_held; }
    bool initializedMeanwhile() const { return m_early; }

  private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        const std::string written(text, static_cast<std::size_t>(size));
        if (written.find("Initialization not possible") != std::string::npos) m_initialized = true;
        if (written.find("Gateway initialized") != std::string::npos) {
            m_early =
                WaitUntil([this] { return m_initialized.load(); }, std::chrono::milliseconds(500));
            m_held = true;
        }
        return size;
    }
    int overflow(int character) override { return character; }

    std::streambuf* m_before;
    std::atomic<bool> m_initialized{false};
    std::atomic<bool> m_early{false};
    std::atomic<bool> m_held{false};
};

/// Runs the application in a child; with the start event logged a thread there writes `facts()`
/// on standard error between "<<" and ">>".
class CKivAppRunTest : public AppSetup {
  protected:
    void TearDown() override {
        m_child.reset();
        m_capture.reset();
        ::mq_unlink(m_queue.c_str());
        AppSetup::TearDown();
    }

    void run(
        const std::vector<std::string>& arguments,
        std::function<std::string()> facts = [] { return ""; }) {
        m_capture = std::make_unique<OutputCapture>();
        m_child = std::make_unique<Child>([&] {
            GatewayImplPeer::setQueueName(m_queue);
            TimeMgrImplPeer::setPipePath(m_dir.file("pipe"));
            ::setenv("LOC_NETWORK", "false", 1);
            ::setenv("CURL_CA_BUNDLE", m_dir.file("noCA").c_str(), 1);
            ::signal(SIGUSR1, tellSignal);
            std::thread([facts] {
                sigset_t all;  // signals are for the main thread
                ::sigfillset(&all);
                ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
                if (!WaitUntil([] { return GatewayImpl::latestEvent() != nullptr; })) ::_exit(3);
                const std::string text = "<<" + facts() + ">>";
                if (::write(STDERR_FILENO, text.data(), text.size()) < 0) ::_exit(4);
            }).detach();
            const auto app = makeApp();
            const Arguments given(arguments);
            app->Init(given.count(), given.values());
            app->Run();
        });
    }

    /// The facts of the started application.
    std::string facts() {
        const auto written = [this] { return m_capture->err().find(">>") != std::string::npos; };
        EXPECT_TRUE(WaitUntil([&] { return written() || !m_child->isRunning(); }));
        const std::string err = m_capture->err();
        const std::size_t begin = err.find("<<");
        const std::size_t end = err.find(">>");
        if (begin == std::string::npos || end == std::string::npos) return "(none) " + err;
        return err.substr(begin + 2, end - begin - 2);
    }

    const std::string m_queue = uniqueQueueName();
    std::unique_ptr<OutputCapture> m_capture;
    std::unique_ptr<Child> m_child;
};

/// Every part gets its path at the start.
TEST_F(CKivAppRunTest, GivesEveryPartItsPath) {
    writeDefaultFiles();
    std::filesystem::create_directory(m_dir.file("kiv"));
    const std::string config = m_dir.write("kiv/Config", R"({"kiv_tou": true, "expiry_tou": 900})");
    run({"-c", config, "-e", m_dir.file("store")}, [] {
        return LocationInfoPeer::dbPath() + " " + EventSessionHeaderPeer::dbPath() + " " +
               PimAppVersionPeer::fileName() + " " + std::to_string(DBToken::current().size());
    });
    EXPECT_EQ(facts(), m_dir.file("store") + " " + m_dir.file("store") + " " +
                           m_dir.file("kiv/pimversion.json") + " 36");
    EXPECT_TRUE(m_dir.has("kiv/dbuuid.json"));
    EXPECT_TRUE(m_dir.has("store"));
    EXPECT_FALSE(m_dir.has("Db"));
}

/// The directory of the configuration is the text before the last slash of either kind, or the
/// whole.
TEST_F(CKivAppRunTest, TakesAConfigurationPathWithoutSlashAsTheDirectoryItself) {
    writeDefaultFiles();
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_dir.path());
    run({"-c", "Config"}, [] { return PimAppVersionPeer::fileName(); });
    std::filesystem::current_path(before);
    EXPECT_EQ(facts(), "Config/pimversion.json");
}

/// The directory of the configuration is the text before the last slash of either kind, or the
/// whole.
TEST_F(CKivAppRunTest, CutsTheConfigurationPathAtTheLastSlashOfEitherKind) {
    writeDefaultFiles();
    const std::string config = m_dir.write("kiv\\Config", R"({"kiv_tou": true})");
    run({"-c", config}, [] { return PimAppVersionPeer::fileName(); });
    EXPECT_EQ(facts(), m_dir.file("kiv") + "/pimversion.json");
}

/// The start records the operating time and logs "kiv.start".
TEST_F(CKivAppRunTest, RecordsTheOperatingTimeAndLogsItsStart) {
    writeDefaultFiles();
    const std::string path = m_dir.file("Db");
    run({}, [path] {
        const auto isStored = [&] {
            DB db;
            db.open(path, false);
            return !db.getOldestEvent().empty();
        };
        WaitUntil(isStored);
        DB db;
        db.open(path, false);
        return std::to_string(db.getOpTime(7, 2)) + " " + db.getOldestEvent();
    });
    const std::string told = facts();
    EXPECT_EQ(told.rfind(R"(180 {"event-type": "kiv.start", "eventid": 202, "boot-count": 7, )"
                         R"("standby-count": 2, "kernel-time": )",
                         0),
              0u)
        << told;
}

/// An unusable database is made anew at the start.
TEST_F(CKivAppRunTest, MakesAnUnusableDatabaseAnew) {
    writeDefaultFiles();
    m_dir.write("Db", "this is no database, and long enough to be taken for one by nobody\n");
    const std::string path = m_dir.file("Db");
    run({}, [path] {
        DB db;
        db.open(path, false);
        return std::to_string(db.getOpTime(7, 2));
    });
    EXPECT_EQ(facts(), "180");
}

/// The services are held and the time is watched; events are taken from the queue.
TEST_F(CKivAppRunTest, HoldsTheServicesAndWatchesTheTime) {
    writeDefaultFiles();
    run({}, [] {
        const Singleton<TimeMgrImpl> timeManager;
        return std::to_string(Singleton<UploadImpl>::m_pImpl != nullptr) +
               std::to_string(Singleton<GatewayImpl>::m_pImpl != nullptr) +
               std::to_string(Singleton<TimeMgrImpl>::m_RefCount > 1) +
               std::to_string(TimeMgrImplPeer::isWatching(*timeManager));
    });
    EXPECT_EQ(facts(), "1111");
}

/// The first initialization waits until the start has handed the time manager its database.
TEST_F(CKivAppRunTest, HasTheInitializationWaitForTheTimeManagersDatabase) {
    writeDefaultFiles();
    FakeCommands commands;
    commands.setOutput("ping", "");
    HeldStart start;  // the child gets its copy
    run({"-v"}, [&start] {
        return std::string(start.wasHeld() ? "held, " : "not held, ") +
               (start.initializedMeanwhile() ? "early" : "in time");
    });
    EXPECT_EQ(facts(), "held, in time");
}

/// The services are held and the time is watched; events are taken from the queue.
TEST_F(CKivAppRunTest, TakesEventsFromTheQueue) {
    writeDefaultFiles();
    run({});
    facts();
    mqd_t queue = -1;  // its thread may not have made it yet
    ASSERT_TRUE(WaitUntil([&] { return (queue = ::mq_open(m_queue.c_str(), O_WRONLY)) >= 0; }));
    const std::string event = R"({"event-type": "pim.start", "data": {"pim-version": "4.5"}})";
    EXPECT_EQ(::mq_send(queue, event.data(), event.size(), 0), 0);
    ::mq_close(queue);
    EXPECT_TRUE(WaitUntil([this] { return m_dir.has("pimversion.json"); }));
}

/// The time manager's error asks for a refresh and for events and files that wait.
TEST_F(CKivAppRunTest, AsksForARefreshWhenTheTimeManagerFindsTheStoreInError) {
    writeDefaultFiles();
    run({"-v"}, [] {
        const Singleton<TimeMgrImpl> timeManager;
        // The store of the start event must not clear the error in between.
        const std::lock_guard<std::recursive_mutex> noStatements(DB::m_PruneLock);
        DB::m_dbError = true;
        timeManager->setTime(TimeSourceSystem, TimeReference(7, 2, 1000), 1551953702000);
        return std::string("set");
    });
    EXPECT_EQ(facts(), "set");
    EXPECT_NE(m_capture->outWithoutPrefixes().find("\nkivUpload: ScheduleRefreshConfig delay:0\n"),
              std::string::npos);
}

/// Every thread but the main one blocks it.
///
/// The alarm is open in the main thread only, which sleeps on after every signal.
TEST_F(CKivAppRunTest, BlocksTheAlarmInEveryThreadButTheMainOne) {
    writeDefaultFiles();
    run({}, [] {
        // The start is over when the main thread takes the alarm again.
        const std::filesystem::path tasks = "/proc/self/task";
        const std::filesystem::path mainTask = tasks / std::to_string(::getpid());
        WaitUntil([&] { return !blocksSignal(mainTask, SIGALRM); });
        int others = 0;
        int open = 0;
        for (const auto& task : std::filesystem::directory_iterator(tasks)) {
            if (task.path() == mainTask) continue;
            ++others;
            open += blocksSignal(task.path(), SIGALRM) ? 0 : 1;
        }
        return std::to_string(blocksSignal(mainTask, SIGALRM)) + " " + std::to_string(others >= 5) +
               " " + std::to_string(open);
    });
    EXPECT_EQ(facts(), "0 1 0");
}

/// The alarm is open in the main thread only, which sleeps on after every signal.
TEST_F(CKivAppRunTest, SleepsOnAfterEverySignalThatIsHandled) {
    writeDefaultFiles();
    run({});
    facts();
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(::kill(m_child->pid(), SIGUSR1), 0);
        EXPECT_TRUE(WaitUntil([&] {
            const std::string err = m_capture->err();
            return std::count(err.begin(), err.end(), '!') == i;
        }));
        EXPECT_TRUE(m_child->isRunning());
    }
}

}  // namespace
