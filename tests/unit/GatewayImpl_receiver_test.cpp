#include "GatewayImpl.h"

#include "support/GatewaySetup.h"
#include "support/OutputCapture.h"
#include "support/SystemCallFaults.h"
#include "support/WaitUntil.h"

#include <chrono>
#include <string>

#include <errno.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

/// As long as it lives this user may make no message queue.
class NoQueues {
  public:
    NoQueues() {
        ::getrlimit(RLIMIT_MSGQUEUE, &m_before);
        rlimit none = m_before;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_MSGQUEUE, &none);
    }
    ~NoQueues() { ::setrlimit(RLIMIT_MSGQUEUE, &m_before); }
    NoQueues(const NoQueues&) = delete;
    NoQueues& operator=(const NoQueues&) = delete;

  private:
    rlimit m_before{};
};

/// A gateway whose receiving thread ends because of its queue.
class GatewayImplReceiverTest : public GatewaySetup {
  protected:
    static std::size_t count(OutputCapture& capture, const std::string& line) {
        const std::string text = capture.errWithoutPrefixes();
        std::size_t found = 0;
        for (std::size_t at = text.find(line); at != std::string::npos;
             at = text.find(line, at + 1)) {
            ++found;
        }
        return found;
    }

    /// Its receiving thread serves the queue: an event that is sent is stored.
    void expectToReceive() {
        // The queue alone proves nothing: a thread that is about to end takes it along.
        ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::receives > 0; }));
        const NamedSemaphore done;
        ASSERT_TRUE(send(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}"));
        EXPECT_TRUE(done.wait());
    }

    /// Makes a gateway whose receiving thread ends once. @return the rest before the one after next
    std::chrono::milliseconds restAfterOneFailure() {
        SystemCallFaults::getAttributesError = EBADF;
        const OutputCapture capture;
        m_gateway = std::make_unique<GatewayImpl>();
        GatewayImplPeer::joinReceiver(*m_gateway);
        return GatewayImplPeer::receiverRest(*m_gateway);
    }
};

/// Before it is started again 10 s pass, then twice as long each time, at most 300 s.
TEST_F(GatewayImplReceiverTest, RestsTenSecondsAndDoublesUpToThreeHundred) {
    EXPECT_EQ(GatewayImplPeer::firstReceiverRest(), 10s);
    EXPECT_EQ(restAfterOneFailure(), 20s);
    GatewayImplPeer::setFirstReceiverRest(160s);
    EXPECT_EQ(restAfterOneFailure(), 300s);
    GatewayImplPeer::setFirstReceiverRest(300s);
    EXPECT_EQ(restAfterOneFailure(), 300s);
}

/// It is not started again before its rest has passed.
TEST_F(GatewayImplReceiverTest, IsNotStartedAgainTooEarly) {
    SystemCallFaults::shortenSleeps = true;
    SystemCallFaults::getAttributesError = EBADF;
    OutputCapture capture;
    m_gateway = std::make_unique<GatewayImpl>();
    EXPECT_TRUE(WaitUntil([] { return SystemCallFaults::sleeps > 200; }));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivGateway:mq_getattr failed : Bad file descriptor\n");
}

/// A receiving thread whose queue cannot be queried is started again until it can be, with the
/// line each time.
TEST_F(GatewayImplReceiverTest, ComesBackWhenTheQueueCanBeQueried) {
    GatewayImplPeer::setFirstReceiverRest(1ms);
    SystemCallFaults::shortenSleeps = true;
    SystemCallFaults::getAttributesError = EBADF;
    OutputCapture capture;
    m_gateway = std::make_unique<GatewayImpl>();
    m_gateway->Init(m_db);
    const std::string line = "kivGateway:mq_getattr failed : Bad file descriptor\n";
    EXPECT_TRUE(WaitUntil([&] { return count(capture, line) >= 3; }));
    SystemCallFaults::getAttributesError = 0;
    expectToReceive();
    capture.stop();
    EXPECT_EQ(GatewayImplPeer::receiverRest(*m_gateway), 1ms) << "from the beginning again";
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
}

/// A receiving thread whose queue cannot be made is started again until it can be.
TEST_F(GatewayImplReceiverTest, ComesBackWhenTheUserMayHaveAQueueAgain) {
    GatewayImplPeer::setFirstReceiverRest(1ms);
    SystemCallFaults::shortenSleeps = true;
    OutputCapture capture;
    {
        const NoQueues none;
        m_gateway = std::make_unique<GatewayImpl>();
        m_gateway->Init(m_db);
        const std::string line = "kivGateway:mq_open failed : Too many open files\n";
        EXPECT_TRUE(WaitUntil([&] { return count(capture, line) >= 3; }));
    }
    expectToReceive();
    capture.stop();
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
}

/// A gateway ends at once also while its receiving thread is started again and again.
TEST_F(GatewayImplReceiverTest, EndsWhileItsReceivingThreadIsStartedAgain) {
    GatewayImplPeer::setFirstReceiverRest(0ms);
    SystemCallFaults::shortenSleeps = true;
    SystemCallFaults::getAttributesError = EBADF;
    const OutputCapture capture;
    for (int i = 0; i < 20; ++i) {
        m_gateway = std::make_unique<GatewayImpl>();
        SystemCallFaults::sleeps = 0;
        EXPECT_TRUE(WaitUntil([i] { return SystemCallFaults::sleeps > i % 4; }));
        m_gateway.reset();
    }
}

}  // namespace
