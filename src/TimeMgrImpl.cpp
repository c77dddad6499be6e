#include "TimeMgrImpl.h"

#include "AlarmBlock.h"
#include "CGlobalInfoImpl.h"
#include "DB.h"
#include "DbgOut.h"
#include "Descriptor.h"
#include "KernelTime.h"
#include "Singleton.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <cstdlib>
#include <cstring>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* kLogPrefix = "TimeMgr: ";
constexpr std::int64_t kInsignificantMs = 60000;    // changes up to this are ignored
constexpr std::int64_t kEarliestBoot = 1470009599;  // UTC seconds: 2016-07-31T23:59:59Z
constexpr std::int64_t kBuildTimeMargin = 60;       // seconds
constexpr std::chrono::seconds kPauseBeforeReopening{10};
constexpr std::size_t kLongestMessage = 1024;  // bytes
constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

/// Whether this thread is a checker, which must not join itself.
thread_local bool isCheckerThread = false;

/// Lets the thread be cancelled within its scope, for one wait.
class Cancellable {
  public:
    Cancellable() { ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
    ~Cancellable() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    Cancellable(const Cancellable&) = delete;
    Cancellable& operator=(const Cancellable&) = delete;
};

int openForReading(const std::string& path) {
    const Cancellable whileOpening;
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

ssize_t readMessage(int fd, std::vector<char>& buffer) {
    const Cancellable whileReading;
    return ::read(fd, buffer.data(), buffer.size());
}

void makePipe(const std::string& path) {
    if (::mkfifo(path.c_str(), 0666) == 0 || errno == EEXIST) return;
    const char* const reason = std::strerror(errno);
    cerrdbg << kLogPrefix << "Cannot create fifo : " << reason << std::endl;
}

void reportFailedOpen(const char* reason) {
    cerrdbg << kLogPrefix << "Cannot open fifo : " << reason << std::endl;
}

/// Whether this process reads the named pipe that `pipe` describes through `fd`.
bool isReaderOf(const struct stat& pipe, int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
    const bool same = status.st_dev == pipe.st_dev && status.st_ino == pipe.st_ino;
    return same && (::fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY;
}

/// Closes what a cancelled open(2) left: the cancellation may strike when the kernel has made the
/// descriptor but the caller has not got it yet. A lost reader would never empty the pipe, and the
/// middleware would hang in its writing. To be called when no checker runs.
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

/// |a - b|, whatever the middleware says.
std::uint64_t distance(std::int64_t a, std::int64_t b) {
    const auto difference = static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b);
    return a >= b ? difference : 0 - difference;
}

/// a + b, held at the ends of the range.
std::int64_t saturatedSum(std::int64_t a, std::int64_t b) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return a > 0 ? Limits::max() : Limits::min();
}

timespec monotonicNow() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

void reportNoDatabase(const char* operation) {
    cerrdbg << kLogPrefix << operation << "No DB set" << std::endl;
}

}  // namespace

/// Holds the store's lock and then the time manager's: the order on every path to the database.
class TimeMgrImpl::StoreLock {
  public:
    explicit StoreLock(std::mutex& mutex) : m_store(DB::m_PruneLock), m_own(mutex) {}

  private:
    std::unique_lock<std::recursive_mutex> m_store;
    std::unique_lock<std::mutex> m_own;
};

bool TimeMgrImpl::m_verbose = false;
std::string TimeMgrImpl::m_pipePath = "/tmp/MTKTimePipe";
std::mutex TimeMgrImpl::m_appClockMutex;
TimeMgrImpl::AppClock TimeMgrImpl::m_appClock{};
std::mutex TimeMgrImpl::m_gateMutex;
std::condition_variable TimeMgrImpl::m_gate;
bool TimeMgrImpl::m_dbPathExpected = false;

// --- names and the application clock ------------------------------------------------------------

const char* TimeMgrImpl::getTimeSourceAsString(int source) {
    switch (source) {
        case TimeSourceInvalid:
            return "Invalid";
        case TimeSourceSystem:
            return "system";
        case TimeSourceWeb:
            return "web";
        default:
            return "unknown";
    }
}

std::ostream& operator<<(std::ostream& out, TimeSource source) {
    return out << TimeMgrImpl::getTimeSourceAsString(source);
}

std::chrono::system_clock::time_point kivAppNow() {
    using Clock = std::chrono::system_clock;
    std::unique_lock<std::mutex> lock(TimeMgrImpl::m_appClockMutex);
    const TimeMgrImpl::AppClock clock = TimeMgrImpl::m_appClock;
    lock.unlock();
    if (clock.monotonic.tv_sec < 1) return Clock::now();

    const timespec now = timeAdd(clock.utc, timeDiff(monotonicNow(), clock.monotonic));
    constexpr std::int64_t latest =
        std::numeric_limits<std::int64_t>::max() / kNanosecondsPerSecond - 1;
    const auto seconds = std::clamp<std::int64_t>(now.tv_sec, -latest, latest);
    const std::chrono::nanoseconds sinceEpoch(seconds * kNanosecondsPerSecond + now.tv_nsec);
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(sinceEpoch));
}

void TimeMgrImpl::setSystemTime(UtcTimeMs utc) {
    const std::int64_t ms = utc;
    if (m_verbose) coutdbg << kLogPrefix << "setSystemTime: " << ms << std::endl;
    AppClock clock{};
    clock.utc.tv_sec = static_cast<decltype(clock.utc.tv_sec)>(ms / 1000);
    clock.utc.tv_nsec = static_cast<decltype(clock.utc.tv_nsec)>((ms % 1000) * 1000000);
    const std::lock_guard<std::mutex> lock(m_appClockMutex);
    clock.monotonic = monotonicNow();
    m_appClock = clock;
}

// --- life ---------------------------------------------------------------------------------------

TimeMgrImpl::TimeMgrImpl() = default;

TimeMgrImpl::~TimeMgrImpl() {
    setAutoUpdateSystemTime(false);
    closeDatabase();
}

void TimeMgrImpl::setDBPath(const std::string& path) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_dbPath = path;
    }
    if (hasDatabase()) {
        setAutoUpdateSystemTime(false);
        closeDatabase();
    }
    if (!path.empty()) {
        openDatabase(path);
        setAutoUpdateSystemTime(true);
    }
    announceDBPathSet();
}

bool TimeMgrImpl::hasDatabase() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_db != nullptr;
}

void TimeMgrImpl::closeDatabase() {
    const StoreLock lock(m_mutex);
    m_db.reset();
}

void TimeMgrImpl::openDatabase(const std::string& path) {
    const StoreLock lock(m_mutex);
    m_db = std::make_unique<DB>();
    m_db->open(path, false);
    m_currentSource = TimeSourceInvalid;
}

void TimeMgrImpl::setErrorCallback(std::function<void()> callback) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_errorCallback = std::move(callback);
}

void TimeMgrImpl::expectDBPath() {
    const std::lock_guard<std::mutex> lock(m_gateMutex);
    m_dbPathExpected = true;
}

void TimeMgrImpl::announceDBPathSet() {
    const std::lock_guard<std::mutex> lock(m_gateMutex);
    m_dbPathExpected = false;
    m_gate.notify_all();
}

bool TimeMgrImpl::waitForDBPath(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_gateMutex);
    return m_gate.wait_for(lock, limit, [] { return !m_dbPathExpected; });
}

// --- times --------------------------------------------------------------------------------------

std::int64_t TimeMgrImpl::getStartTime(TimeSource source, const TimeReference& ref) const {
    const StoreLock lock(m_mutex);
    if (m_db == nullptr) {
        reportNoDatabase("");
        return 0;
    }
    const std::int64_t start = m_db->getStartTime(static_cast<long>(ref.bootCount),
                                                  static_cast<long>(ref.standbyCount), source);
    if (m_verbose) {
        coutdbg << kLogPrefix << "getTime ts=" << source << " bc = " << ref.bootCount
                << " sc = " << ref.standbyCount << " utc = " << start << std::endl;
    }
    return start;
}

UtcTimeMs TimeMgrImpl::timeSince(std::int64_t startTime, std::int64_t kernelTime) {
    return startTime == 0 ? 0 : saturatedSum(startTime, kernelTime);
}

UtcTimeMs TimeMgrImpl::getTime(TimeSource source, const TimeReference& ref) const {
    const std::int64_t start = getStartTime(source, ref);
    if (start == 0) return 0;
    const std::int64_t utc = timeSince(start, ref.kernelTime);
    if (m_verbose) {
        coutdbg << kLogPrefix << "getTime for tr=" << ref << " is " << utc << std::endl;
    }
    return utc;
}

UtcTimeMs TimeMgrImpl::getTime(const TimeReference& ref) const {
    const UtcTimeMs web = getTime(TimeSourceWeb, ref);
    return web != 0 ? web : getTime(TimeSourceSystem, ref);
}

TimeSource TimeMgrImpl::getPreferredTimeSource(const TimeReference& ref) const {
    if (getTime(TimeSourceWeb, ref) != 0) return TimeSourceWeb;
    if (getTime(TimeSourceSystem, ref) != 0) return TimeSourceSystem;
    return TimeSourceInvalid;
}

JsonObject TimeMgrImpl::getAllTimesAsJson(const TimeReference& ref) const {
    JsonObject times = JsonObject::createArray();
    for (const TimeSource source : {TimeSourceSystem, TimeSourceWeb}) {
        const std::int64_t utc = getTime(source, ref);
        JsonObject time;
        time.Pack("{s:s, s:I}", "src", getTimeSourceAsString(source), "utc",
                  static_cast<json_int_t>(utc));
        times.append(time);
    }
    return times;
}

bool TimeMgrImpl::isSystemTimeAcceptable(unsigned long long time) const {
    const Singleton<CGlobalInfoImpl> globalInfo;
    const std::int64_t buildTime = globalInfo->getBuildTime().seconds();
    const std::int64_t uptime = TimeReference().kernelTime / 1000;
    const std::int64_t boot = saturatedSum(static_cast<std::int64_t>(time), -uptime);
    return time != 0 && boot > kEarliestBoot && boot > buildTime + kBuildTimeMargin;
}

void TimeMgrImpl::setTime(TimeSource source, const TimeReference& ref, UtcTimeMs utc) {
    if (!hasDatabase()) {
        reportNoDatabase("setTime: ");
        return;
    }
    const std::int64_t newTime = utc;
    if (m_verbose) {
        coutdbg << kLogPrefix << "setTime ts=" << source << " timeRef = " << ref
                << " to utc = " << newTime << std::endl;
    }
    if (newTime == 0) {
        forgetStartTime(source, ref);
        return;
    }
    setClockFrom(source, utc);

    const std::int64_t oldTime = getTime(source, ref);
    if (distance(newTime, oldTime) <= kInsignificantMs) {
        if (m_verbose) {
            coutdbg << kLogPrefix
                    << "No significant change in time. Not updating. Old time = " << oldTime
                    << " New time = " << newTime << std::endl;
        }
        return;
    }
    changeTime(source, ref, oldTime, newTime);
}

/// Sets the application clock, unless a better source has set it.
void TimeMgrImpl::setClockFrom(TimeSource source, UtcTimeMs utc) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_currentSource > source) return;
    }
    // Without the lock: the checker being joined may be about to take it, and its report ends
    // before the better time is set below.
    if (source == TimeSourceWeb) setAutoUpdateSystemTime(false);

    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_currentSource > source) return;
    m_currentSource = source;
    setSystemTime(utc);
}

void TimeMgrImpl::forgetStartTime(TimeSource source, const TimeReference& ref) {
    const StoreLock lock(m_mutex);
    if (m_db == nullptr) return;
    m_db->setStartTime(static_cast<long>(ref.bootCount), static_cast<long>(ref.standbyCount),
                       source, 0);
}

void TimeMgrImpl::changeTime(TimeSource source, const TimeReference& ref, std::int64_t oldTime,
                             std::int64_t newTime) {
    const std::int64_t start = saturatedSum(newTime, -ref.kernelTime);
    if (m_verbose) {
        coutdbg << kLogPrefix << "Utc of start of session = " << start << std::endl;
    }
    std::function<void()> report;  // called without the locks
    {
        const StoreLock lock(m_mutex);
        if (m_db == nullptr) return;
        const int result = m_db->setStartTime(static_cast<long>(ref.bootCount),
                                              static_cast<long>(ref.standbyCount), source, start);
        if (m_verbose) {
            coutdbg << kLogPrefix << "Time changed from " << oldTime << " to " << newTime
                    << std::endl;
        }
        if (result != 0 || DB::m_dbError) report = m_errorCallback;
    }
    if (report) report();
}

// --- watching the middleware's time -------------------------------------------------------------

void TimeMgrImpl::setAutoUpdateSystemTime(bool on) {
    if (isCheckerThread) {
        cerrdbg << kLogPrefix << "The checker cannot stop or start itself" << std::endl;
        return;
    }
    const std::lock_guard<std::mutex> lock(m_checkerMutex);
    if (m_checker.joinable() && !on) {
        ::pthread_cancel(m_checker.native_handle());
        endPause(true);  // behind the cancellation, which then strikes in the next opening
        m_checker.join();
        closeLostReaders(m_pipePath);
    } else if (!m_checker.joinable() && on) {
        endPause(false);
        startChecker();
    }
}

/// With m_checkerMutex held.
void TimeMgrImpl::startChecker() {
    const AlarmBlock inherited;
    try {
        m_checker = std::thread(checkSystemTime, this);
    } catch (const std::system_error& error) {
        cerrdbg << kLogPrefix << "Cannot start the checker : " << error.what() << std::endl;
    }
}

/// Says whether the checker's pause between two openings is over at once.
void TimeMgrImpl::endPause(bool stops) {
    const std::lock_guard<std::mutex> lock(m_wakeMutex);
    m_checkerStops = stops;
    m_wake.notify_all();
}

void TimeMgrImpl::checkSystemTime(TimeMgrImpl* manager) {
    manager->checkSystemTimeThread();
}

// Cancelled only in `openForReading` and `readMessage`. The owners on the way release the pipe and
// the buffer; nothing here may catch what is not an exception, or be noexcept.
void TimeMgrImpl::checkSystemTimeThread() {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    isCheckerThread = true;
    // Longer than the kernel takes: refused, and not worth a line.
    static_cast<void>(::pthread_setname_np(::pthread_self(), "CheckSystemTimeThread"));
    makePipe(m_pipePath);
    if (m_verbose) coutdbg << kLogPrefix << "checkSystemTimeThread started" << std::endl;
    std::vector<char> buffer(kLongestMessage);
    long long previousTime = 0;  // as the middleware sent it, milliseconds
    for (;;) {
        const Descriptor pipe(openPipe());
        if (pipe.isOpen()) {
            watchPipe(pipe.get(), buffer, previousTime);
        } else {
            pauseBeforeReopening();
        }
    }
}

/// Waits for a writer. @return the descriptor, or -1 after an error line
int TimeMgrImpl::openPipe() {
    Descriptor pipe(openForReading(m_pipePath));
    if (!pipe.isOpen()) {
        reportFailedOpen(std::strerror(errno));
        return -1;
    }
    struct stat status {};
    if (::fstat(pipe.get(), &status) == 0 && S_ISFIFO(status.st_mode)) return pipe.release();
    reportFailedOpen("Not a named pipe");
    return -1;
}

/// Ends early when the checker is being stopped: the next opening is where it is cancelled.
void TimeMgrImpl::pauseBeforeReopening() {
    std::unique_lock<std::mutex> lock(m_wakeMutex);
    m_wake.wait_for(lock, kPauseBeforeReopening, [this] { return m_checkerStops; });
}

/// Handles messages until the writers have closed the pipe.
void TimeMgrImpl::watchPipe(int fd, std::vector<char>& buffer, long long& previousTime) {
    TimeReference previousRef;
    for (;;) {
        const ssize_t length = readMessage(fd, buffer);
        if (length <= 0) return;
        handleMiddlewareTime(std::string(buffer.data(), static_cast<std::size_t>(length)),
                             previousTime, previousRef);
    }
}

void TimeMgrImpl::handleMiddlewareTime(const std::string& text, long long& previousTime,
                                       TimeReference& previousRef) {
    long long newTime = 0;
    try {
        newTime = std::stoll(text, nullptr, 10);
    } catch (const std::logic_error&) {
        cerrdbg << kLogPrefix << "Invalid MW time : " << text << std::endl;
        return;
    }
    const TimeReference now;
    const std::int64_t kernelDelta = now.kernelTime - previousRef.kernelTime;
    if (m_verbose) coutdbg << kLogPrefix << "MW time = " << newTime << std::endl;
    if (distance(newTime, previousTime) >
        static_cast<std::uint64_t>(kernelDelta + kInsignificantMs)) {
        takeMiddlewareTime(previousTime, newTime);
    }
    previousTime = newTime;
    previousRef = now;
}

void TimeMgrImpl::takeMiddlewareTime(long long previousTime, long long newTime) {
    const TimeReference ref;
    if (m_verbose) {
        coutdbg << kLogPrefix << "System time changed from " << previousTime << " to " << newTime
                << std::endl;
    }
    if (!isSystemTimeAcceptable(static_cast<unsigned long long>(newTime))) return;
    setTime(TimeSourceSystem, ref, UtcTimeMs(newTime));
}
