#include "TimeMgrImpl.h"

#include "CGlobalInfoImpl.h"
#include "ClassLog.h"
#include "DB.h"
#include "Singleton.h"
#include "Status.h"

#include <limits>
#include <utility>

namespace {

const ClassLog s_log("TimeMgr: ", TimeMgrImpl::m_verbose);

constexpr std::int64_t kInsignificantMs = 60000;    // changes up to this are ignored
constexpr std::int64_t kEarliestBoot = 1470009599;  // UTC seconds: 2016-07-31T23:59:59Z
constexpr std::int64_t kBuildTimeMargin = 60;       // seconds

/// a + b, held at the ends of the range.
std::int64_t saturatedSum(std::int64_t a, std::int64_t b) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return a > 0 ? Limits::max() : Limits::min();
}

void reportNoDatabase(const char* operation) {
    s_log.error(operation, "No DB set");
}

}  // namespace

/// Holds the store's lock and then the time manager's: the order on every path to the database.
class TimeMgrImpl::StoreLock {
  public:
    explicit StoreLock(std::mutex& mutex) : m_store(DB::m_PruneLock), m_own(mutex) {}

  private:
    const std::lock_guard<std::recursive_mutex> m_store;
    const std::lock_guard<std::mutex> m_own;
};

bool TimeMgrImpl::m_verbose = false;
std::mutex TimeMgrImpl::m_gateMutex;
std::condition_variable TimeMgrImpl::m_gate;
bool TimeMgrImpl::m_dbPathExpected = false;

// --- names --------------------------------------------------------------------------------------

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

// --- life ---------------------------------------------------------------------------------------

TimeMgrImpl::TimeMgrImpl()
    : m_middlewareTime(s_log, [this](long long previousTime, long long newTime) {
          takeMiddlewareTime(previousTime, newTime);
      }) {}

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
    m_unstored.clear();
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
    const Cycle cycle = ref.cycle();
    const std::int64_t inMemory = unstoredStart(source, cycle);
    const std::int64_t start =
        inMemory != 0 ? inMemory : m_db->getStartTime(cycle.bootCount, cycle.standbyCount, source);
    s_log.info("getTime ts=", source,       //
               " bc = ", ref.bootCount,     //
               " sc = ", ref.standbyCount,  //
               " utc = ", start);
    return start;
}

/// What the store did not take of that cycle; 0: nothing. With the locks held.
std::int64_t TimeMgrImpl::unstoredStart(TimeSource source, const Cycle& cycle) const {
    const auto found = m_unstored.find(source);
    return found != m_unstored.end() && found->second.cycle == cycle ? found->second.start : 0;
}

bool TimeMgrImpl::waitsForTheStore(TimeSource source, const TimeReference& ref) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return unstoredStart(source, ref.cycle()) != 0;
}

/// What the store does not take holds in memory: or the time would be asked for again and again.
/// With the locks held. @return 0 when it is stored
int TimeMgrImpl::store(TimeSource source, const Cycle& cycle, std::int64_t start) {
    const int result = m_db->setStartTime(cycle.bootCount, cycle.standbyCount, source, start);
    if (result != 0) {
        m_unstored[source] = {cycle, start};
    } else if (unstoredStart(source, cycle) != 0) {
        m_unstored.erase(source);
    }
    return result;
}

UtcTimeMs TimeMgrImpl::timeSince(std::int64_t startTime, std::int64_t kernelTime) {
    return startTime == 0 ? 0 : saturatedSum(startTime, kernelTime);
}

UtcTimeMs TimeMgrImpl::getTime(TimeSource source, const TimeReference& ref) const {
    const std::int64_t start = getStartTime(source, ref);
    if (start == 0) return 0;
    const std::int64_t utc = timeSince(start, ref.kernelTime);
    s_log.info("getTime for tr=", ref, " is ", utc);
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
    const UtcTimeMs system = getTime(TimeSourceSystem, ref);
    return timesAsJson(system, getTime(TimeSourceWeb, ref));
}

JsonObject TimeMgrImpl::timesAsJson(UtcTimeMs system, UtcTimeMs web) {
    JsonObject times = JsonObject::createArray();
    for (const auto& [source, utc] : {std::pair(TimeSourceSystem, system), {TimeSourceWeb, web}}) {
        JsonObject time;
        time.Pack("{s:s, s:I}",                          //
                  "src", getTimeSourceAsString(source),  //
                  "utc", static_cast<json_int_t>(utc));
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
    s_log.info("setTime ts=", source, " timeRef = ", ref, " to utc = ", newTime);
    if (newTime == 0) {
        forgetStartTime(source, ref);
        return;
    }
    setClockFrom(source, utc);

    const std::int64_t oldTime = getTime(source, ref);
    if (utc.distanceTo(oldTime) <= kInsignificantMs && !waitsForTheStore(source, ref)) {
        s_log.info("No significant change in time. Not updating. Old time = ", oldTime,
                   " New time = ", newTime);
        return;
    }
    changeTime(source, ref, oldTime, newTime);
}

void TimeMgrImpl::setSystemTime(UtcTimeMs utc) {
    s_log.info("setSystemTime: ", std::int64_t{utc});
    AppClock::set(utc);
}

/// Sets the application clock, unless a better source has set it.
void TimeMgrImpl::setClockFrom(TimeSource source, UtcTimeMs utc) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_currentSource > source) return;
    }
    // Without the lock: the watcher that is joined here may be about to take it. Its report ends
    // before the better time is set below.
    if (source == TimeSourceWeb) setAutoUpdateSystemTime(false);

    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_currentSource > source) return;
    m_currentSource = source;
    Status::set(Status::ClockSource, source + 1);
    setSystemTime(utc);
}

void TimeMgrImpl::forgetStartTime(TimeSource source, const TimeReference& ref) {
    const StoreLock lock(m_mutex);
    if (m_db == nullptr) return;
    store(source, ref.cycle(), 0);
}

void TimeMgrImpl::changeTime(TimeSource source, const TimeReference& ref, std::int64_t oldTime,
                             std::int64_t newTime) {
    const std::int64_t start = saturatedSum(newTime, -ref.kernelTime);
    s_log.info("Utc of start of session = ", start);
    const Cycle cycle = ref.cycle();
    std::function<void()> report;  // called without the locks
    {
        const StoreLock lock(m_mutex);
        if (m_db == nullptr) return;
        const int result = store(source, cycle, start);
        s_log.info("Time changed from ", oldTime, " to ", newTime);
        if (result != 0 || DB::m_dbError) report = m_errorCallback;
    }
    if (report) report();
}

// --- the middleware's time ----------------------------------------------------------------------

void TimeMgrImpl::setAutoUpdateSystemTime(bool on) {
    m_middlewareTime.setWatching(on);
}

/// On the watcher thread.
void TimeMgrImpl::takeMiddlewareTime(long long previousTime, long long newTime) {
    const TimeReference ref;
    s_log.info("System time changed from ", previousTime, " to ", newTime);
    if (!isSystemTimeAcceptable(static_cast<unsigned long long>(newTime))) return;
    setTime(TimeSourceSystem, ref, UtcTimeMs(newTime));
}
