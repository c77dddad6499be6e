#include "UploadSchedule.h"

#include "KernelTime.h"
#include "Status.h"
#include "UploadLog.h"

#include <algorithm>
#include <map>

namespace {

constexpr long long kMaxDelayMs = 2147483647;  ///< a delay's width, and about 24 days

const ClassLog& s_log = UploadLog::log;

/// The job's timer will end at that moment, in monotonic ms; 0: it has.
void noteDue(int id, std::int64_t moment) {
    constexpr Status::Fact facts[] = {Status::NextEvents, Status::NextFiles, Status::NextRefresh,
                                      Status::NextTimeCheck, Status::NextInitialization};
    if (id >= UploadSchedule::UploadEvents && id <= UploadSchedule::Initialization)
        Status::set(facts[id - UploadSchedule::UploadEvents], moment);
}

}  // namespace

/// The living schedules by their numbers.
struct UploadSchedule::Instances {
    unsigned int add(UploadSchedule& schedule);
    void remove(unsigned int instance);
    /// Calls `use` with the schedule of that number, if it lives.
    template <typename Use>
    void with(unsigned int instance, Use use);

    std::mutex mutex;  ///< guards the rest; held while a schedule found here is used
    unsigned int last = 0;
    std::map<unsigned int, UploadSchedule*> living;
};

unsigned int UploadSchedule::Instances::add(UploadSchedule& schedule) {
    const std::lock_guard<std::mutex> lock(mutex);
    living[++last] = &schedule;
    return last;
}

void UploadSchedule::Instances::remove(unsigned int instance) {
    const std::lock_guard<std::mutex> lock(mutex);
    living.erase(instance);
}

template <typename Use>
void UploadSchedule::Instances::with(unsigned int instance, Use use) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = living.find(instance);
    if (found != living.end()) use(*found->second);
}

UploadSchedule::Instances& UploadSchedule::instances() {
    static Instances table;
    return table;
}

UploadSchedule::UploadSchedule()
    : m_queue(std::make_unique<UploadMessageQueue>()), m_instance(instances().add(*this)) {}

UploadSchedule::~UploadSchedule() {
    instances().remove(m_instance);
}

void UploadSchedule::post(int id, long param) {
    if (m_queue->push({id, param})) s_log.info(" Send message ", id, " ", param);
}

void UploadSchedule::request(std::uint64_t& timer, long long delay, int id, long param) {
    if (delay == 0) {
        post(id, param);
        return;
    }
    const long long clamped = std::min(std::max(delay, 1LL), kMaxDelayMs);
    const std::lock_guard<std::mutex> lock(m_timerMutex);
    if (timer != 0) m_timers.cancel(timer);
    timer = m_timers.add(clamped, m_instance, id, postTo);
    noteDue(id, KernelTime::getTimeMonotonicAsInt64() + clamped);
}

void UploadSchedule::requestEventsUpload(long delay) {
    request(m_eventsUploadTimer, delay, UploadEvents, 0);
}

void UploadSchedule::requestFilesUpload(long delay) {
    request(m_filesUploadTimer, delay, UploadFiles, 0);
}

void UploadSchedule::requestEventsTimeCheck(long delay) {
    request(m_eventsTimeCheckTimer, delay, EventsTimeCheck, 0);
}

void UploadSchedule::requestRefreshConfig(long delay, bool force) {
    s_log.info("ScheduleRefreshConfig delay:", delay);
    request(m_refreshConfigTimer, delay, RefreshConfig, force ? 1 : 0);
}

void UploadSchedule::requestInitialization(long delay) {
    request(m_initializationTimer, delay, Initialization, 0);
}

long UploadSchedule::delayOfSeconds(std::int64_t seconds) {
    return static_cast<long>(std::min<std::int64_t>(seconds, kMaxDelayMs / 1000) * 1000);
}

void UploadSchedule::postTo(bool cancelled, unsigned int instance, int id) {
    if (cancelled) return;
    noteDue(id, 0);
    instances().with(instance, [id](UploadSchedule& schedule) { schedule.post(id, 0); });
}

void UploadSchedule::requestRefreshConfigOf(unsigned int instance, long delayMs, bool force) {
    instances().with(
        instance, [=](UploadSchedule& schedule) { schedule.requestRefreshConfig(delayMs, force); });
}
