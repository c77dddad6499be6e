#include "ShellCommand.h"

#include "AlarmBlock.h"
#include "support/FakeCommands.h"
#include "support/NetworkHooks.h"
#include "support/OutputCapture.h"
#include "support/ShellCommandPeer.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <cstddef>
#include <cstdlib>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

namespace {

std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

/// The descriptors through which this process reads pipes.
std::vector<int> pipesBeingRead() {
    std::vector<int> pipes;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::atoi(entry.path().filename().c_str());
        struct stat facts {};
        if (::fstat(fd, &facts) != 0 || !S_ISFIFO(facts.st_mode)) continue;
        if ((::fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY) pipes.push_back(fd);
    }
    return pipes;
}

/// Whether the process is there and has not ended.
bool isRunning(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string id;
    std::string name;
    std::string state;
    return stat >> id >> name >> state && state != "Z";
}

/// `Exec` gives the whole standard output and not the standard error.
TEST(ExecTest, GivesTheStandardOutput) {
    EXPECT_EQ(Exec("printf 'a\\nb'"), "a\nb");
    EXPECT_EQ(Exec("true"), "");
    EXPECT_EQ(Exec("echo out; false"), "out\n");
    EXPECT_EQ(Exec("exit 3"), "");
}

/// Commands are started with SIGALRM let through, whatever their thread does with it.
TEST(ExecTest, StartsCommandsThatCanEndThemselvesByAnAlarm) {
    const AlarmBlock asOnEveryThreadButTheMainOne;
    // Read by the shell itself: some shells let every signal through before they start a command.
    const std::string line = Exec(
        "while read -r line; do case $line in SigBlk*) echo \"$line\"; esac; done "
        "</proc/self/status");
    ASSERT_EQ(line.rfind("SigBlk:", 0), 0u) << line;
    EXPECT_EQ(std::stoull(line.substr(7), nullptr, 16) & (1ULL << (SIGALRM - 1)), 0u);
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(::sigismember(&mask, SIGALRM), 1) << "the thread's own mask is back";
}

/// `Exec` gives the whole standard output and not the standard error.
TEST(ExecTest, DoesNotTakeTheStandardError) {
    OutputCapture capture;
    EXPECT_EQ(Exec("echo wrong >&2; echo right"), "right\n");
    capture.stop();
    EXPECT_EQ(capture.err(), "wrong\n");
}

/// `Exec` gives the whole standard output and not the standard error.
TEST(ExecTest, TakesOutputLongerThanItsBuffer) {
    std::string expected;
    for (int i = 1; i <= 200; ++i) expected += std::to_string(i) + " ";
    EXPECT_EQ(Exec("seq -s ' ' 1 200 | tr '\\n' ' '"), expected);
}

/// `Exec` throws "popen() failed!" and leaves no descriptor open.
TEST(ExecTest, ThrowsWhenTheCommandDoesNotStart) {
    NetworkHooks hooks;
    hooks.failCommands();
    try {
        Exec("true");
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "popen() failed!");
    }
}

/// `Exec` throws "popen() failed!" and leaves no descriptor open.
TEST(ExecTest, LeavesNoDescriptorOpen) {
    Exec("true");
    const std::ptrdiff_t before = openDescriptors();
    for (int i = 0; i < 3; ++i) Exec("echo x");
    EXPECT_EQ(openDescriptors(), before);
}

/// Commands started meanwhile inherit neither pipe nor socket.
TEST(ExecTest, CommandsStartedMeanwhileDoNotInheritThePipe) {
    const TempDir directory;
    const std::string gate = directory.file("gate");
    ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
    const std::vector<int> before = pipesBeingRead();
    auto output = std::async(std::launch::async,
                             [&] { return Exec(("echo begins; cat '" + gate + "'").c_str()); });
    // The command waits for a writer at the gate, so the pipe is open until there was one.
    std::vector<int> pipes;
    EXPECT_TRUE(WaitUntil([&] {
        pipes.clear();
        for (const int fd : pipesBeingRead()) {
            if (std::count(before.begin(), before.end(), fd) == 0) pipes.push_back(fd);
        }
        return pipes.size() == 1;
    }));
    for (const int fd : pipes) EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    std::ofstream(gate) << "ends";
    EXPECT_EQ(output.get(), "begins\nends");
}

/// A command that does not end is killed at its limit, with what it started; what it printed is its
/// output, and no process is left behind.
TEST(ExecTest, KillsACommandThatDoesNotEnd) {
    const TempDir directory;
    const std::string pids = directory.file("pids");
    const std::string command = "echo begins; sleep 100 & echo $$ $! > '" + pids + "'; wait";
    const ShellCommandPeer limit(std::chrono::milliseconds(300));
    OutputCapture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Exec(command.c_str()), "begins\n");
    capture.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivNetwork:Command " + command +
                                                " killed: it ran longer than 300ms, or printed too "
                                                "much\n");
    std::istringstream started(directory.read("pids"));
    int processes = 0;
    for (pid_t pid = 0; started >> pid; ++processes) {
        EXPECT_TRUE(WaitUntil([&] { return !isRunning(pid); })) << pid;
    }
    EXPECT_EQ(processes, 2);
}

/// A command that closes its output and does not end is killed too.
TEST(ExecTest, KillsACommandThatClosesItsOutputAndDoesNotEnd) {
    const ShellCommandPeer limit(std::chrono::milliseconds(300));
    OutputCapture quiet;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Exec("echo ends; exec >&-; sleep 100"), "ends\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
}

/// A command that prints without end is killed at 1 MiB.
TEST(ExecTest, KillsACommandThatPrintsWithoutEnd) {
    OutputCapture quiet;
    const std::string output = Exec("yes");
    EXPECT_GT(output.size(), 1048576u);
    EXPECT_LT(output.size(), 1048576u + 8192u);
}

/// A ping may take 15 s.
TEST(ExecTest, LetsACommandRunFor15Seconds) {
    EXPECT_EQ(ShellCommandPeer::limit(), std::chrono::seconds(15));
}

// --- ping and ifconfig --------------------------------------------------------------------------

using Texts = std::vector<std::string>;

class ShellCommandTest : public ::testing::Test {
  protected:
    static std::string errorsOf(const std::function<void()>& action) {
        OutputCapture capture;
        NetworkHooks hooks;
        hooks.failCommands();
        action();
        capture.stop();
        EXPECT_EQ(capture.out(), "");
        return capture.errWithoutPrefixes();
    }

    FakeCommands m_commands;
};

/// One ping is sent, and all that it prints is given.
TEST_F(ShellCommandTest, PingsOnceAndGivesWhatIsPrinted) {
    m_commands.setOutput("ping", "PING a-b_c.example (192.0.2.1)\nmore\n");
    EXPECT_EQ(ShellCommand::ping("a-b_c.example"), "PING a-b_c.example (192.0.2.1)\nmore\n");
    EXPECT_EQ(ShellCommand::ping("2001:db8::1"), "PING a-b_c.example (192.0.2.1)\nmore\n");
    EXPECT_EQ(ShellCommand::ping("b\xc3\xbc"), "PING a-b_c.example (192.0.2.1)\nmore\n");
    EXPECT_EQ(m_commands.calls("ping"),
              Texts({"-c 1 a-b_c.example", "-c 1 2001:db8::1", "-c 1 b\xc3\xbc"}));
}

/// The shell is handed nothing but a host name.
TEST_F(ShellCommandTest, HandsTheShellNothingButAHostName) {
    m_commands.setOutput("ping", "printed");
    for (const char* host : {"", "-f", "a b", "a;ping", "a|ping", "`ping`", "$(ping)", "a\nping",
                             "a/b", "a@b", "'a'", "a&"}) {
        EXPECT_EQ(ShellCommand::ping(host), "") << host;
    }
    EXPECT_EQ(m_commands.calls("ping"), Texts());
}

/// The MAC address is the 17 characters after "HWaddr ", which does not begin the output.
TEST_F(ShellCommandTest, FindsTheMacAddressOfAnInterface) {
    const std::pair<const char*, const char*> outputs[] = {
        {"eth0  Link encap:Ethernet  HWaddr 00:1A:2B:3C:4D:5E  \n   more\n", "00:1A:2B:3C:4D:5E"},
        {"x HWaddr 00:1A:2B:3C:4D:5E", "00:1A:2B:3C:4D:5E"},
        {"eth0 HWaddr 00:1A:2B:3C:4D:5", ""},
        {"eth0 HWaddr ", ""},
        {"HWaddr 00:1A:2B:3C:4D:5E", ""},
        {"eth0: error fetching interface information", ""},
        {"", ""},
    };
    for (const auto& [output, mac] : outputs) {
        m_commands.setOutput("ifconfig", output);
        EXPECT_EQ(ShellCommand::macAddressOf("eth0"), mac) << output;
    }
    EXPECT_EQ(m_commands.calls("ifconfig"), Texts(7, "eth0"));
}

/// A command that does not start counts as empty output, with a line.
TEST_F(ShellCommandTest, TakesACommandThatDoesNotStartAsEmptyOutput) {
    EXPECT_EQ(errorsOf([] { EXPECT_EQ(ShellCommand::ping("host"), ""); }),
              "kivNetwork:Command ping -c 1 host not started: popen() failed!\n");
    EXPECT_EQ(errorsOf([] { EXPECT_EQ(ShellCommand::macAddressOf("eth1"), ""); }),
              "kivNetwork:Command ifconfig eth1 not started: popen() failed!\n");
}

// --- text helpers -------------------------------------------------------------------------------

/// `StringExtractBetween` looks for any single character of its marks and gives the whole text
/// without a beginning.
TEST(StringExtractBetweenTest, CutsOutWhatStandsBetween) {
    EXPECT_EQ(StringExtractBetween("https://host/path", "//", "/"), "host");
    EXPECT_EQ(StringExtractBetween("https://host", "//", "/"), "host");
    EXPECT_EQ(StringExtractBetween("PING x (192.0.2.1) 56(84)", "(", ")"), "192.0.2.1");
    EXPECT_EQ(StringExtractBetween("x (open", "(", ")"), "open");
    EXPECT_EQ(StringExtractBetween("x ()", "(", ")"), "");
}

/// `StringExtractBetween` looks for any single character of its marks and gives the whole text
/// without a beginning.
TEST(StringExtractBetweenTest, LooksForSingleCharacters) {
    EXPECT_EQ(StringExtractBetween("a/b//c/d", "//", "/"), "");
    EXPECT_EQ(StringExtractBetween("xaybz", "ab", "z"), "b");
}

/// `StringExtractBetween` looks for any single character of its marks and gives the whole text
/// without a beginning.
TEST(StringExtractBetweenTest, GivesTheWholeTextWithoutABeginning) {
    EXPECT_EQ(StringExtractBetween("host", "//", "/"), "host");
    EXPECT_EQ(StringExtractBetween("unknown host", "(", ")"), "unknown host");
    EXPECT_EQ(StringExtractBetween("", "(", ")"), "");
    EXPECT_EQ(StringExtractBetween("abc", "", "b"), "abc");
}

/// `StringExtractBetween` looks for any single character of its marks and gives the whole text
/// without a beginning.
TEST(StringExtractBetweenTest, TakesABeginningThatReachesBeyondTheEnd) {
    EXPECT_EQ(StringExtractBetween("host/", "//", "/"), "");
}

/// `StringReplace` replaces the first occurrence and tells whether there was one.
TEST(StringReplaceTest, ReplacesTheFirstOccurrence) {
    std::string text = "one two one";
    EXPECT_TRUE(StringReplace(text, "one", "1"));
    EXPECT_EQ(text, "1 two one");
    EXPECT_TRUE(StringReplace(text, " two", ""));
    EXPECT_EQ(text, "1 one");
}

/// `StringReplace` replaces the first occurrence and tells whether there was one.
TEST(StringReplaceTest, LeavesTheTextWhenThereIsNone) {
    std::string text = "one";
    EXPECT_FALSE(StringReplace(text, "two", "2"));
    EXPECT_FALSE(StringReplace(text, "One", "2"));
    EXPECT_EQ(text, "one");
}

}  // namespace
