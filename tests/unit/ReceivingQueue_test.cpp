#include "ReceivingQueue.h"

#include "ClassLog.h"
#include "WorkerThread.h"
#include "support/KivTest.h"
#include "support/MessageQueue.h"
#include "support/OutputCapture.h"
#include "support/SystemCallFaults.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <filesystem>
#include <iterator>
#include <memory>
#include <regex>
#include <string>

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class ReceivingQueueTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        SystemCallFaults::clear();
    }

    void TearDown() override {
        SystemCallFaults::clear();
        m_log.setVerbose(false);
        m_queue.reset();
        ::mq_unlink(m_name.c_str());
        KivTest::TearDown();
    }

    void open() { m_queue = std::make_unique<ReceivingQueue>(m_name, m_log); }

    /// On a queue for small messages, ready to receive.
    void openForMessages(long maxMessages = 4, long messageSize = 16) {
        ASSERT_TRUE(makeQueue(m_name, maxMessages, messageSize));
        open();
        ASSERT_TRUE(m_queue->makeRoom());
    }

    bool send(const std::string& message) const { return Queue(m_name, O_WRONLY).send(message); }

    ClassLog m_log{"kivGateway:"};
    const std::string m_name = uniqueName("receiving");
    std::unique_ptr<ReceivingQueue> m_queue;
};

// --- opening --------------------------------------------------------------------------------

/// A queue that is not there is made with the system's defaults.
TEST_F(ReceivingQueueTest, CreatesTheQueueWithTheDefaultsOfTheSystem) {
    open();
    ASSERT_TRUE(m_queue->isOpen());
    const mq_attr created = Queue(m_name, O_WRONLY).attributes();
    const auto systemDefault = [](const char* name) {
        return std::stol(TempDir::readFile(std::string("/proc/sys/fs/mqueue/") + name));
    };
    EXPECT_EQ(created.mq_maxmsg, systemDefault("msg_default"));
    EXPECT_EQ(created.mq_msgsize, systemDefault("msgsize_default"));
}

/// A queue that it makes has mode 0660 less the mask; one that it reuses keeps its own.
TEST_F(ReceivingQueueTest, CreatesTheQueueForItsUserAndGroupLessTheMask) {
    {
        const NoModeMask none;
        open();
    }
    EXPECT_EQ(Queue(m_name, O_WRONLY).mode(), mode_t{0660});
    m_queue.reset();
    {
        const NoModeMask none;
        ::umask(0027);
        open();
    }
    EXPECT_EQ(Queue(m_name, O_WRONLY).mode(), mode_t{0640});
}

/// A queue that it makes has mode 0660 less the mask; one that it reuses keeps its own.
TEST_F(ReceivingQueueTest, LeavesTheModeOfAQueueThatItReuses) {
    ASSERT_TRUE(makeQueue(m_name, 4, 16));
    const mode_t before = Queue(m_name, O_WRONLY).mode();
    ASSERT_NE(before, mode_t{0660});
    open();
    EXPECT_EQ(Queue(m_name, O_WRONLY).mode(), before);
}

/// Verbose, it says that it uses a queue that is there, and what the queue is like.
TEST_F(ReceivingQueueTest, SaysThatItReusesAQueueAndWhatItIsLike) {
    ASSERT_TRUE(makeQueue(m_name, 3, 256));
    m_log.setVerbose(true);
    OutputCapture capture;
    open();
    EXPECT_TRUE(m_queue->makeRoom());
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivGateway:mqueue already exists, reusing it...\n"
              "kivGateway: queue attributes are: flags:0x0  maxmsg: 3  msgsize: 256  curmsgs: 0\n");
    EXPECT_EQ(capture.err(), "");
}

/// Verbose, it says that it uses a queue that is there, and what the queue is like.
TEST_F(ReceivingQueueTest, SaysNothingOfReuseWhereItCreatedTheQueue) {
    m_log.setVerbose(true);
    OutputCapture capture;
    open();
    EXPECT_TRUE(m_queue->makeRoom());
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes().rfind("kivGateway: queue attributes are: ", 0), 0u);
}

/// A queue that cannot be opened or queried gets a line: "mq_open failed ", "mq_getattr failed ".
TEST_F(ReceivingQueueTest, SaysWhenTheQueueCannotBeOpened) {
    OutputCapture capture;
    {
        const ReceivingQueue queue("/no/queue", m_log);
        EXPECT_FALSE(queue.isOpen());
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_open failed : Permission denied\n");
    EXPECT_EQ(capture.out(), "");
}

/// A queue that cannot be opened or queried gets a line: "mq_open failed ", "mq_getattr failed ".
TEST_F(ReceivingQueueTest, SaysWhenTheQueueCannotBeQueried) {
    ASSERT_TRUE(makeQueue(m_name, 4, 16));
    open();
    SystemCallFaults::getAttributesError = EBADF;
    OutputCapture capture;
    EXPECT_FALSE(m_queue->makeRoom());
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_getattr failed : Bad file descriptor\n");
}

// --- receiving ------------------------------------------------------------------------------

/// Messages come in their order, with their sizes, those that were sent before it too.
TEST_F(ReceivingQueueTest, ReceivesMessagesInTheirOrder) {
    ASSERT_TRUE(makeQueue(m_name, 4, 16));
    ASSERT_TRUE(send("before"));
    open();
    ASSERT_TRUE(m_queue->makeRoom());
    ASSERT_TRUE(send("after"));
    ASSERT_EQ(m_queue->receiveNext(), 6);
    EXPECT_STREQ(m_queue->text(), "before");
    ASSERT_EQ(m_queue->receiveNext(), 5);
    EXPECT_STREQ(m_queue->text(), "after");
}

/// A message may fill the queue's size; an empty one has size 0; the text ends at a NUL, and
/// holds nothing of a longer message before it.
TEST_F(ReceivingQueueTest, ReceivesAMessageThatFillsTheQueuesMessageSize) {
    openForMessages();
    const std::string full(16, 'x');
    ASSERT_TRUE(send(full));
    ASSERT_TRUE(send("short"));
    ASSERT_EQ(m_queue->receiveNext(), 16);
    EXPECT_EQ(m_queue->text(), full);
    ASSERT_EQ(m_queue->receiveNext(), 5);
    EXPECT_STREQ(m_queue->text(), "short");
}

/// A message may fill the queue's size; an empty one has size 0; the text ends at a NUL, and
/// holds nothing of a longer message before it.
TEST_F(ReceivingQueueTest, ReceivesEmptyMessagesAndOnesWithANul) {
    openForMessages();
    ASSERT_TRUE(send("long text"));
    ASSERT_TRUE(send(""));
    ASSERT_TRUE(send(std::string("cut\0 rest", 9)));
    ASSERT_EQ(m_queue->receiveNext(), 9);
    EXPECT_EQ(m_queue->receiveNext(), 0);
    EXPECT_STREQ(m_queue->text(), "");
    EXPECT_EQ(m_queue->receiveNext(), 9);
    EXPECT_STREQ(m_queue->text(), "cut");
}

/// A message that is there is taken without waiting; where there is none, nobody waits.
TEST_F(ReceivingQueueTest, TakesAMessageThatIsThereWithoutWaiting) {
    openForMessages();
    OutputCapture capture;
    EXPECT_EQ(m_queue->receiveWaiting(), -1);
    EXPECT_TRUE(send("there"));
    EXPECT_TRUE(send(""));
    EXPECT_EQ(m_queue->receiveWaiting(), 5);
    EXPECT_STREQ(m_queue->text(), "there");
    EXPECT_EQ(m_queue->receiveWaiting(), 0);
    EXPECT_EQ(m_queue->receiveWaiting(), -1);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// A receive error gets a line and a sleep of 200 ms; an interruption gets neither.
TEST_F(ReceivingQueueTest, SaysAReceiveErrorAndSleeps) {
    openForMessages();
    SystemCallFaults::receiveError = EMSGSIZE;
    SystemCallFaults::receiveFailures = 1;
    OutputCapture capture;
    EXPECT_EQ(m_queue->receiveNext(), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_receive failed : Message too long\n");
    EXPECT_EQ(SystemCallFaults::longestSleep, 200000u);
    EXPECT_EQ(SystemCallFaults::sleeps, 1);
}

/// A receive error gets a line and a sleep of 200 ms; an interruption gets neither.
TEST_F(ReceivingQueueTest, SaysNothingOfAnInterruption) {
    openForMessages();
    SystemCallFaults::receiveError = EINTR;
    SystemCallFaults::receiveFailures = 1;
    OutputCapture capture;
    EXPECT_EQ(m_queue->receiveNext(), -1);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(SystemCallFaults::sleeps, 0);
}

/// A thread that waits for a message can be cancelled; the queue goes with it.
TEST_F(ReceivingQueueTest, EndsWithTheThreadThatWaitsForAMessage) {
    std::atomic<bool> waits{false};
    WorkerThread thread;
    ASSERT_EQ(thread.start("KivReceiver",
                           [&] {
                               ReceivingQueue queue(m_name, m_log);
                               if (!queue.makeRoom()) return 1;
                               waits = true;
                               for (;;) queue.receiveNext();
                           }),
              0);
    EXPECT_TRUE(WaitUntil([&] { return waits.load(); }));
    thread.cancel();
    EXPECT_EQ(thread.join(), -1);
    EXPECT_FALSE(Queue(m_name, O_WRONLY).isOpen());
}

// --- the end --------------------------------------------------------------------------------

/// At its end the name is unlinked and the queue closed, told when verbose, failures always.
TEST_F(ReceivingQueueTest, UnlinksItsNameAndClosesTheQueue) {
    ASSERT_TRUE(makeQueue(m_name, 4, 16));
    const auto before = openDescriptors();
    open();
    m_log.setVerbose(true);
    EXPECT_EQ(openDescriptors(), before + 1);
    std::string out;
    std::string err;
    {
        OutputCapture capture;
        m_queue.reset();
        capture.stop();
        out = capture.outWithoutPrefixes();
        err = capture.err();
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(Queue(m_name, O_WRONLY).isOpen());
    EXPECT_EQ(std::regex_replace(out, std::regex("mqueue [0-9]+"), "mqueue N"),
              "kivGateway:Unlink mqueue " + m_name + "\nkivGateway:Close mqueue N\n");
    EXPECT_EQ(err, "");
}

/// At its end the name is unlinked and the queue closed, told when verbose, failures always.
TEST_F(ReceivingQueueTest, SaysWhenTheQueueCannotBeUnlinked) {
    open();
    ASSERT_EQ(::mq_unlink(m_name.c_str()), 0);
    OutputCapture capture;
    m_queue.reset();
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:mq_unlink failed : No such file or directory\n");
}

/// At its end the name is unlinked and the queue closed, told when verbose, failures always.
TEST_F(ReceivingQueueTest, SaysWhenTheQueueCannotBeClosed) {
    open();
    SystemCallFaults::closeQueueError = EBADF;
    OutputCapture capture;
    m_queue.reset();
    capture.stop();
    SystemCallFaults::clear();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_close failed : Bad file descriptor\n");
}

}  // namespace
