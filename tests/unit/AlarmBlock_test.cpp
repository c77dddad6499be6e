#include "AlarmBlock.h"

#include "LocationInfo.h"
#include "TimeMgrImpl.h"
#include "support/KivTest.h"
#include "support/LocationInfoPeer.h"
#include "support/OutputCapture.h"
#include "support/ScriptedHttpServer.h"
#include "support/TempDir.h"
#include "support/TimeMgrImplPeer.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include <gtest/gtest.h>

namespace {

std::atomic<int> alarmsHandled{0};

void countAlarm(int) {
    ++alarmsHandled;
}

/// Blocks or unblocks one signal of the calling thread.
void setBlocked(int signal, bool blocked) {
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    ::pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &one, nullptr);
}

/// Whether the calling thread blocks the signal.
bool isBlocked(int signal) {
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

/// Runs `body` on a thread of its own, which takes the alarm at first.
void onAThreadThatTakesTheAlarm(const std::function<void()>& body) {
    std::thread([&body] {
        setBlocked(SIGALRM, false);
        body();
    }).join();
}

/// Whether each thread of that name blocks the alarm.
std::vector<bool> alarmBlocksOf(const std::string& threadName) {
    constexpr unsigned long long alarmBit = 1ULL << (SIGALRM - 1);
    std::vector<bool> blocks;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        bool named = false;
        for (std::string line; std::getline(status, line);) {
            if (line == "Name:\t" + threadName) named = true;
            if (named && line.rfind("SigBlk:", 0) == 0)
                blocks.push_back((std::stoull(line.substr(7), nullptr, 16) & alarmBit) != 0);
        }
    }
    return blocks;
}

/// What the one thread that `start` starts makes of the alarm: whether it blocks it, once `runs`.
/// A new thread has the name of the one that starts it, and these two keep it: nothing if there is
/// another number of new threads than one, or if the starting thread does not take the alarm.
std::optional<bool> startsAThreadThatBlocks(const std::function<void()>& start,
                                            const std::function<bool()>& runs) {
    std::optional<bool> blocked;
    onAThreadThatTakesTheAlarm([&] {
        ::pthread_setname_np(::pthread_self(), "StartsThreads");
        start();
        if (!WaitUntil(runs) || isBlocked(SIGALRM)) return;
        const std::vector<bool> blocks = alarmBlocksOf("StartsThreads");
        if (blocks.size() == 2) blocked = blocks[0] || blocks[1];
    });
    return blocked;
}

class AlarmBlockInClasses : public KivTest {
  protected:
    TempDir m_dir;
};

}  // namespace

/// SIGALRM is blocked as long as it lives; then the mask is as before, nested blocks included.
TEST(AlarmBlock, BlocksTheAlarmAsLongAsItLives) {
    onAThreadThatTakesTheAlarm([] {
        {
            const AlarmBlock block;
            EXPECT_TRUE(isBlocked(SIGALRM));
        }
        EXPECT_FALSE(isBlocked(SIGALRM));
    });
}

/// Other signals stay as they are.
TEST(AlarmBlock, LeavesOtherSignalsAsTheyAre) {
    onAThreadThatTakesTheAlarm([] {
        setBlocked(SIGUSR1, true);
        setBlocked(SIGUSR2, false);
        {
            const AlarmBlock block;
            EXPECT_TRUE(isBlocked(SIGUSR1));
            EXPECT_FALSE(isBlocked(SIGUSR2));
        }
        EXPECT_TRUE(isBlocked(SIGUSR1));
        EXPECT_FALSE(isBlocked(SIGUSR2));
    });
}

/// SIGALRM is blocked as long as it lives; then the mask is as before, nested blocks included.
TEST(AlarmBlock, KeepsAnAlarmBlockedThatWasSoBefore) {
    onAThreadThatTakesTheAlarm([] {
        const AlarmBlock outer;
        { const AlarmBlock inner; }
        EXPECT_TRUE(isBlocked(SIGALRM));
    });
}

/// An alarm that comes meanwhile is handled at its end.
TEST(AlarmBlock, HoldsAnAlarmBackUntilItsEnd) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = countAlarm;
    ::sigaction(SIGALRM, &action, &before);
    onAThreadThatTakesTheAlarm([] {
        alarmsHandled = 0;
        {
            const AlarmBlock block;
            ::pthread_kill(::pthread_self(), SIGALRM);
            EXPECT_EQ(alarmsHandled, 0);
        }
        EXPECT_EQ(alarmsHandled, 1);
    });
    ::sigaction(SIGALRM, &before, nullptr);
}

/// Threads started meanwhile inherit the block and keep it; those that run already are left
/// alone.
TEST(AlarmBlock, ThreadsStartedMeanwhileInheritTheBlockAndKeepIt) {
    onAThreadThatTakesTheAlarm([] {
        std::atomic<bool> ended{false};
        bool blockedAtFirst = false;
        bool blockedLater = false;
        std::thread started;
        {
            const AlarmBlock block;
            started = std::thread([&] {
                blockedAtFirst = isBlocked(SIGALRM);
                WaitUntil([&] { return ended.load(); });
                blockedLater = isBlocked(SIGALRM);
            });
        }
        ended = true;
        started.join();
        EXPECT_TRUE(blockedAtFirst);
        EXPECT_TRUE(blockedLater);
    });
}

/// Commands are started with SIGALRM let through, whatever their thread does with it.
TEST(AlarmUnblock, LetsTheAlarmThroughAsLongAsItLives) {
    onAThreadThatTakesTheAlarm([] {
        const AlarmBlock block;
        setBlocked(SIGUSR1, true);
        {
            const AlarmUnblock inherited;
            EXPECT_FALSE(isBlocked(SIGALRM));
            EXPECT_TRUE(isBlocked(SIGUSR1)) << "other signals stay as they are";
        }
        EXPECT_TRUE(isBlocked(SIGALRM));
    });
}

/// Threads started meanwhile inherit the block and keep it; those that run already are left
/// alone.
TEST(AlarmBlock, LeavesThreadsAloneThatRunAlready) {
    onAThreadThatTakesTheAlarm([] {
        std::atomic<bool> runs{false};
        std::atomic<bool> blocking{false};
        bool blocked = true;
        std::thread other([&] {
            runs = true;
            WaitUntil([&] { return blocking.load(); });
            blocked = isBlocked(SIGALRM);
        });
        EXPECT_TRUE(WaitUntil([&] { return runs.load(); }));
        const AlarmBlock block;
        blocking = true;
        other.join();
        EXPECT_FALSE(blocked);
    });
}

/// Every thread but the main one blocks it.
TEST_F(AlarmBlockInClasses, TheWatchOnTheMiddlewaresTimeLeavesTheAlarmToOtherThreads) {
    TimeMgrImpl manager;
    TimeMgrImplPeer::setPipePath(m_dir.file("pipe"));
    const std::optional<bool> blocked = startsAThreadThatBlocks(
        [&] { manager.setAutoUpdateSystemTime(true); }, [this] { return m_dir.has("pipe"); });
    manager.setAutoUpdateSystemTime(false);
    EXPECT_EQ(blocked, true);
}

/// Every thread but the main one blocks it.
TEST_F(AlarmBlockInClasses, TheThreadThatStoresThePlaceLeavesTheAlarmToOtherThreads) {
    ::unsetenv("LOC_NETWORK");
    const ScriptedHttpServer server([](const ScriptedHttpServer::Request&) {
        ScriptedHttpServer::Response response;
        response.body = R"({"city": "Brussels", "country": "BE", "loc": "50.85,4.35"})";
        return response;
    });
    LocationInfoPeer::setProvider("http://127.0.0.1:" + std::to_string(server.port()) + "/json");
    LocationInfoPeer::forget();
    LocationInfo::setDbPath(m_dir.file("later/Db"));  // the thread tries until it is there
    OutputCapture capture;
    const std::string line = "kivDB: Can't Insert into table Location: ";
    const std::optional<bool> blocked =
        startsAThreadThatBlocks([] { LocationInfo::getLocation(); },
                                [&] { return capture.err().find(line) != std::string::npos; });
    std::filesystem::create_directory(m_dir.file("later"));
    EXPECT_TRUE(WaitUntil([] { return alarmBlocksOf("StartsThreads").empty(); }));
    capture.stop();
    EXPECT_EQ(blocked, true);
    EXPECT_TRUE(m_dir.has("later/Db"));
}
