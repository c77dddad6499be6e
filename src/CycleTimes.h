#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Cycle.h"
#include "JsonObject.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UtcTimeMs.h"

class DB;

/// The times of the cycles in one packet: each start time is asked for once, however many events
/// the cycle has, and one connection serves for the operating times of all.
///
/// It does not learn of a time that is set later: each packet has its own, which ends with the
/// packing. For one thread; must not outlive the time manager that it asks. Failures are those of
/// the time manager and of the store: results and error lines.
class CycleTimes {
  public:
    /// When a moment was, and who says so.
    struct Moment {
        TimeSource source = TimeSourceInvalid;
        UtcTimeMs time = 0;  ///< 0: unknown
    };

    explicit CycleTimes(const TimeMgrImpl& timeManager);
    ~CycleTimes();
    CycleTimes(const CycleTimes&) = delete;
    CycleTimes& operator=(const CycleTimes&) = delete;

    /// By web time if known, else by system time, else by none.
    Moment momentOf(const TimeReference& ref);
    /// [{"src": name, "utc": ms}, ...] for the two sources, as the time manager gives it.
    JsonObject allTimesAsJson(const TimeReference& ref);
    /// How long the set was in use in that cycle. @param dbPath the store that knows, the same at
    /// each call @return minutes; 0 when unknown
    unsigned int operatingMinutes(const Cycle& cycle, const std::string& dbPath);

  private:
    /// None: not asked for yet.
    struct Starts {
        std::optional<std::int64_t> web;
        std::optional<std::int64_t> system;
    };

    UtcTimeMs timeBy(TimeSource source, const TimeReference& ref);

    const TimeMgrImpl& m_timeManager;
    std::map<Cycle, Starts> m_starts;
    std::unique_ptr<DB> m_store;  ///< null: not needed yet
};
