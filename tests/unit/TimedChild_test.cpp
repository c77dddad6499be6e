#include "TimedChild.h"

#include "CloudLog.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TempDir.h"
#include "support/TimedChildPeer.h"
#include "support/WaitUntil.h"

namespace {

constexpr unsigned int kLimit = 20;  ///< seconds that no child here needs

class TimedChildTest : public KivTest {
  protected:
    /// What the process has left over: children that were not waited for.
    static bool hasChildren() { return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

    /// A child of this process that ends as `end` says.
    static int childThat(void (*end)()) {
        const pid_t child = ::fork();
        if (child == 0) {
            end();
            ::_exit(99);
        }
        return child;
    }

    /// From now on this process is on a kernel that has no close_range(2).
    static bool refuseToCloseRanges() {
        sock_filter program[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        sock_fprog filter = {};
        filter.len = sizeof program / sizeof program[0];
        filter.filter = program;
        return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
               ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
    }

    /// Not for ever, so that a child that nobody ends fails its test.
    static bool hang() {
        ::sleep(kLimit);
        return true;
    }

    const TempDir dir;
};

// --- the work -----------------------------------------------------------------------------------

/// The work runs in a child that is reaped; its answer is the result.
TEST_F(TimedChildTest, RunsTheWorkInAChildAndGivesItsAnswer) {
    const pid_t self = ::getpid();
    OutputCapture output;
    EXPECT_TRUE(TimedChild::run([self] { return ::getppid() == self; }, kLimit));
    EXPECT_FALSE(TimedChild::run([self] { return ::getpid() == self; }, kLimit));
    output.stop();
    EXPECT_EQ(output.out() + output.err(), "");
    EXPECT_FALSE(hasChildren());
}

/// Work that throws fails: its child ends there, and nothing of the daemon's code goes on in it.
TEST_F(TimedChildTest, EndsTheChildWhoseWorkThrows) {
    OutputCapture output;
    bool cameBack = false;
    try {
        EXPECT_FALSE(TimedChild::run([]() -> bool { throw std::runtime_error("x"); }, kLimit));
        cameBack = true;
    } catch (const std::runtime_error&) {
        ::_exit(1);  // this is the child
    }
    output.stop();
    EXPECT_TRUE(cameBack);
    EXPECT_NE(
        output.errWithoutPrefixes().find("kivAWSWrapper: Child did not exit normally: status="),
        std::string::npos)
        << output.err();
    EXPECT_FALSE(hasChildren());
}

/// In the child the alarm is open and ends it, whatever the thread before it blocked.
TEST_F(TimedChildTest, OpensTheAlarmByDefaultInTheChild) {
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    sigset_t before;
    ::pthread_sigmask(SIG_BLOCK, &alarm, &before);
    ::signal(SIGALRM, SIG_IGN);
    const bool open = TimedChild::run(
        [] {
            sigset_t blocked;
            struct sigaction action = {};
            ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
            ::sigaction(SIGALRM, nullptr, &action);
            return ::sigismember(&blocked, SIGALRM) == 0 && action.sa_handler == SIG_DFL;
        },
        kLimit);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(open);
}

/// The child repeats no waiting output and closes the daemon's descriptors.
TEST_F(TimedChildTest, LetsTheChildRepeatNothingThatWaitsInTheOutput) {
    OutputCapture output;
    std::cout << "said once, ";
    EXPECT_TRUE(TimedChild::run(
        [] {
            std::cout << "and by the child" << std::flush;
            return true;
        },
        kLimit));
    output.stop();
    EXPECT_EQ(output.out(), "said once, and by the child");
}

/// The child repeats no waiting output and closes the daemon's descriptors.
TEST_F(TimedChildTest, SparesTheChildTheDaemonsDescriptors) {
    const int descriptor = ::open(dir.write("store", "x").c_str(), O_RDONLY);
    ASSERT_GT(descriptor, STDERR_FILENO);
    EXPECT_TRUE(TimedChild::run(
        [descriptor] {
            return ::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF &&
                   ::fcntl(STDERR_FILENO, F_GETFD) != -1;
        },
        kLimit));
    EXPECT_NE(::fcntl(descriptor, F_GETFD), -1) << "its own stays open";
    ::close(descriptor);
}

/// The child closes the daemon's descriptors also where the kernel cannot close a range of them.
TEST_F(TimedChildTest, SparesTheChildTheDaemonsDescriptorsWithoutTheCallForARange) {
    constexpr int kRefused = 97;
    const int descriptor = ::open(dir.write("store", "x").c_str(), O_RDONLY);
    ASSERT_GT(descriptor, STDERR_FILENO);
    const pid_t older = ::fork();
    if (older == 0) {
        const rlimit few = {256, 256};
        ::setrlimit(RLIMIT_NOFILE, &few);
        if (!refuseToCloseRanges()) ::_exit(kRefused);
        const bool spared = TimedChild::run(
            [descriptor] {
                return ::fcntl(descriptor, F_GETFD) == -1 && ::fcntl(255, F_GETFD) == -1 &&
                       ::fcntl(STDERR_FILENO, F_GETFD) != -1;
            },
            kLimit);
        ::_exit(spared ? 0 : 1);
    }
    ::close(descriptor);
    int status = -1;
    ASSERT_EQ(::waitpid(older, &status, 0), older);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kRefused) GTEST_SKIP() << "no filter to be had";
    EXPECT_EQ(status, 0);
}

/// A failed fork: "Fork failed: ".
TEST_F(TimedChildTest, TellsThatTheForkFailed) {
    OutputCapture output;
    const pid_t limited = ::fork();
    if (limited == 0) {
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NPROC, &none);
        // The limit does not hold for a privileged user.
        if (::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) ::_exit(98);
        ::_exit(TimedChild::run([] { return true; }, kLimit) ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(limited, &status, 0), limited);
    output.stop();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: Fork failed: Resource temporarily unavailable\n");
}

/// Verbose, the child is told from its start to its end.
TEST_F(TimedChildTest, DescribesTheChildWhenVerbose) {
    CloudLog::log.setVerbose(true);
    OutputCapture output;
    EXPECT_TRUE(TimedChild::run([] { return true; }, kLimit));
    EXPECT_FALSE(TimedChild::run([] { return false; }, kLimit));
    output.stop();
    const std::string lines = output.outWithoutPrefixes();
    for (const char* line :
         {"kivAWSWrapper: Wait for child ", "kivAWSWrapper: Child process exits with 1\n",
          "kivAWSWrapper: Child returns 256\n", "kivAWSWrapper: Child process exits with 0\n",
          "kivAWSWrapper: Child returns 0\n"}) {
        EXPECT_NE(lines.find(line), std::string::npos) << lines;
    }
    EXPECT_EQ(output.err(), "");
}

// --- the limit ----------------------------------------------------------------------------------

/// At the limit: "Child Timeout expired! : kill pid" and the child's end by SIGKILL.
///
/// A child that was killed: "Child did not exit normally: status=".
TEST_F(TimedChildTest, KillsAChildThatHangsAndReapsIt) {
    OutputCapture output;
    EXPECT_FALSE(TimedChild::run(hang, 1));
    output.stop();
    const std::string lines = output.errWithoutPrefixes();
    const std::string expired = "kivAWSWrapper: Child Timeout expired! : kill pid";
    ASSERT_EQ(lines.rfind(expired, 0), 0u) << lines;
    EXPECT_GT(std::atoi(lines.c_str() + expired.size()), 1);
    EXPECT_EQ(lines.substr(lines.find('\n') + 1),
              "kivAWSWrapper: Child did not exit normally: status=9\n");
    EXPECT_FALSE(hasChildren());
}

/// The child ends by an alarm of its own, a little after the limit, should the daemon's not come.
TEST_F(TimedChildTest, GivesTheChildAnAlarmOfItsOwnALittleAfterTheLimit) {
    EXPECT_TRUE(
        TimedChild::run([] { return ::alarm(0) == kLimit + TimedChildPeer::kGrace; }, kLimit));
}

/// The child ends by an alarm of its own, a little after the limit, should the daemon's not come.
TEST_F(TimedChildTest, EndsTheChildByItsOwnAlarmWhenTheDaemonsDoesNotCome) {
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    sigset_t before;
    ::pthread_sigmask(SIG_BLOCK, &alarm, &before);  // in the only thread
    TimedChildPeer::setGrace(1);
    OutputCapture output;
    EXPECT_FALSE(TimedChild::run(hang, 1));
    output.stop();
    const timespec atOnce = {};
    ::sigtimedwait(&alarm, nullptr, &atOnce);  // the daemon's, which nobody has taken
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: Child did not exit normally: status=14\n");
    EXPECT_FALSE(hasChildren());
}

/// No child outlives the daemon, however that ends: the kernel kills it.
TEST_F(TimedChildTest, LetsNoChildOutliveTheDaemon) {
    // The child of a killed daemon becomes this process's, which sees how it ends.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        TimedChild::run(
            [this] {
                dir.write("child", std::to_string(::getpid()) + "\n");
                return hang();
            },
            kLimit);
        ::_exit(99);
    }
    const auto told = [this] { return dir.has("child") && dir.read("child").back() == '\n'; };
    ASSERT_TRUE(WaitUntil([&] { return told(); }));
    const pid_t child = std::stoi(dir.read("child"));
    ::kill(daemon, SIGKILL);
    int status = 0;
    EXPECT_EQ(::waitpid(daemon, &status, 0), daemon);
    const bool ended = WaitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; });
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    if (!ended) ::kill(child, SIGKILL);
    ASSERT_TRUE(ended);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

/// No child outlives the daemon, however that ends: one whose daemon is gone before the kernel is
/// told does not begin.
TEST_F(TimedChildTest, DoesNotBeginTheWorkOfADaemonThatIsGone) {
    const pid_t orphan = ::fork();
    if (orphan == 0) {
        TimedChildPeer::runInChild(
            [this] {
                dir.write("begun", "");
                return true;
            },
            ::getppid() + 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(orphan, &status, 0), orphan);
    EXPECT_EQ(status, 0) << "a failure";
    EXPECT_FALSE(dir.has("begun"));
}

/// After a kill the next child runs, without an alarm left.
TEST_F(TimedChildTest, LetsTheNextChildRunAfterAKill) {
    OutputCapture output;
    EXPECT_FALSE(TimedChild::run(hang, 1));
    output.stop();
    EXPECT_TRUE(TimedChild::run([] { return true; }, kLimit));
    EXPECT_EQ(::alarm(0), 0u) << "no alarm is left over";
}

// --- the child's end ----------------------------------------------------------------------------

/// Exit status 1 is success, 0 failure.
TEST_F(TimedChildTest, TakesExitStatusOneForSuccess) {
    EXPECT_TRUE(TimedChildPeer::waitFor(childThat([] { ::_exit(1); })));
    EXPECT_TRUE(TimedChildPeer::waitFor(childThat([] { ::_exit(3); })));
}

/// Exit status 1 is success, 0 failure.
TEST_F(TimedChildTest, TakesExitStatusZeroForFailure) {
    OutputCapture output;
    EXPECT_FALSE(TimedChildPeer::waitFor(childThat([] { ::_exit(0); })));
    output.stop();
    EXPECT_EQ(output.err(), "");
}

/// A child that was killed: "Child did not exit normally: status=".
TEST_F(TimedChildTest, TellsThatAChildWasKilled) {
    OutputCapture output;
    EXPECT_FALSE(TimedChildPeer::waitFor(childThat([] { ::raise(SIGTERM); })));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: Child did not exit normally: status=15\n");
}

/// A child that cannot be waited for: "Error waiting for child "; without one nobody is killed.
TEST_F(TimedChildTest, TellsThatAChildCannotBeWaitedFor) {
    OutputCapture output;
    EXPECT_FALSE(TimedChildPeer::waitFor(2147483646));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: Error waiting for child 2147483646: No child processes\n");
    EXPECT_EQ(::alarm(0), 0u);
}

/// A child that cannot be waited for: "Error waiting for child "; without one nobody is killed.
TEST_F(TimedChildTest, KillsNobodyWithoutAChild) {
    OutputCapture output;
    TimedChildPeer::killTimedOut();
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivAWSWrapper: Child Timeout expired! : kill pid-1\n");
}

}  // namespace
