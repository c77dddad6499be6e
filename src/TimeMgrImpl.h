#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <time.h>

#include "JsonObject.h"
#include "TimeReference.h"
#include "UtcTimeMs.h"

class DB;

/// Where a UTC time comes from; a greater value is trusted more.
enum TimeSource : int { TimeSourceInvalid = -1, TimeSourceSystem = 0, TimeSourceWeb = 1 };

/// Writes the source's name.
std::ostream& operator<<(std::ostream& out, TimeSource source);

/// The application clock: UTC as last set by the best time source, carried on by the monotonic
/// clock; the system clock while it was never set. Any thread.
std::chrono::system_clock::time_point kivAppNow();

/// Turns time references into UTC. For each cycle and source it stores the UTC milliseconds of
/// kernel time 0, and it sets the application clock from the best source so far.
///
/// Reached through `Singleton<TimeMgrImpl>`; inactive until `setDBPath`. All operations from any
/// thread. Lock order: `DB::m_PruneLock`, then m_mutex.
class TimeMgrImpl {
  public:
    TimeMgrImpl();
    ~TimeMgrImpl();
    TimeMgrImpl(const TimeMgrImpl&) = delete;
    TimeMgrImpl& operator=(const TimeMgrImpl&) = delete;

    /// Opens the store at `path` and starts watching the middleware's time; an empty path stops.
    void setDBPath(const std::string& path);
    /// Starts or stops (cancels and joins) the thread that watches the middleware's time.
    void setAutoUpdateSystemTime(bool on);
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
    friend std::chrono::system_clock::time_point kivAppNow();

    /// The application clock as last set; all zero before.
    struct AppClock {
        timespec utc;
        timespec monotonic;  ///< CLOCK_MONOTONIC at the setting
    };
    class StoreLock;

    static void checkSystemTime(TimeMgrImpl* manager);
    void checkSystemTimeThread();
    void startChecker();
    void endPause(bool stops);
    static int openPipe();
    void pauseBeforeReopening();
    void watchPipe(int fd, std::vector<char>& buffer, long long& previousTime);
    void handleMiddlewareTime(const std::string& text, long long& previousTime,
                              TimeReference& previousRef);
    void takeMiddlewareTime(long long previousTime, long long newTime);
    bool hasDatabase() const;
    void closeDatabase();
    void openDatabase(const std::string& path);
    void setClockFrom(TimeSource source, UtcTimeMs utc);
    void forgetStartTime(TimeSource source, const TimeReference& ref);
    void changeTime(TimeSource source, const TimeReference& ref, std::int64_t oldTime,
                    std::int64_t newTime);
    static void announceDBPathSet();

    static std::string m_pipePath;          ///< the middleware's named pipe
    static std::mutex m_appClockMutex;      ///< guards m_appClock; a leaf
    static AppClock m_appClock;             ///< written by setSystemTime only
    static std::mutex m_gateMutex;          ///< guards m_dbPathExpected
    static std::condition_variable m_gate;  ///< signalled when m_dbPathExpected falls
    static bool m_dbPathExpected;           ///< announced, and not set yet

    std::string m_dbPath;
    std::unique_ptr<DB> m_db;
    std::thread m_checker;
    std::int32_t m_currentSource = TimeSourceInvalid;
    mutable std::mutex m_mutex;      ///< guards m_db, m_dbPath, m_currentSource, m_errorCallback
    std::mutex m_checkerMutex;       ///< guards m_checker: start, stop and join
    std::mutex m_wakeMutex;          ///< guards m_checkerStops
    std::condition_variable m_wake;  ///< signalled when m_checkerStops rises
    bool m_checkerStops = false;     ///< ends the checker's pause between two openings
    std::function<void()> m_errorCallback;
};
