#include "CycleTimes.h"

#include "DB.h"

CycleTimes::CycleTimes(const TimeMgrImpl& timeManager) : m_timeManager(timeManager) {}

CycleTimes::~CycleTimes() = default;

CycleTimes::Moment CycleTimes::momentOf(const TimeReference& ref) {
    for (const TimeSource source : {TimeSourceWeb, TimeSourceSystem}) {
        const UtcTimeMs time = timeBy(source, ref);
        if (time != 0) return {source, time};
    }
    return {};
}

JsonObject CycleTimes::allTimesAsJson(const TimeReference& ref) {
    const UtcTimeMs system = timeBy(TimeSourceSystem, ref);
    return TimeMgrImpl::timesAsJson(system, timeBy(TimeSourceWeb, ref));
}

UtcTimeMs CycleTimes::timeBy(TimeSource source, const TimeReference& ref) {
    Starts& starts = m_starts[ref.cycle()];
    std::optional<std::int64_t>& start = source == TimeSourceWeb ? starts.web : starts.system;
    if (!start) start = m_timeManager.getStartTime(source, ref);
    return TimeMgrImpl::timeSince(*start, ref.kernelTime);
}

unsigned int CycleTimes::operatingMinutes(const Cycle& cycle, const std::string& dbPath) {
    if (m_store == nullptr) {
        m_store = std::make_unique<DB>();
        m_store->open(dbPath, false);
    }
    return m_store->getOpTime(cycle.bootCount, cycle.standbyCount);
}
