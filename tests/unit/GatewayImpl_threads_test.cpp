#include "GatewayImpl.h"

#include "Singleton.h"
#include "UploadImpl.h"
#include "support/GatewaySetup.h"
#include "support/HoldingOutput.h"
#include "support/NoThreads.h"
#include "support/OutputCapture.h"
#include "support/PoisonedOutput.h"
#include "support/SystemCallFaults.h"
#include "support/TempDir.h"
#include "support/UploadImplPeer.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <gtest/gtest.h>

namespace {

using Messages = UploadImplPeer::Messages;

std::string replaced(std::string text, const std::string& pattern, const std::string& with) {
    return std::regex_replace(text, std::regex(pattern), with);
}

bool hasThreadNamed(const std::string& name) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (TempDir::readFile(task.path().string() + "/comm") == name + "\n") return true;
    }
    return false;
}

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class GatewayImplThreadsTest : public GatewaySetup {
  protected:
    /// Sends an event of the type. @return whether it was handled
    bool sendAndWait(const std::string& type) {
        const NamedSemaphore done;
        return send(R"({"event-type": ")" + type + R"(", "syncsem": ")" + done.name() + "\"}") &&
               done.wait();
    }

    /// What is handled from now on waits, until the sleeps go on.
    static void holdStoring() {
        SystemCallFaults::holdSleeps = true;
        ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps > 0; }));
    }

    void logMany(int count) {
        for (int i = 0; i < count; ++i) m_gateway->Log(R"({"event-type": "many"})");
    }

    /// The storing thread has stored a full batch and sleeps, held, for the next one to gather.
    void storeFullBatchAndHold() {
        SystemCallFaults::holdSleeps = true;
        ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps > 0; }));
        logMany(256);
        {
            const std::lock_guard<std::recursive_mutex> noStatements(DB::m_PruneLock);
            SystemCallFaults::holdSleeps = false;
            ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps == 0; }));
            SystemCallFaults::sleepsBelowAMillisecond = 0;
            SystemCallFaults::holdSleeps = true;
        }
        ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps > 0; }));
        EXPECT_EQ(countStored(), "256");
    }

    std::string countStored() const {
        return query("SELECT COUNT(*) FROM Events WHERE type='many'")[0][0];
    }
};

// --- the queue ------------------------------------------------------------------------------

/// The queue is "/kiv_queue".
TEST_F(GatewayImplThreadsTest, ServesTheQueueOfTheProductUnlessATestSaysOtherwise) {
    EXPECT_STREQ(GatewayImplPeer::productQueue, "/kiv_queue");
}

/// Messages on it are stored in their order, those that waited before the start too.
TEST_F(GatewayImplThreadsTest, StoresAnEventThatWasSentToTheQueue) {
    makeGateway();
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"event-type": "usage.epg", "kernel-time": 5, "syncsem": ")" + done.name() +
                     "\"}"));
    ASSERT_TRUE(done.wait());
    const auto all = stored();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].data, R"({"event-type": "usage.epg", "kernel-time": 5, "eventid": 6, )"
                           R"("boot-count": 7, "standby-count": 2})");
}

/// A queue that it reuses keeps its mode.
TEST_F(GatewayImplThreadsTest, LeavesTheModeOfAQueueThatItReuses) {
    createQueue();
    const mode_t before = Queue(m_queueName, O_WRONLY).mode();
    makeGateway();
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(Queue(m_queueName, O_WRONLY).mode(), before);
}

/// Messages on it are stored in their order, those that waited before the start too.
TEST_F(GatewayImplThreadsTest, TakesMessagesThatWaitedInTheQueueBeforeItsStart) {
    createQueue();
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"event-type": "early", "syncsem": ")" + done.name() + "\"}"));
    makeGateway();
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"early"});
}

/// Messages on it are stored in their order, those that waited before the start too.
TEST_F(GatewayImplThreadsTest, TakesMessagesInTheirOrder) {
    makeGateway();
    const NamedSemaphore done;
    std::vector<std::string> expected;
    for (int i = 0; i < 20; ++i) {
        const std::string type = "e" + std::to_string(i);
        ASSERT_TRUE(send(R"({"event-type": ")" + type + "\"}"));
        expected.push_back(type);
    }
    ASSERT_TRUE(send(R"({"syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(done.wait());
    expected.push_back("");
    EXPECT_EQ(storedTypes(), expected);
}

/// A message may fill the queue's size; empty ones are skipped; a NUL ends one.
TEST_F(GatewayImplThreadsTest, TakesAMessageThatFillsTheQueuesMessageSize) {
    createQueue(2, 256);
    makeGateway();
    const NamedSemaphore done;
    std::string message = R"({"syncsem": ")" + done.name() + R"(", "event-type": "full", "pad": ")";
    message += std::string(256 - message.size() - 2, 'x') + "\"}";
    ASSERT_EQ(message.size(), 256u);
    ASSERT_TRUE(send(message));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"full"});
}

/// A message may fill the queue's size; empty ones are skipped; a NUL ends one.
TEST_F(GatewayImplThreadsTest, SkipsEmptyMessages) {
    makeGateway();
    const NamedSemaphore done;
    OutputCapture capture;
    EXPECT_TRUE(send(""));
    EXPECT_TRUE(send(R"({"event-type": "next", "syncsem": ")" + done.name() + "\"}"));
    EXPECT_TRUE(done.wait());
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"next"});
}

/// A message may fill the queue's size; empty ones are skipped; a NUL ends one.
TEST_F(GatewayImplThreadsTest, ReadsAMessageUpToItsFirstNul) {
    makeGateway();
    const NamedSemaphore done;
    std::string message = R"({"event-type": "cut", "syncsem": ")" + done.name() + "\"}";
    message += std::string("\0 rest", 6);
    ASSERT_TRUE(send(message));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"cut"});
}

/// A message may fill the queue's size; empty ones are skipped; a NUL ends one.
TEST_F(GatewayImplThreadsTest, ShowsNothingOfALongerMessageInAShorterOne) {
    makeGateway();
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"event-type": "long", "pad": ")" + std::string(500, 'x') + "\"}"));
    ASSERT_TRUE(send(R"({"event-type": "short"})"));
    ASSERT_TRUE(send(R"({"event-type": "last", "syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"long", "short", "last"}));
}

/// A queue that cannot be opened or queried ends the receiving thread only: "mq_open failed ",
/// "mq_getattr failed ".
TEST_F(GatewayImplThreadsTest, EndsOnlyTheReceivingThreadWhenTheQueueCannotBeOpened) {
    GatewayImplPeer::setQueueName("/no/queue");
    OutputCapture capture;
    m_gateway = std::make_unique<GatewayImpl>();
    EXPECT_EQ(GatewayImplPeer::joinReceiver(*m_gateway), 1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_open failed : Permission denied\n");
    m_gateway->Init(m_db);
    m_gateway->Log(R"({"event-type": "kept"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"kept"});
}

/// A queue that cannot be opened or queried ends the receiving thread only: "mq_open failed ",
/// "mq_getattr failed ".
TEST_F(GatewayImplThreadsTest, EndsOnlyTheReceivingThreadWhenTheQueueCannotBeQueried) {
    createQueue();
    SystemCallFaults::getAttributesError = EBADF;
    OutputCapture capture;
    m_gateway = std::make_unique<GatewayImpl>();
    EXPECT_EQ(GatewayImplPeer::joinReceiver(*m_gateway), 1);
    capture.stop();
    SystemCallFaults::clear();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_getattr failed : Bad file descriptor\n");
    EXPECT_FALSE(Queue(m_queueName, O_WRONLY).isOpen()) << "the queue is left behind";
    m_gateway->Init(m_db);
    m_gateway->Log(R"({"event-type": "kept"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"kept"});
}

/// A receive error waits 200 ms and goes on; an interruption goes on at once.
TEST_F(GatewayImplThreadsTest, WaitsAndGoesOnAfterAReceiveError) {
    createQueue();
    SystemCallFaults::receiveError = EMSGSIZE;
    SystemCallFaults::receiveFailures = 2;
    OutputCapture capture;
    makeGateway();
    EXPECT_TRUE(sendAndWait("after"));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:mq_receive failed : Message too long\n"
              "kivGateway:mq_receive failed : Message too long\n");
    EXPECT_EQ(SystemCallFaults::longestSleep, 200000u);
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"after"});
}

/// A receive error waits 200 ms and goes on; an interruption goes on at once.
TEST_F(GatewayImplThreadsTest, GoesOnSilentlyWhenReceivingIsInterrupted) {
    createQueue();
    SystemCallFaults::receiveError = EINTR;
    SystemCallFaults::receiveFailures = 3;
    OutputCapture capture;
    makeGateway();
    EXPECT_TRUE(sendAndWait("after"));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"after"});
}

/// The receiving thread is named "GatewayThread".
TEST_F(GatewayImplThreadsTest, NamesTheReceivingThread) {
    makeEarlyGateway();
    EXPECT_TRUE(WaitUntil([] { return hasThreadNamed("GatewayThread"); }));
}

/// Neither of its threads takes the alarm.
TEST_F(GatewayImplThreadsTest, LeavesTheAlarmToTheThreadThatMadeIt) {
    const auto thatTakeTheAlarm = [] {
        std::set<std::string> threads;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const std::string status = TempDir::readFile(task.path().string() + "/status");
            const std::size_t at = status.find("SigBlk:");
            if (at == std::string::npos) continue;
            const auto blocked = std::stoull(status.substr(at + 7), nullptr, 16);
            if ((blocked & (1ULL << (SIGALRM - 1))) == 0) threads.insert(task.path().string());
        }
        return threads;
    };
    const std::set<std::string> before = thatTakeTheAlarm();
    makeGateway();
    ASSERT_TRUE(GatewayImplPeer::isReceiverStarted(*m_gateway));
    ASSERT_TRUE(GatewayImplPeer::isStorerStarted(*m_gateway));
    for (const std::string& thread : thatTakeTheAlarm()) {
        EXPECT_EQ(before.count(thread), 1u) << "the receiving thread or the storing one";
    }
    EXPECT_EQ(storedFor(R"({"event-type": "x"})").optString("event-type"), "x") << "both run";
}

// --- storing --------------------------------------------------------------------------------

/// The storing thread looks every 200 ms and stores a backlog in order.
TEST_F(GatewayImplThreadsTest, LooksForEventsEveryTwoHundredMilliseconds) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "x"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
    EXPECT_EQ(SystemCallFaults::longestSleep, 200000u);
}

/// The storing thread looks every 200 ms and stores a backlog in order.
TEST_F(GatewayImplThreadsTest, StoresABacklogOfSeveralBatchesInOrder) {
    makeGateway();
    holdStoring();
    std::vector<std::string> expected;
    for (int i = 0; i < 700; ++i) {
        expected.push_back("e" + std::to_string(i));
        m_gateway->Log(R"({"event-type": ")" + expected.back() + R"(", "kernel-time": 1})");
    }
    {
        const std::lock_guard<std::mutex> lock(GatewayImpl::m_QueueMutex);
        EXPECT_EQ(GatewayImpl::m_Queue.size(), 700u);
    }
    SystemCallFaults::holdSleeps = false;
    EXPECT_EQ(storedTypes(), expected);
}

/// An event with a single quote is lost alone; other texts are stored unaltered.
TEST_F(GatewayImplThreadsTest, LosesOnlyTheEventWithASingleQuoteInItsType) {
    makeGateway();
    holdStoring();  // all in one batch
    OutputCapture capture;
    m_gateway->Log(R"({"event-type": "before"})");
    m_gateway->Log(R"({"event-type": "it's"})");
    m_gateway->Log(R"({"event-type": "x'); DELETE FROM Events; --"})");
    m_gateway->Log(R"({"event-type": "x", "data": {"text": "don't"}})");
    m_gateway->Log(R"({"event-type": "after"})");
    SystemCallFaults::holdSleeps = false;
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"before", "after"}));
    capture.stop();
    const std::string errors = capture.errWithoutPrefixes();
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 3) << errors;
    EXPECT_EQ(errors.rfind("kivDB: SQL error (insert event): ", 0), 0u) << errors;
}

/// An event with a single quote is lost alone; other texts are stored unaltered.
TEST_F(GatewayImplThreadsTest, StoresDoubleQuotesAndBackslashesUnaltered) {
    const JsonObject event = storedFor(R"({"event-type": "a\"b\\c", "data": {"t": "\"\\\n"}})");
    EXPECT_EQ(event.optString("event-type"), "a\"b\\c");
    EXPECT_EQ(event.getObject("data").optString("t"), "\"\\\n");
}

/// A store above its minimum asks for an upload.
TEST_F(GatewayImplThreadsTest, AsksForAnEventsUploadOnceTheStoreIsAboveItsMinimum) {
    configure(R"({"kiv_tou": true, "upload_events": {"min-size": 300}})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "small"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"small"});
    EXPECT_TRUE(askedOfUpload().empty());
    m_gateway->Log(R"({"event-type": "large", "data": {"pad": ")" + std::string(300, 'x') + "\"}}");
    EXPECT_TRUE(WaitUntil([this] {
        return askedOfUpload() == Messages{{UploadImpl::UploadEvents, 0}};
    }));
}

/// Several threads may log at once.
TEST_F(GatewayImplThreadsTest, StoresTheEventsOfSeveralThreads) {
    makeGateway();
    std::vector<std::thread> senders;
    for (int s = 0; s < 4; ++s) {
        senders.emplace_back([this, s] {
            for (int i = 0; i < 50; ++i) {
                m_gateway->Log(R"({"event-type": "s)" + std::to_string(s) +
                               R"(", "data": {"number": )" + std::to_string(i) + "}}");
            }
        });
    }
    for (std::thread& sender : senders) sender.join();
    const auto all = stored();
    ASSERT_EQ(all.size(), 200u);
    std::vector<int> next(4, 0);
    for (const Row& row : all) {
        const auto sender = static_cast<std::size_t>(row.type.at(1) - '0');
        EXPECT_EQ(JsonObject::parse(row.data).getObject("data").optInteger("number", -1),
                  next.at(sender)++);
    }
}

/// A store that cannot be opened does not stop the handling; its events are kept.
TEST_F(GatewayImplThreadsTest, KeepsHandlingMessagesWhenTheStoreCannotBeOpened) {
    makeEarlyGateway();
    OutputCapture capture;
    m_gateway->Init(m_dir.file("missing/Db"));
    const NamedSemaphore done;
    m_gateway->Log(R"({"event-type": "kept", "syncsem": ")" + done.name() + "\"}");
    EXPECT_EQ(done.value(), 1);
    m_gateway->Init(m_db);
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"kept"});
    capture.stop();
    EXPECT_NE(capture.err(), "");
}

// --- exceptions -----------------------------------------------------------------------------

/// An exception gets a line, wakes the sender of a read event and ends no thread.
TEST_F(GatewayImplThreadsTest, SurvivesAnExceptionWhileAnEventIsHandledAndWakesTheSender) {
    makeGateway();
    const NamedSemaphore done;
    GatewayImpl::SetVerbose(true);
    OutputCapture capture;
    {
        const PoisonedOutput poison(" will be sent", [] { GatewayImpl::SetVerbose(false); });
        EXPECT_TRUE(send(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}"));
        EXPECT_TRUE(done.wait());
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:Event could not be handled: poisoned\n");
    ASSERT_TRUE(send(R"({"event-type": "next", "syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"next"});
}

/// An exception gets a line, wakes the sender of a read event and ends no thread.
TEST_F(GatewayImplThreadsTest, SurvivesAnExceptionWhileAMessageIsRead) {
    makeGateway();
    const NamedSemaphore done;
    GatewayImpl::SetVerbose(true);
    OutputCapture capture;
    {
        const PoisonedOutput poison(" message received: ", [] { GatewayImpl::SetVerbose(false); });
        EXPECT_TRUE(send(R"({"event-type": "x"})"));
        EXPECT_TRUE(send(R"({"event-type": "next", "syncsem": ")" + done.name() + "\"}"));
        EXPECT_TRUE(done.wait());
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:Message could not be handled: poisoned\n");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"next"});
}

// --- the end --------------------------------------------------------------------------------

/// At its end the queue is closed and unlinked, told when verbose.
TEST_F(GatewayImplThreadsTest, ClosesAndUnlinksTheQueueAtItsEnd) {
    createQueue();
    const auto before = openDescriptors();
    m_gateway = std::make_unique<GatewayImpl>();
    ASSERT_TRUE(WaitUntil([&] { return openDescriptors() > before; }));
    m_gateway.reset();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(Queue(m_queueName, O_WRONLY).isOpen());
}

/// At its end the queue is closed and unlinked, told when verbose.
TEST_F(GatewayImplThreadsTest, TellsOfItsEndWhenVerbose) {
    createQueue();
    GatewayImpl::SetVerbose(true);
    OutputCapture started;
    m_gateway = std::make_unique<GatewayImpl>();
    EXPECT_TRUE(WaitUntil([&] { return started.out().find("curmsgs") != std::string::npos; }));
    started.stop();
    OutputCapture capture;
    m_gateway.reset();
    capture.stop();
    EXPECT_EQ(replaced(capture.outWithoutPrefixes(), "Close mqueue [0-9]+", "Close mqueue N"),
              "kivGateway:Gateway thread exited\n"
              "kivGateway:Unlink mqueue " +
                  m_queueName +
                  "\n"
                  "kivGateway:Close mqueue N\n"
                  "kivGateway:Gateway logging thread exited\n");
    EXPECT_EQ(capture.err(), "");
}

/// Events that still wait are discarded; the message under way is finished.
TEST_F(GatewayImplThreadsTest, DiscardsTheEventsThatStillWait) {
    makeGateway();
    holdStoring();
    m_gateway->Log(R"({"event-type": "x"})");
    m_gateway->Log(R"({"event-type": "y"})");
    {
        const std::lock_guard<std::mutex> lock(GatewayImpl::m_QueueMutex);
        ASSERT_EQ(GatewayImpl::m_Queue.size(), 2u);
    }
    m_gateway.reset();
    SystemCallFaults::clear();
    EXPECT_TRUE(GatewayImpl::m_Queue.empty());
    EXPECT_TRUE(rows().empty());
}

/// Events that still wait are discarded; the message under way is finished.
TEST_F(GatewayImplThreadsTest, FinishesTheMessageUnderWayBeforeItEnds) {
    makeGateway();
    const NamedSemaphore done;
    std::unique_lock<std::mutex> held(GatewayImpl::m_QueueMutex);  // the message waits for it
    ASSERT_TRUE(send(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(WaitUntil([] { return GatewayImpl::latestEvent() != nullptr; }));
    std::atomic<bool> ended{false};
    std::thread ender([&] {
        m_gateway.reset();
        ended = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return ended.load(); }, std::chrono::milliseconds(50)));
    held.unlock();
    ender.join();
    EXPECT_EQ(done.value(), 1);
}

/// Neither thread can be cancelled in the midst of a message or of a batch.
TEST_F(GatewayImplThreadsTest, CannotBeCancelledInTheMidstOfAMessage) {
    makeGateway();
    const NamedSemaphore done;
    GatewayImpl::SetVerbose(true);
    HoldingOutput output(" will be sent");
    ASSERT_TRUE(send(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(WaitUntil([&] { return output.holds(); }));
    std::atomic<bool> ended{false};
    std::thread ender([&] {
        m_gateway.reset();
        ended = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return ended.load(); }, std::chrono::milliseconds(50)));
    EXPECT_EQ(GatewayImpl::latestEvent(), nullptr);
    output.release();
    ender.join();
    EXPECT_NE(GatewayImpl::latestEvent(), nullptr) << "the message was handled to its end";
    EXPECT_EQ(done.value(), 1);
}

/// Neither thread can be cancelled in the midst of a message or of a batch.
TEST_F(GatewayImplThreadsTest, CannotBeCancelledWhileItStores) {
    makeGateway();
    GatewayImpl::SetVerbose(false);
    DB::setVerbose(true);
    HoldingOutput output("adding events");
    m_gateway->Log(R"({"event-type": "x"})");
    ASSERT_TRUE(WaitUntil([&] { return output.holds(); }));
    std::atomic<bool> ended{false};
    std::thread ender([&] {
        m_gateway.reset();
        ended = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return ended.load(); }, std::chrono::milliseconds(50)));
    output.release();
    ender.join();
    DB::setVerbose(false);
    EXPECT_EQ(rows().size(), 1u) << "the batch was stored to its end";
}

/// It ends while receiving fails, under its own holder, and again and again.
TEST_F(GatewayImplThreadsTest, EndsWhileReceivingFails) {
    createQueue();
    SystemCallFaults::receiveError = EBADF;
    SystemCallFaults::receiveFailures = std::numeric_limits<int>::max();
    OutputCapture capture;
    makeGateway();
    EXPECT_TRUE(WaitUntil([&] { return capture.err().find('\n') != std::string::npos; }));
    m_gateway.reset();
    capture.stop();
    EXPECT_FALSE(Queue(m_queueName, O_WRONLY).isOpen());
}

/// It ends while receiving fails, under its own holder, and again and again.
TEST_F(GatewayImplThreadsTest, CanBeMadeAndEndedAgainAndAgain) {
    for (int i = 0; i < 20; ++i) {
        makeEarlyGateway();
        if (i % 2 == 0) m_gateway->Init(m_db);
        m_gateway.reset();
        ::mq_unlink(m_queueName.c_str());
    }
    makeGateway();
    m_gateway->Log(R"({"event-type": "x"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
}

/// It ends while receiving fails, under its own holder, and again and again.
TEST_F(GatewayImplThreadsTest, EndsUnderTheHolderThatMadeIt) {
    createQueue();
    const NamedSemaphore done;
    {
        const Singleton<GatewayImpl> gateway;
        gateway->Init(m_db);
        ASSERT_TRUE(send(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}"));
        ASSERT_TRUE(done.wait());
        ASSERT_TRUE(send(R"({"event-type": "y", "syncsem": ")" + done.name() + "\"}"));
    }
    EXPECT_EQ(Singleton<GatewayImpl>::m_pImpl, nullptr);
    EXPECT_FALSE(Queue(m_queueName, O_WRONLY).isOpen());
}

/// Threads that cannot be started are told and survived.
TEST_F(GatewayImplThreadsTest, SaysWhichThreadsCannotBeStartedAndLivesOn) {
    createQueue();
    OutputCapture capture;
    {
        const NoThreads none;
        m_gateway = std::make_unique<GatewayImpl>();
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:Cannot start the storing thread: Resource temporarily unavailable\n"
              "kivGateway:Cannot start the receiving thread: Resource temporarily unavailable\n");
    EXPECT_FALSE(GatewayImplPeer::isStorerStarted(*m_gateway));
    EXPECT_FALSE(GatewayImplPeer::isReceiverStarted(*m_gateway));
    m_gateway->Init(m_db);
    const NamedSemaphore done;
    m_gateway->Log(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}");
    EXPECT_EQ(done.value(), 1);
    m_gateway.reset();
}

/// Threads that could not be started are started later, and store what waited.
TEST_F(GatewayImplThreadsTest, StartsMissingThreadsLater) {
    createQueue();
    OutputCapture capture;
    {
        const NoThreads none;
        m_gateway = std::make_unique<GatewayImpl>();
        m_gateway->Init(m_db);
        EXPECT_FALSE(m_gateway->startMissingThread());
    }
    m_gateway->Log(R"({"event-type": "waited"})");
    EXPECT_TRUE(m_gateway->startMissingThread());
    EXPECT_EQ(stored().size(), 1u);
    capture.stop();
    m_gateway.reset();
}

/// A store that another process locks loses no event.
TEST_F(GatewayImplThreadsTest, KeepsEveryEventWhileAnotherProcessLocksTheStore) {
    makeGateway();
    sqlite3* other = nullptr;
    ASSERT_EQ(::sqlite3_open(m_db.c_str(), &other), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> owner(other, ::sqlite3_close);
    ASSERT_EQ(::sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    OutputCapture capture;
    for (int i = 0; i < 20; ++i)
        m_gateway->Log(R"({"event-type": "locked.)" + std::to_string(i) + "\"}");
    const std::string line = "SQL error (begin transaction): database is locked";
    EXPECT_TRUE(WaitUntil([&] { return capture.err().find(line) != std::string::npos; }));
    ASSERT_EQ(::sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    capture.stop();
    EXPECT_EQ(stored().size(), 20u);
}

/// With 512 events waiting receiving pauses; none is lost.
TEST_F(GatewayImplThreadsTest, StopsReceivingWhileTooManyEventsWaitAndLosesNone) {
    makeGateway();
    holdStoring();  // the storing thread's, and then the receiving thread's
    const auto waiting = [] {
        const std::lock_guard<std::mutex> lock(GatewayImpl::m_QueueMutex);
        return GatewayImpl::m_Queue.size();
    };
    std::thread sender([this] {
        const Queue queue(m_queueName, O_WRONLY);
        for (int i = 0; i < 600; ++i) queue.send(R"({"event-type": "flood"})");
    });
    EXPECT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps > 1; }));
    EXPECT_EQ(waiting(), 512u);
    SystemCallFaults::holdSleeps = false;
    sender.join();
    EXPECT_TRUE(WaitUntil(
        [this] { return query("SELECT COUNT(*) FROM Events WHERE type='flood'")[0][0] == "600"; }));
}

/// While a batch is stored, receiving goes on for up to a batch more; the order stays.
TEST_F(GatewayImplThreadsTest, GoesOnReceivingWhileABatchIsStored) {
    createQueue();
    for (const char* type : {"a", "b", "c", "d"})
        ASSERT_TRUE(send(R"({"event-type": ")" + std::string(type) + "\"}"));
    const Queue queue(m_queueName, O_RDONLY);
    std::unique_lock<std::mutex> batch(GatewayImpl::m_QueueMutex);
    makeGateway();
    EXPECT_TRUE(WaitUntil([&] { return queue.attributes().mq_curmsgs == 0; }));
    EXPECT_TRUE(GatewayImpl::m_Queue.empty());
    batch.unlock();
    EXPECT_TRUE(WaitUntil([this] { return rows().size() == 4; }))
        << "without a further message the receiving thread sleeps on what it holds";
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"a", "b", "c", "d"}));
}

/// An event whose sender waits, and every other thread's, waits for the batch.
TEST_F(GatewayImplThreadsTest, WaitsForTheBatchWithAnEventWhoseSenderWaits) {
    createQueue();
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"event-type": "a"})"));
    ASSERT_TRUE(send(R"({"event-type": "b", "syncsem": ")" + done.name() + "\"}"));
    ASSERT_TRUE(send(R"({"event-type": "c"})"));
    const Queue queue(m_queueName, O_RDONLY);
    std::unique_lock<std::mutex> batch(GatewayImpl::m_QueueMutex);
    makeGateway();
    EXPECT_TRUE(WaitUntil([&] { return queue.attributes().mq_curmsgs == 1; }));
    EXPECT_FALSE(WaitUntil([&] { return done.value() > 0; }, std::chrono::milliseconds(50)));
    batch.unlock();
    EXPECT_TRUE(done.wait());
    EXPECT_TRUE(WaitUntil([this] { return rows().size() == 3; }));
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"a", "b", "c"}));
}

/// While a batch is stored, receiving goes on for up to a batch more; the order stays.
TEST_F(GatewayImplThreadsTest, HoldsAtMostABatchWhileOneIsStored) {
    constexpr int kRoom = 4;
    constexpr int kTaken = 256;  // 255 are set aside; with the last one in hand it waits
    createQueue(kRoom);
    // Finding no message, the receiving thread would wait for the batch with what it has.
    SystemCallFaults::waitForMessages = true;
    std::vector<std::string> expected;
    for (int i = 0; i < 300; ++i) expected.push_back("e" + std::to_string(i));
    makeGateway();
    std::unique_lock<std::mutex> batch(GatewayImpl::m_QueueMutex);
    std::atomic<int> sent{0};
    std::thread sender([&] {
        const Queue queue(m_queueName, O_WRONLY);
        for (const std::string& type : expected) {
            queue.send(R"({"event-type": ")" + type + "\"}");
            ++sent;
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return sent == kTaken + kRoom; }));
    EXPECT_FALSE(WaitUntil([&] { return sent > kTaken + kRoom; }, std::chrono::milliseconds(50)));
    batch.unlock();
    sender.join();
    SystemCallFaults::waitForMessages = false;
    EXPECT_TRUE(WaitUntil([this] { return rows().size() == 300; }));
    EXPECT_EQ(storedTypes(), expected);
}

/// Events that were set aside are stored although only refused messages follow.
TEST_F(GatewayImplThreadsTest, QueuesWhatItSetAsideAlsoWhileMessagesThatAreRefusedKeepComing) {
    makeGateway();
    {
        const std::lock_guard<std::mutex> batch(GatewayImpl::m_QueueMutex);
        std::thread([this] {
            GatewayImplPeer::handleReceived(*m_gateway, R"({"event-type": "a"})");
        }).join();
    }
    EXPECT_TRUE(GatewayImpl::m_Queue.empty());
    EXPECT_FALSE(GatewayImplPeer::isAnySetAside(*m_gateway)) << "asked before each message";
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"a"});
}

/// An exception in the middle of a batch rolls the batch back; it is stored later, once.
TEST_F(GatewayImplThreadsTest, StoresABatchOnceThatMetAnException) {
    makeGateway();
    holdStoring();  // all in one batch
    const std::vector<std::string> types = {"a", "poisoned", "c"};
    for (const std::string& type : types) m_gateway->Log(R"({"event-type": ")" + type + "\"}");
    DB::setVerbose(true);
    OutputCapture capture;
    {
        const PoisonedOutput output("'poisoned'", [] { DB::setVerbose(false); });
        SystemCallFaults::holdSleeps = false;
        EXPECT_TRUE(WaitUntil([this] { return rows().size() == 3; }));
    }
    capture.stop();
    EXPECT_NE(capture.err().find("kivGateway:Events could not be stored: poisoned"),
              std::string::npos);
    EXPECT_EQ(storedTypes(), types);
}

/// An event whose sender waits, and every other thread's, waits for the batch.
TEST_F(GatewayImplThreadsTest, HasOtherThreadsWaitForTheBatch) {
    makeGateway();
    std::unique_lock<std::mutex> batch(GatewayImpl::m_QueueMutex);
    std::atomic<bool> logged{false};
    std::thread caller([&] {
        m_gateway->Log(R"({"event-type": "own"})");
        logged = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return logged.load(); }, std::chrono::milliseconds(50)));
    batch.unlock();
    caller.join();
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"own"});
}

/// Stored events are freed when nothing waits.
TEST_F(GatewayImplThreadsTest, FreesStoredEventsWhenNothingWaits) {
    makeGateway();
    EXPECT_EQ(storedFor(R"({"event-type": "x"})").optString("event-type"), "x");
    EXPECT_TRUE(WaitUntil([this] { return GatewayImplPeer::storedInMemory(*m_gateway) == 0; }));
}

/// While events pour in, the next full batch gets up to 20 ms to gather.
TEST_F(GatewayImplThreadsTest, GathersABatchForTwentyMillisecondsWhileEventsPourIn) {
    makeGateway();
    storeFullBatchAndHold();
    logMany(255);
    SystemCallFaults::holdSleeps = false;
    EXPECT_TRUE(WaitUntil([this] { return countStored() == "511"; }));
    EXPECT_EQ(SystemCallFaults::sleepsBelowAMillisecond, 100) << "200 us each, before it stores";
}

/// While events pour in, the next full batch gets up to 20 ms to gather.
TEST_F(GatewayImplThreadsTest, GathersNoLongerThanUntilTheBatchIsFull) {
    makeGateway();
    storeFullBatchAndHold();
    logMany(256);
    DB::setVerbose(true);
    HoldingOutput output("adding events");
    SystemCallFaults::holdSleeps = false;
    EXPECT_TRUE(WaitUntil([&] { return output.holds(); }));
    EXPECT_EQ(SystemCallFaults::sleepsBelowAMillisecond, 1);
    output.release();
    EXPECT_TRUE(WaitUntil([this] { return countStored() == "512"; }));
    DB::setVerbose(false);
}

/// After five seconds without an event free memory is given back, once.
TEST_F(GatewayImplThreadsTest, GivesFreeMemoryBackOnceInARestOfFiveSeconds) {
    constexpr int pollsOfARest = 25;  // of 200 ms
    makeGateway();
    SystemCallFaults::shortenSleeps = true;
    EXPECT_TRUE(WaitUntil([] { return SystemCallFaults::heapTrims == 1; }));
    EXPECT_GE(SystemCallFaults::sleeps, pollsOfARest - 1);
    const int sleeps = SystemCallFaults::sleeps;
    EXPECT_TRUE(WaitUntil([&] { return SystemCallFaults::sleeps > sleeps + 2 * pollsOfARest; }));
    EXPECT_EQ(SystemCallFaults::heapTrims, 1);
    logMany(1);
    EXPECT_TRUE(WaitUntil([] { return SystemCallFaults::heapTrims == 2; })) << "after an event";
}

/// A backlog is stored in full batches.
TEST_F(GatewayImplThreadsTest, StoresABacklogInFullBatches) {
    makeGateway();
    holdStoring();
    for (int i = 0; i < 600; ++i) m_gateway->Log(R"({"event-type": "backlog"})");
    DB::setVerbose(true);
    OutputCapture capture;
    SystemCallFaults::holdSleeps = false;
    EXPECT_TRUE(WaitUntil([this] {
        return query("SELECT COUNT(*) FROM Events WHERE type='backlog'")[0][0] == "600";
    }));
    DB::setVerbose(false);
    capture.stop();
    const std::string out = capture.out();
    const std::regex batch("Take lock for adding events");
    EXPECT_EQ(
        std::distance(std::sregex_iterator(out.begin(), out.end(), batch), std::sregex_iterator()),
        3)
        << "256, 256 and the rest";
}

}  // namespace
