#include "GatewayImpl.h"

#include "support/GatewaySetup.h"
#include "support/OutputCapture.h"
#include "support/SystemCallFaults.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

constexpr char kFails[] = "kivGateway:Events are kept in memory: the store fails\n";

/// A gateway whose store fails until it is told otherwise.
class GatewayImplFailingTest : public GatewaySetup {
  protected:
    /// The store is where no store can be; the storing thread knows that it fails.
    void makeGatewayWithoutStore() {
        makeEarlyGateway();
        OutputCapture capture;
        m_gateway->Init(m_dir.file("missing/Db"));
        logNumbered(1);
        EXPECT_TRUE(WaitUntil([&] { return toldThatItFails(capture); }));
    }

    void comeUp() { m_gateway->Init(m_db); }

    /// Events of types "e0", "e1", ...; the kernel time is the number and one.
    void logNumbered(int count) {
        for (int i = 0; i < count; ++i) m_gateway->Log(numbered());
    }

    std::string numbered() {
        const std::string number = std::to_string(m_logged++);
        return R"({"event-type": "e)" + number + R"(", "kernel-time": )" +
               std::to_string(m_logged) + "}";
    }

    static bool toldThatItFails(OutputCapture& capture) {
        return capture.errWithoutPrefixes().find(kFails) != std::string::npos;
    }

    static std::size_t waiting() {
        const std::lock_guard<std::mutex> lock(GatewayImpl::m_QueueMutex);
        return GatewayImpl::m_Queue.size();
    }

    static std::vector<std::string> numberedTypes(int first, int last) {
        std::vector<std::string> types;
        for (int i = first; i <= last; ++i) types.push_back("e" + std::to_string(i));
        return types;
    }

    int m_logged = 0;
};

/// Another process that writes in the store, as long as it lives.
class Locked {
  public:
    explicit Locked(const std::string& path) {
        sqlite3* connection = nullptr;
        EXPECT_EQ(::sqlite3_open(path.c_str(), &connection), SQLITE_OK);
        m_connection.reset(connection);
        EXPECT_EQ(::sqlite3_exec(connection, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
                  SQLITE_OK);
    }

  private:
    struct Close {
        void operator()(sqlite3* connection) const { ::sqlite3_close(connection); }
    };
    std::unique_ptr<sqlite3, Close> m_connection;
};

/// Events of a store that fails from the start are kept; they are stored in order when it works.
TEST_F(GatewayImplFailingTest, StoresAllInOrderWhenTheStoreComesUp) {
    makeGatewayWithoutStore();
    logNumbered(399);
    EXPECT_EQ(waiting(), 400u);
    SystemCallFaults::shortenSleeps = true;
    comeUp();
    EXPECT_EQ(storedTypes(), numberedTypes(0, 399));
}

/// Of 600 events the 88 oldest are named by one overflow record ahead of the others.
TEST_F(GatewayImplFailingTest, NamesTheOldestOfSixHundredEventsInOneRecordAheadOfTheOthers) {
    makeGatewayWithoutStore();
    logNumbered(599);
    EXPECT_EQ(waiting(), 512u);
    SystemCallFaults::shortenSleeps = true;
    OutputCapture capture;
    comeUp();
    EXPECT_TRUE(WaitUntil([this] { return rows().size() == 513; }));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:The store works again: 512 events kept, 88 dropped\n");
    std::vector<std::string> expected = numberedTypes(88, 599);
    expected.insert(expected.begin(), "logging.overflow");
    const auto all = rows();
    std::vector<std::string> types;
    for (const Row& row : all) types.push_back(row.type);
    EXPECT_EQ(types, expected);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all[0].bootCount, 7);
    EXPECT_EQ(all[0].standbyCount, 2);
    EXPECT_EQ(all[0].kernelTime, 1);
    EXPECT_EQ(JsonObject::parse(all[0].data).getObject("data").getStringRep(),
              R"({"lowest-boot-count": 7, "lowest-standby-count": 2, "lowest-kernel-time": 1, )"
              R"("highest-boot-count": 7, "highest-standby-count": 2, "highest-kernel-time": 88})");
}

/// A store that fails is told once, and once that it works again.
TEST_F(GatewayImplFailingTest, TellsOnceThatTheStoreFails) {
    makeEarlyGateway();
    SystemCallFaults::shortenSleeps = true;
    OutputCapture capture;
    m_gateway->Init(m_dir.file("missing/Db"));
    logNumbered(3);
    EXPECT_TRUE(WaitUntil([] { return SystemCallFaults::sleeps > 100; }));
    comeUp();
    const std::string works = "kivGateway:The store works again: 3 events kept, 0 dropped\n";
    EXPECT_TRUE(WaitUntil([&] { return capture.err().find(works) != std::string::npos; }));
    EXPECT_EQ(storedTypes(), numberedTypes(0, 2));
    capture.stop();
    const std::string errors = capture.errWithoutPrefixes();
    const std::size_t first = errors.find(kFails);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(errors.find(kFails, first + 1), std::string::npos);
    EXPECT_EQ(errors.find(works), errors.rfind(works));
}

/// The storing thread tries a store that fails every 200 ms for a second, every second until ten
/// have passed, then every five.
TEST_F(GatewayImplFailingTest, TriesAStoreThatFailsAtTheStatedPace) {
    makeEarlyGateway();
    OutputCapture capture;
    SystemCallFaults::holdSleeps = true;
    ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps > 0; }));
    m_gateway->Init(m_dir.file("missing/Db"));
    logNumbered(1);
    SystemCallFaults::forgetSleeps();
    SystemCallFaults::shortenSleeps = true;
    SystemCallFaults::holdSleeps = false;
    EXPECT_TRUE(WaitUntil([] { return SystemCallFaults::sleepsAsked().size() >= 17; }));
    auto asked = SystemCallFaults::sleepsAsked();
    asked.resize(17);
    std::vector<unsigned int> expected(5, 200000);
    expected.insert(expected.end(), 9, 1000000);
    expected.insert(expected.end(), 3, 5000000);
    EXPECT_EQ(asked, expected);
    comeUp();
    EXPECT_EQ(storedTypes(), numberedTypes(0, 0));
    m_gateway->Init(m_dir.file("missing/Db"));
    SystemCallFaults::forgetSleeps();
    logNumbered(1);
    EXPECT_TRUE(WaitUntil([] {
        const auto again = SystemCallFaults::sleepsAsked();
        return !again.empty() && again.back() == 1000000;
    })) << "from the beginning, after it worked";
}

/// A sender with a semaphore does not wait while another process locks the store.
TEST_F(GatewayImplFailingTest, AnswersSendersWhileAnotherProcessLocksTheStore) {
    makeGateway();
    OutputCapture capture;
    {
        const Locked other(m_db);
        m_gateway->Log(R"({"event-type": "first"})");
        ASSERT_TRUE(WaitUntil([&] { return toldThatItFails(capture); }));
        for (int i = 0; i < 30; ++i) {
            const NamedSemaphore done;
            const auto start = std::chrono::steady_clock::now();
            ASSERT_TRUE(send(R"({"event-type": "waits", "syncsem": ")" + done.name() + "\"}"));
            ASSERT_TRUE(WaitUntil([&] { return done.value() == 1; }));
            EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms);
            std::this_thread::sleep_for(30ms);  // spread over several attempts
        }
    }
    capture.stop();
    EXPECT_EQ(stored().size(), 31u);
}

/// A flood on the queue never pauses, and keeps to 512 events in memory.
TEST_F(GatewayImplFailingTest, TakesAFloodWithoutAPauseAndWithBoundedMemory) {
    makeGatewayWithoutStore();
    std::size_t most = 0;
    {
        const Queue queue(m_queueName, O_WRONLY);
        for (int i = 0; i < 5000; ++i) {
            ASSERT_TRUE(queue.send(numbered()));
            if (i % 100 == 0) most = std::max(most, waiting());
        }
    }
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"event-type": "end", "syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(done.wait());
    EXPECT_LE(most, 512u);
    EXPECT_EQ(waiting(), 512u);
    SystemCallFaults::shortenSleeps = true;
    comeUp();
    EXPECT_TRUE(WaitUntil([this] { return rows().size() == 513; }));
    const auto all = rows();
    EXPECT_EQ(all[0].type, "logging.overflow");
    EXPECT_EQ(all[1].type, "e4490") << "of 5001 and the last one 4490 are gone";
}

/// A file that cannot be registered now is registered when the store comes up, and its upload asked
/// for; its event has its "oob-id" and is kept.
TEST_F(GatewayImplFailingTest, KeepsTheEventOfAFileThatCannotBeRegistered) {
    makeGatewayWithoutStore();
    const std::string errors =
        errorsOf(R"({"event-type": "file", "oob-url": "/tmp/a\n.log", "data": {}})");
    EXPECT_EQ(errors.find("could not be registered"), std::string::npos) << errors;
    SystemCallFaults::shortenSleeps = true;
    comeUp();
    const auto all = stored();
    ASSERT_EQ(all.size(), 2u);
    const std::string id = JsonObject::parse(all[1].data).optString("oob-id");
    EXPECT_EQ(id.rfind("oob_dev1_", 0), 0u);
    ASSERT_TRUE(WaitUntil([&] { return files().size() == 1; }));
    EXPECT_EQ(files()[0].id, id);
    EXPECT_EQ(files()[0].url, "/tmp/a\n.log");
    const auto askedForFiles = [this] {
        const UploadImplPeer::Messages asked = askedOfUpload();
        const auto isFiles = [](const auto& message) {
            return message.first == UploadImpl::UploadFiles;
        };
        return std::any_of(asked.begin(), asked.end(), isFiles);
    };
    EXPECT_TRUE(WaitUntil(askedForFiles));
}

/// A file that the table never takes gets its lines at once; its event is kept.
TEST_F(GatewayImplFailingTest, RefusesAFileThatNeverFitsAtOnce) {
    makeGatewayWithoutStore();
    const std::string info = R"({"unique-id": "a", "x": ")" + std::string(5000, 'x') + "\"}";
    const std::string errors = errorsOf(
        R"({"event-type": "file", "oob-url": "/tmp/a", "data": {"oob-info": )" + info + "}}");
    EXPECT_NE(errors.find("kivDB: File refused, its info has 5027 bytes: a\n"
                          "kivGateway:File could not be registered: /tmp/a\n"),
              std::string::npos)
        << errors;
}

/// Senders that announce files wait no longer than others while another process locks the store,
/// and no file is lost.
TEST_F(GatewayImplFailingTest, AnswersAnnouncingSendersWhileAnotherProcessLocksTheStore) {
    makeGateway();
    OutputCapture capture;
    {
        const Locked other(m_db);
        for (int i = 0; i < 30; ++i) {
            const std::string number = std::to_string(i);
            const NamedSemaphore done;
            const auto start = std::chrono::steady_clock::now();
            ASSERT_TRUE(send(R"({"event-type": "x", "oob-url": "/tmp/)" + number +
                             R"(", "syncsem": ")" + done.name() + "\"}"));
            ASSERT_TRUE(done.wait());
            // The storing thread's first attempt waits for the lock, for a second.
            EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms) << i;
        }
        EXPECT_TRUE(WaitUntil([&] { return toldThatItFails(capture); }));
        const std::string kept = "Announced files are kept in memory: the store fails\n";
        EXPECT_TRUE(WaitUntil([&] { return capture.err().find(kept) != std::string::npos; }));
    }
    const auto all = stored();
    EXPECT_TRUE(WaitUntil([this] { return files().size() == 30; }));
    capture.stop();
    const auto announced = files();
    ASSERT_EQ(all.size(), announced.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(JsonObject::parse(all[i].data).optString("oob-id"), announced[i].id);
        EXPECT_EQ(announced[i].url, "/tmp/" + std::to_string(i));
    }
}

/// An announcement does not wait for another thread of the daemon that works on the store, and its
/// file is registered even where no event follows.
TEST_F(GatewayImplFailingTest, AnAnnouncementWaitsForNoOtherThread) {
    makeGateway();
    OutputCapture capture;
    std::unique_lock<std::recursive_mutex> busy(DB::m_PruneLock);
    std::thread sender([this] {
        m_gateway->Log(R"({"oob-url": "/tmp/a", "data": {"oob-info": {"unique-id": "a"}}})");
    });
    sender.join();  // while the lock is held
    busy.unlock();
    EXPECT_TRUE(WaitUntil([this] { return files().size() == 1; }));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
    EXPECT_TRUE(WaitUntil([this] { return !askedOfUpload().empty(); }));
}

/// It ends at once also while the store fails.
TEST_F(GatewayImplFailingTest, EndsAtOnceWhileTheStoreFails) {
    makeGatewayWithoutStore();
    const auto start = std::chrono::steady_clock::now();
    m_gateway.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(waiting(), 0u);
}

}  // namespace
