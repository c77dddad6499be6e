#include "NetworkHelper.h"

#include "KernelTime.h"
#include "Services.h"
#include "support/FakeCommands.h"
#include "support/KivTest.h"
#include "support/NetworkHelperPeer.h"
#include "support/NetworkHooks.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cstdint>

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

// ---- Network status ------------------------------------------------------------------------

class NetworkStatusTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        m_commands.setOutput("ping", "");
        m_commands.setOutput("ifconfig", "");
    }

    static std::string plain(const std::string& text) {
        return OutputCapture::withoutPrefixes(text);
    }

    static std::int32_t now() {
        return static_cast<std::int32_t>(KernelTime::getTimeMonotonicAsInt64());
    }

    void networkIsUp() { m_commands.setOutput("ping", "PING " + m_host + " (192.0.2.1)\n"); }
    void networkIsDown() { m_commands.setOutput("ping", ""); }

    std::size_t pings() const { return m_commands.calls("ping").size(); }

    const std::string m_host = Services::connectivityHost();
    TempDir m_directory;
    FakeCommands m_commands;
    NetworkHelper m_helper;
};

/// The network is unknown at first; an answer is valid for 60000 ms.
TEST_F(NetworkStatusTest, StartsUnknown) {
    EXPECT_FALSE(NetworkHelperPeer::available());
    EXPECT_EQ(NetworkHelperPeer::pollTime(), 0);
    EXPECT_EQ(NetworkHelperPeer::pollIntervalMs(m_helper), 60000);
}

/// The network is up when ping's output begins with "PING " and the connectivity host.
TEST_F(NetworkStatusTest, PingsTheConnectivityHost) {
    networkIsUp();
    const std::int32_t before = now();
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(m_commands.calls("ping"), Texts({"-c 1 " + m_host}));
    EXPECT_TRUE(NetworkHelperPeer::available());
    EXPECT_GE(NetworkHelperPeer::pollTime(), before);
    EXPECT_LE(NetworkHelperPeer::pollTime(), now());
}

/// The network is up when ping's output begins with "PING " and the connectivity host.
TEST_F(NetworkStatusTest, JudgesByTheBeginningOfTheOutput) {
    const std::pair<std::string, bool> outputs[] = {
        {"PING " + m_host, true},
        {"PING " + m_host + "more", true},
        {"PING " + m_host.substr(0, m_host.size() - 1), false},
        {"PING x" + m_host, false},
        {" PING " + m_host, false},
        {"ping " + m_host, false},
        {"ping: unknown host " + m_host, false},
        {"P", false},
        {"", false},
    };
    for (const auto& [output, available] : outputs) {
        m_commands.setOutput("ping", output);
        EXPECT_EQ(m_helper.IsNetworkAvailable(true), available) << output;
        EXPECT_EQ(NetworkHelperPeer::available(), available) << output;
    }
}

/// The network is unknown at first; an answer is valid for 60000 ms.
TEST_F(NetworkStatusTest, KeepsTheAnswerForTheInterval) {
    networkIsUp();
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    networkIsDown();
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    EXPECT_TRUE(NetworkHelper().IsNetworkAvailable(false));
    EXPECT_EQ(pings(), 1U);
}

/// The network is unknown at first; an answer is valid for 60000 ms.
TEST_F(NetworkStatusTest, KeepsABadAnswerToo) {
    EXPECT_FALSE(m_helper.IsNetworkAvailable(false));
    networkIsUp();
    EXPECT_FALSE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(pings(), 1U);
}

/// The network is unknown at first; an answer is valid for 60000 ms.
TEST_F(NetworkStatusTest, AsksAgainAfterTheInterval) {
    networkIsUp();
    NetworkHelperPeer::setStatus(false, now() - 55000);
    EXPECT_FALSE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(pings(), 0U);
    NetworkHelperPeer::setStatus(false, now() - 60001);
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(pings(), 1U);
}

/// The network is unknown at first; an answer is valid for 60000 ms.
TEST_F(NetworkStatusTest, KeepsAnAnswerOfExactlyTheInterval) {
    networkIsUp();
    // Only a call within one millisecond shows the boundary.
    bool kept = false;
    for (int attempt = 0; attempt < 50 && !kept; ++attempt) {
        const std::size_t before = pings();
        const std::int32_t start = now();
        NetworkHelperPeer::setStatus(false, start - 60000);
        m_helper.IsNetworkAvailable(false);
        const bool withinTheMillisecond = now() == start;
        kept = withinTheMillisecond && pings() == before;
    }
    EXPECT_TRUE(kept);
}

/// The network is unknown at first; an answer is valid for 60000 ms.
TEST_F(NetworkStatusTest, AsksAgainAfterThirtyDays) {
    networkIsUp();
    constexpr std::uint32_t thirtyDays = 2592000000U;
    const std::uint32_t then = static_cast<std::uint32_t>(now()) - thirtyDays;
    NetworkHelperPeer::setStatus(false, static_cast<std::int32_t>(then));
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(pings(), 1U);
}

/// Forced, it always pings.
TEST_F(NetworkStatusTest, AsksAgainWhenForced) {
    networkIsUp();
    EXPECT_TRUE(m_helper.IsNetworkAvailable(true));
    networkIsDown();
    EXPECT_FALSE(m_helper.IsNetworkAvailable(true));
    EXPECT_FALSE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(pings(), 2U);
}

/// The callback is called once, when the network is really seen, before the answer is stored.
TEST_F(NetworkStatusTest, CallsBackOnceWhenTheNetworkIsSeen) {
    int calls = 0;
    m_helper.RegisterCallback([&] { ++calls; });
    EXPECT_FALSE(m_helper.IsNetworkAvailable(true));
    EXPECT_EQ(calls, 0);
    networkIsUp();
    EXPECT_TRUE(m_helper.IsNetworkAvailable(true));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(m_helper.IsNetworkAvailable(true));
    EXPECT_EQ(calls, 1);
}

/// The callback is called once, when the network is really seen, before the answer is stored.
TEST_F(NetworkStatusTest, StoresTheAnswerAfterTheCallbackHasRun) {
    networkIsUp();
    int calls = 0;
    m_helper.RegisterCallback([&] {
        ++calls;
        EXPECT_FALSE(NetworkHelperPeer::availableInCallback());
        EXPECT_EQ(NetworkHelperPeer::pollTimeInCallback(), 0);
        EXPECT_TRUE(NetworkHelperPeer::callbackPending(m_helper));
    });
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(NetworkHelperPeer::available());
    EXPECT_NE(NetworkHelperPeer::pollTime(), 0);
    EXPECT_FALSE(NetworkHelperPeer::callbackPending(m_helper));
}

/// The callback is called once, when the network is really seen, before the answer is stored.
TEST_F(NetworkStatusTest, DoesNotCallBackForAKeptAnswer) {
    int calls = 0;
    m_helper.RegisterCallback([&] { ++calls; });
    NetworkHelperPeer::setStatus(true, now());
    EXPECT_TRUE(m_helper.IsNetworkAvailable(false));
    EXPECT_EQ(calls, 0);
}

/// The status is told when verbose only.
TEST_F(NetworkStatusTest, WritesItsLinesWhenVerbose) {
    networkIsUp();
    NetworkHelper::SetVerbose(true);
    OutputCapture capture;
    m_helper.IsNetworkAvailable(false);
    m_helper.IsNetworkAvailable(false);
    capture.stop();
    EXPECT_EQ(plain(capture.out()), "kivNetwork:ping result : PING " + m_host +
                                        " (192.0.2.1)\n\nkivNetwork:No ping needed\n");
    EXPECT_EQ(capture.err(), "");
}

/// Every line carries the diagnostic prefix but the one with ping's answer.
TEST_F(NetworkStatusTest, ItsLinesCarryTheDiagnosticPrefix) {
    NetworkHelper::SetVerbose(true);
    OutputCapture capture;
    {
        NetworkHooks hooks;
        hooks.failCommands();
        m_helper.IsNetworkAvailable(true);
    }
    NetworkHelper().GetDNS(m_directory.write("resolv.conf", "nameserver a\n"));
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "kivNetwork:"),
              "kivNetwork:ping result : \nkivNetwork:DNS list is : a\n");
    EXPECT_EQ(prefixedLines(capture.err(), "kivNetwork:"),
              "kivNetwork:Command ping -c 1 " + m_host + " not started: popen() failed!\n");
}

/// The status is told when verbose only.
TEST_F(NetworkStatusTest, IsSilentByDefault) {
    networkIsUp();
    OutputCapture capture;
    m_helper.IsNetworkAvailable(false);
    m_helper.IsNetworkAvailable(false);
    capture.stop();
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// A command that does not start counts as empty output, with a line.
TEST_F(NetworkStatusTest, TakesACommandThatDoesNotStartAsNoNetwork) {
    OutputCapture capture;
    {
        NetworkHooks hooks;
        hooks.failCommands();
        EXPECT_FALSE(m_helper.IsNetworkAvailable(true));
    }
    capture.stop();
    EXPECT_EQ(plain(capture.err()),
              "kivNetwork:Command ping -c 1 " + m_host + " not started: popen() failed!\n");
}

/// Threads that ask together wait for one ping.
TEST_F(NetworkStatusTest, LetsThreadsWaitForOnePing) {
    networkIsUp();
    std::atomic<int> up{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&up] { up += NetworkHelper().IsNetworkAvailable(false) ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(up, 4);
    EXPECT_EQ(pings(), 1U);
}

// ---- Name servers and MAC address ----------------------------------------------------------

/// Name servers are listed with commas; a line of fewer than two words ends the scan.
TEST_F(NetworkStatusTest, ListsTheNameServers) {
    const std::pair<std::string, std::string> files[] = {
        {"nameserver 192.0.2.1\nnameserver 192.0.2.2\n", "192.0.2.1,192.0.2.2"},
        {"search example.org\nnameserver 192.0.2.1 # first\n", "192.0.2.1"},
        {"nameserver 2001:db8::1", "2001:db8::1"},
        {"nameserver 192.0.2.1\n\nnameserver 192.0.2.2\n", "192.0.2.1"},
        {"nameserver 192.0.2.1\nword\nnameserver 192.0.2.2\n", "192.0.2.1"},
        {"# comment line\nnameserver 192.0.2.1\n", "192.0.2.1"},
        {"#\nnameserver 192.0.2.1\n", ""},
        {"Nameserver 192.0.2.1\nnameservers 192.0.2.2\n", ""},
        {"", ""},
    };
    for (const auto& [text, expected] : files) {
        EXPECT_EQ(NetworkHelper().GetDNS(m_directory.write("resolv.conf", text)), expected) << text;
    }
    EXPECT_EQ(NetworkHelper().GetDNS(m_directory.file("missing")), "");
}

/// Name servers are listed with commas; a line of fewer than two words ends the scan.
TEST_F(NetworkStatusTest, WritesTheNameServersWhenVerbose) {
    const std::string path = m_directory.write("resolv.conf", "nameserver a\nnameserver b\n");
    OutputCapture capture;
    NetworkHelper().GetDNS(path);
    NetworkHelper::SetVerbose(true);
    NetworkHelper().GetDNS(path);
    capture.stop();
    EXPECT_EQ(plain(capture.out()), "kivNetwork:DNS list is : a,b\n");
}

/// The MAC address is taken from ifconfig, kept, and asked for again while there is none.
TEST_F(NetworkStatusTest, FindsTheMacAddress) {
    m_commands.setOutput("ifconfig",
                         "eth0      Link encap:Ethernet  HWaddr 00:1A:2B:3C:4D:5E  \n   more\n");
    EXPECT_EQ(NetworkHelper().GetMac(), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(m_commands.calls("ifconfig"), Texts({"eth0"}));
}

/// The MAC address is taken from ifconfig, kept, and asked for again while there is none.
TEST_F(NetworkStatusTest, KeepsTheMacAddress) {
    m_commands.setOutput("ifconfig", "eth0 HWaddr 00:1A:2B:3C:4D:5E");
    EXPECT_EQ(NetworkHelper().GetMac(), "00:1A:2B:3C:4D:5E");
    m_commands.setOutput("ifconfig", "eth0 HWaddr 99:99:99:99:99:99");
    EXPECT_EQ(NetworkHelper().GetMac(), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(m_commands.calls("ifconfig").size(), 1U);
}

/// The MAC address is taken from ifconfig, kept, and asked for again while there is none.
TEST_F(NetworkStatusTest, AsksAgainWhileThereIsNoMacAddress) {
    for (const char* output : {"", "eth0: error fetching interface information", "eth0 HWaddr ",
                               "eth0 HWaddr 00:1A:2B:3C:4D:5", "HWaddr 00:1A:2B:3C:4D:5E"}) {
        m_commands.setOutput("ifconfig", output);
        EXPECT_EQ(NetworkHelper().GetMac(), "") << output;
    }
    EXPECT_EQ(m_commands.calls("ifconfig").size(), 5U);
    m_commands.setOutput("ifconfig", "x HWaddr 00:1A:2B:3C:4D:5E");
    EXPECT_EQ(NetworkHelper().GetMac(), "00:1A:2B:3C:4D:5E");
}

/// The MAC address is taken from ifconfig, kept, and asked for again while there is none.
TEST_F(NetworkStatusTest, WritesTheMacAddressWhenVerbose) {
    m_commands.setOutput("ifconfig", "eth0 HWaddr 00:1A:2B:3C:4D:5E");
    NetworkHelper::SetVerbose(true);
    OutputCapture capture;
    NetworkHelper().GetMac();
    NetworkHelper().GetMac();
    capture.stop();
    EXPECT_EQ(plain(capture.out()), "kivNetwork:MAC is : 00:1A:2B:3C:4D:5E\n");
}

/// A command that does not start counts as empty output, with a line.
TEST_F(NetworkStatusTest, HasNoMacAddressWhenTheCommandDoesNotStart) {
    OutputCapture capture;
    {
        NetworkHooks hooks;
        hooks.failCommands();
        EXPECT_EQ(NetworkHelper().GetMac(), "");
    }
    capture.stop();
    EXPECT_EQ(plain(capture.err()),
              "kivNetwork:Command ifconfig eth0 not started: popen() failed!\n");
}

}  // namespace
