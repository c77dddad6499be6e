#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

#include "AppClock.h"
#include "Cycle.h"
#include "JsonObject.h"
#include "MiddlewareTime.h"
#include "TimeReference.h"
#include "UtcTimeMs.h"

class DB;

/// Where a UTC time comes from; a greater value is trusted more.
enum TimeSource : int { TimeSourceInvalid = -1, TimeSourceSystem = 0, TimeSourceWeb = 1 };

/// Writes the source's name.
std::ostream& operator<<(std::ostream& out, TimeSource source);

/// Turns time references into UTC. For each cycle and source it stores the UTC milliseconds of
/// kernel time 0, and it sets the application clock (`kivAppNow`) from the best source so far.
///
/// It asks no server, and does not watch the middleware itself: `WebTimeImpl` and `MiddlewareTime`
/// bring it times, and it decides which it takes. Reached through `Singleton<TimeMgrImpl>`;
/// inactive until `setDBPath`. All operations from any thread. Lock order: `DB::m_PruneLock`, then
/// m_mutex. Without a database times are 0 and are not set, with an error line; a start time that
/// cannot be stored calls the error callback, and holds in memory until the store takes one.
class TimeMgrImpl {
  public:
    TimeMgrImpl();
    ~TimeMgrImpl();
    TimeMgrImpl(const TimeMgrImpl&) = delete;
    TimeMgrImpl& operator=(const TimeMgrImpl&) = delete;

    /// Opens the store at `path` and starts watching the middleware's time; an empty path stops.
    void setDBPath(const std::string& path);
    /// Starts or stops (cancels and joins) the thread that watches the middleware's time. Refused,
    /// with an error line, on that thread itself.
    void setAutoUpdateSystemTime(bool on);
    /// Starts that watch where it could not be started. @return whether none is missing
    bool startMissingThread() { return m_middlewareTime.startMissingThread(); }
    /// A source reports that the moment `ref` is `utc`; changes of up to a minute are ignored,
    /// `utc` 0 forgets.
    void setTime(TimeSource source, const TimeReference& ref, UtcTimeMs utc);
    /// The UTC milliseconds of kernel time 0 of the cycle of `ref` by that source; 0 when unknown.
    std::int64_t getStartTime(TimeSource source, const TimeReference& ref) const;
    /// The UTC of kernel time `kernelTime` (ms) of a cycle with that start time; 0 for start 0.
    static UtcTimeMs timeSince(std::int64_t startTime, std::int64_t kernelTime);
    /// The UTC of `ref` by that source; 0 when unknown.
    UtcTimeMs getTime(TimeSource source, const TimeReference& ref) const;
    /// By web time if known, else by system time, else 0.
    UtcTimeMs getTime(const TimeReference& ref = TimeReference()) const;
    /// The best source that knows the cycle of `ref`.
    TimeSource getPreferredTimeSource(const TimeReference& ref) const;
    /// [{"src": name, "utc": ms}, ...] for the two sources.
    JsonObject getAllTimesAsJson(const TimeReference& ref) const;
    /// The same of two times that are known already.
    static JsonObject timesAsJson(UtcTimeMs system, UtcTimeMs web);
    /// Whether `time` (UTC seconds) can be now: not 0, and the boot that it implies later than
    /// 2016-07-31T23:59:59Z and than the build time plus 60 s.
    bool isSystemTimeAcceptable(unsigned long long time) const;
    /// Called, on the thread that stores, when a start time cannot be stored.
    void setErrorCallback(std::function<void()> callback);

    /// Sets the application clock; the device's own clock is not touched.
    static void setSystemTime(UtcTimeMs utc);
    static const char* getTimeSourceAsString(int source);

    /// Announces that the start-up will call `setDBPath`, for `waitForDBPath`.
    static void expectDBPath();
    /// Waits until an announced `setDBPath` has happened (true), or `limit` has passed. Returns
    /// at once where none was announced.
    static bool waitForDBPath(std::chrono::milliseconds limit);

    static void SetVerbose(bool verbose) { m_verbose = verbose; }
    static bool GetVerbose() { return m_verbose; }
    static bool m_verbose;

  private:
    friend struct TimeMgrImplPeer;

    class StoreLock;

    /// A start time that the store did not take; 0: none.
    struct Unstored {
        Cycle cycle;
        std::int64_t start = 0;
    };

    std::int64_t unstoredStart(TimeSource source, const Cycle& cycle) const;
    bool waitsForTheStore(TimeSource source, const TimeReference& ref) const;
    int store(TimeSource source, const Cycle& cycle, std::int64_t start);
    void takeMiddlewareTime(long long previousTime, long long newTime);
    bool hasDatabase() const;
    void closeDatabase();
    void openDatabase(const std::string& path);
    void setClockFrom(TimeSource source, UtcTimeMs utc);
    void forgetStartTime(TimeSource source, const TimeReference& ref);
    void changeTime(TimeSource source, const TimeReference& ref, std::int64_t oldTime,
                    std::int64_t newTime);
    static void announceDBPathSet();

    static std::mutex m_gateMutex;          ///< guards m_dbPathExpected
    static std::condition_variable m_gate;  ///< signalled when m_dbPathExpected falls
    static bool m_dbPathExpected;           ///< announced, and not set yet

    std::string m_dbPath;
    std::unique_ptr<DB> m_db;
    std::int32_t m_currentSource = TimeSourceInvalid;
    std::map<TimeSource, Unstored> m_unstored;
    std::function<void()> m_errorCallback;
    mutable std::mutex m_mutex;  ///< guards the members above

    MiddlewareTime m_middlewareTime;
};
