#include "MiddlewareTime.h"

#include "ClassLog.h"
#include "KernelTime.h"
#include "UtcTimeMs.h"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kToleratedMs = 60000;  // up to this, a difference is not a jump
constexpr std::chrono::seconds kPauseBeforeReopening{10};
constexpr std::size_t kLongestMessage = 1024;  // bytes

/// Whether this thread is a watcher, which must not join itself.
thread_local bool isWatcherThread = false;

int openForReading(const std::string& path) {
    const WorkerThread::CancelPoint whileOpening;
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

ssize_t readMessage(const Descriptor& pipe, std::string& buffer) {
    const WorkerThread::CancelPoint whileReading;
    return ::read(pipe.get(), buffer.data(), buffer.size());
}

/// Whether `fd` is this process's reading end of the named pipe that `pipe` describes.
bool isReaderOf(const struct stat& pipe, int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
    const bool same = status.st_dev == pipe.st_dev && status.st_ino == pipe.st_ino;
    return same && (::fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY;
}

/// Closes what a cancelled open(2) left: a thread may be cancelled when the kernel has made the
/// descriptor but the caller has not got it yet. A lost reader would never empty the pipe, and the
/// middleware would hang in its writing. To be called when no watcher runs.
void closeLostReaders(const std::string& path) {
    struct stat pipe {};
    if (::stat(path.c_str(), &pipe) != 0 || !S_ISFIFO(pipe.st_mode)) return;
    std::vector<int> lost;
    std::error_code error;
    for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
         entry.increment(error)) {
        const auto fd =
            static_cast<int>(std::strtol(entry->path().filename().c_str(), nullptr, 10));
        if (isReaderOf(pipe, fd)) lost.push_back(fd);
    }
    for (const int fd : lost) ::close(fd);
}

}  // namespace

std::string MiddlewareTime::m_pipePath = "/tmp/MTKTimePipe";

// --- start and stop -----------------------------------------------------------------------------

MiddlewareTime::MiddlewareTime(const ClassLog& log, Report report)
    : m_log(log), m_report(std::move(report)) {}

MiddlewareTime::~MiddlewareTime() {
    setWatching(false);
}

void MiddlewareTime::setWatching(bool on) {
    if (isWatcherThread) {
        m_log.error("The checker cannot stop or start itself");
        return;
    }
    const std::lock_guard<std::mutex> lock(m_threadMutex);
    m_isWanted = on;
    if (on == m_thread.isStarted()) return;
    if (!on) return stop();
    const int error = start();
    if (error != 0) m_log.error("Cannot start the checker : ", ClassLog::errnoText(error));
}

bool MiddlewareTime::startMissingThread() {
    const std::lock_guard<std::mutex> lock(m_threadMutex);
    return !m_isWanted || m_thread.isStarted() || start() == 0;
}

/// With m_threadMutex held.
int MiddlewareTime::start() {
    endPause(false);
    return m_thread.start("CheckSystemTimeThread", [this] { return checkSystemTimeThread(); });
}

/// With m_threadMutex held. The watcher is cancelled first and woken from its pause after that: it
/// then goes on to open the pipe, and ends there.
void MiddlewareTime::stop() {
    m_thread.cancel();
    endPause(true);
    m_thread.join();
    closeLostReaders(m_pipePath);
}

/// Says whether the watcher's pause between two openings is over at once.
void MiddlewareTime::endPause(bool stops) {
    const std::lock_guard<std::mutex> lock(m_wakeMutex);
    m_stops = stops;
    m_wake.notify_all();
}

// --- the watcher thread -------------------------------------------------------------------------

// Ends only by being cancelled in `openForReading` or `readMessage`. The owners on the way release
// the pipe and the buffer; nothing here may catch what is not an exception, or be noexcept.
int MiddlewareTime::checkSystemTimeThread() {
    isWatcherThread = true;
    makePipe();
    m_log.info("checkSystemTimeThread started");
    std::string buffer(kLongestMessage, '\0');
    Previous previous;
    for (;;) {
        const Descriptor pipe = openPipe();
        if (pipe.isOpen()) {
            watchPipe(pipe, buffer, previous);
        } else {
            pauseBeforeReopening();
        }
    }
}

/// A pipe that is there already is taken as it is.
void MiddlewareTime::makePipe() const {
    if (::mkfifo(m_pipePath.c_str(), 0666) == 0 || errno == EEXIST) return;
    m_log.error("Cannot create fifo : ", ClassLog::errnoText(errno));
}

/// Waits for a writer. @return nothing, after an error line, when there is no pipe to open
Descriptor MiddlewareTime::openPipe() const {
    Descriptor pipe(openForReading(m_pipePath));
    if (!pipe.isOpen()) {
        m_log.error("Cannot open fifo : ", ClassLog::errnoText(errno));
        return {};
    }
    struct stat status {};
    if (::fstat(pipe.get(), &status) == 0 && S_ISFIFO(status.st_mode)) return pipe;
    m_log.error("Cannot open fifo : Not a named pipe");
    return {};
}

/// Ends early when the watcher is being stopped: it is cancelled in the next opening.
void MiddlewareTime::pauseBeforeReopening() {
    std::unique_lock<std::mutex> lock(m_wakeMutex);
    m_wake.wait_for(lock, kPauseBeforeReopening, [this] { return m_stops; });
}

/// Handles messages until the writers have closed the pipe.
void MiddlewareTime::watchPipe(const Descriptor& pipe, std::string& buffer, Previous& previous) {
    previous.kernelTime = KernelTime::getTimeMonotonicAsInt64();
    for (;;) {
        const ssize_t length = readMessage(pipe, buffer);
        if (length <= 0) return;
        handleMessage(buffer.substr(0, static_cast<std::size_t>(length)), previous);
    }
}

void MiddlewareTime::handleMessage(const std::string& text, Previous& previous) {
    Previous received;
    try {
        received.time = std::stoll(text, nullptr, 10);
    } catch (const std::logic_error&) {  // not a number, or out of range
        reportInvalid(text);
        return;
    }
    received.kernelTime = KernelTime::getTimeMonotonicAsInt64();
    m_log.info("MW time = ", received.time);
    const std::int64_t passed = received.kernelTime - previous.kernelTime;
    const auto tolerated = static_cast<std::uint64_t>(passed + kToleratedMs);
    if (UtcTimeMs(received.time).distanceTo(previous.time) > tolerated) {
        m_report(previous.time, received.time);
    }
    previous = received;
}

/// Anybody may write into the pipe, as often as they like.
void MiddlewareTime::reportInvalid(const std::string& text) {
    const std::string shown = ClassLog::foreign(text);
    const auto leftOut = m_invalidLines.admit(shown);
    if (!leftOut) return;
    if (*leftOut == 0) {
        m_log.error("Invalid MW time : ", shown);
    } else {
        m_log.error("Invalid MW time : ", shown, " (", *leftOut, " more left out before)");
    }
}
