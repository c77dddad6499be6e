#include "TimedChild.h"

#include "CloudLog.h"

#include <atomic>
#include <iostream>

#include <cerrno>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

const ClassLog& s_log = CloudLog::log;

std::atomic<int> s_child{-1};  ///< process id; -1: none. Read by the signal handler
static_assert(std::atomic<int>::is_always_lock_free, "read in a signal handler");

/// A line on standard error for the signal handler, which must neither allocate nor lock.
class SignalSafeLine {
  public:
    SignalSafeLine() {
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        add("[");
        add(static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000);
        add("](");
        add(static_cast<long long>(::getpid()));
        add(",");
        add(static_cast<long long>(::syscall(SYS_gettid)));
        add(") ");
        add(s_log.tag());
    }

    void add(const char* text) {
        while (*text != '\0') addCharacter(*text++);
    }

    void add(long long number) {
        if (number < 0) addCharacter('-');
        char digits[24];
        int count = 0;
        do {
            const int digit = static_cast<int>(number % 10);
            digits[count++] = static_cast<char>('0' + (digit < 0 ? -digit : digit));
            number /= 10;
        } while (number != 0);
        while (count > 0) addCharacter(digits[--count]);
    }

    void write() {
        addCharacter('\n');
        const ssize_t written = ::write(STDERR_FILENO, m_text, m_length);
        static_cast<void>(written);  // nobody is left to tell
    }

  private:
    void addCharacter(char character) {
        if (m_length < sizeof m_text) m_text[m_length++] = character;
    }

    char m_text[160];
    std::size_t m_length = 0;
};

/// A daemon that is killed cannot kill its child: the kernel does it. Where the daemon ended before
/// the kernel was told, the child has another parent already.
void dieWith(pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(0);
}

/// The child's own limit.
void endByAlarmAfter(unsigned int seconds) {
    ::signal(SIGALRM, SIG_DFL);
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    ::alarm(seconds);
}

/// The child needs none of the daemon's store, queue and sockets.
void closeInheritedDescriptors() {
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0) == 0) return;
#endif
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = STDERR_FILENO + 1; fd < (limit < 0 ? 1024 : limit); ++fd) ::close(fd);
}

/// Waits for the end of `child`, also when the alarm comes meanwhile: a killed child is reaped.
/// @return its process id; -1, with errno, when it cannot be waited for
pid_t reap(pid_t child, int& status) {
    pid_t ended = 0;
    do {
        ended = ::waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended;
}

}  // namespace

unsigned int TimedChild::m_graceSeconds = 5;

bool TimedChild::run(const std::function<bool()>& work, unsigned int limitSeconds) {
    std::cout.flush();  // or the child would write what waits in the buffer once more
    const pid_t self = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        s_log.error("Fork failed: ", ClassLog::errnoText(errno));
        return false;
    }
    if (child == 0) runInChild(work, self, limitSeconds);
    return waitFor(child, limitSeconds);
}

/// Leaves without destructors and exit handlers, and never by an exception: the caller's code
/// belongs to the daemon. 1 means done, so that a child that fails early, with status 0, is never
/// taken for a success.
void TimedChild::runInChild(const std::function<bool()>& work, int parent,
                            unsigned int limitSeconds) noexcept {
    dieWith(parent);
    endByAlarmAfter(limitSeconds + m_graceSeconds);
    closeInheritedDescriptors();
    const bool done = work();
    s_log.info("Child process exits with ", done);
    ::_exit(done ? 1 : 0);
}

bool TimedChild::waitFor(int child, unsigned int limitSeconds) {
    s_child = child;
    s_log.info("Wait for child ", child);
    startAlarm(limitSeconds);
    int status = 0;
    const pid_t ended = reap(child, status);
    const int failure = errno;
    s_child = -1;  // first: its process id may already be another's
    ::alarm(0);
    if (ended != child) {
        s_log.error("Error waiting for child ", child, ": ", ClassLog::errnoText(failure));
        return false;
    }
    s_log.info("Child returns ", status);
    if (!WIFEXITED(status)) {
        s_log.error("Child did not exit normally: status=", status);
        return false;
    }
    return WEXITSTATUS(status) != 0;
}

void TimedChild::startAlarm(unsigned int seconds) {
    struct sigaction action = {};
    action.sa_handler = killTimedOut;
    ::sigemptyset(&action.sa_mask);
    ::sigaddset(&action.sa_mask, SIGALRM);
    ::sigaction(SIGALRM, &action, nullptr);
    ::alarm(seconds);
}

/// The handler of SIGALRM. The signal is blocked in every thread but the main one, so that it
/// interrupts nothing but that thread's `pause`.
void TimedChild::killTimedOut(int) {
    const int savedErrno = errno;
    const int child = s_child;
    SignalSafeLine line;
    line.add("Child Timeout expired! : kill pid");
    line.add(static_cast<long long>(child));
    line.write();
    if (child >= 0) ::kill(child, SIGKILL);
    errno = savedErrno;
}
