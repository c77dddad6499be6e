#include "EventTimeRework.h"

#include "CycleTimes.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UploadLog.h"

#include <stdexcept>

namespace {

const ClassLog& s_log = UploadLog::log;

/// All zero for an event that could not be parsed.
TimeReference referenceOf(const JsonObject& event) {
    const Cycle cycle(event.optInteger("boot-count", 0), event.optInteger("standby-count", 0));
    return TimeReference(cycle, event.optInteger("kernel-time", 0));
}

/// The time that the sender knew, in milliseconds; 0 when it gave none or no readable one.
std::int64_t givenTime(const JsonObject& event) {
    const std::string text = event.optString("utc-time");
    if (text.empty()) return 0;
    try {
        return std::stoll(text);
    } catch (const std::logic_error&) {
        s_log.error("Cannot convert this string to a long long!");
        return 0;
    }
}

void writeTime(JsonObject& event, const std::string& text, std::int64_t time, bool dropUnknown) {
    if (time == 0 && dropUnknown) {
        s_log.info("Removing UTC-Time in event:", text);
        event.del("utc-time");
    } else {
        s_log.info("Replacing UTC-Time in event:", text);
        event.set("utc-time", std::to_string(time));
    }
}

void writeSource(JsonObject& event, TimeSource source) {
    if (source == TimeSourceInvalid) return;
    s_log.info("Add time source ", source);
    event.set("utc-src", std::string(TimeMgrImpl::getTimeSourceAsString(source)));
}

/// For an event whose sender knew no time.
std::int64_t timeByItsCycle(JsonObject& event, const std::string& text, bool dropUnknown,
                            CycleTimes& times) {
    const CycleTimes::Moment moment = times.momentOf(referenceOf(event));
    const std::int64_t time = moment.time;
    if (!event.isNull()) {
        writeTime(event, text, time, dropUnknown);
        writeSource(event, moment.source);
        s_log.info("Event as JSON object: ", [&] { return event.dumpAsString(); });
    }
    s_log.info("Event utcTime = ", time);
    return time;
}

}  // namespace

std::int64_t EventTimeRework::reworkEventTime(std::string& event, bool dropUnknown) {
    JsonObject json = JsonObject::parse(event);
    const std::int64_t given = givenTime(json);
    if (given != 0) return given;
    const Singleton<TimeMgrImpl> timeManager;
    CycleTimes times(*timeManager);
    const std::int64_t time = timeByItsCycle(json, event, dropUnknown, times);
    const std::string text = json.dumpAsString();
    if (!text.empty() && text.front() != '(') event = text;  // else it could not be dumped
    return time;
}

std::int64_t EventTimeRework::reworkEventTime(JsonObject& event, const std::string& text,
                                              bool dropUnknown, CycleTimes& times) {
    const std::int64_t given = givenTime(event);
    return given != 0 ? given : timeByItsCycle(event, text, dropUnknown, times);
}
