#include "EventTimeRework.h"

#include "DbgOut.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UploadImpl.h"

#include <stdexcept>

#include <inttypes.h>
#include <stdio.h>

namespace {

constexpr char kTag[] = "kivUpload: ";

template <typename... Parts>
void logLine(const Parts&... parts) {
    if (UploadImpl::GetVerbose()) ((coutdbg << kTag) << ... << parts) << std::endl;
}

TimeReference referenceOf(const JsonObject& event) {
    return TimeReference(static_cast<std::uint32_t>(event.optInteger("boot-count", 0)),
                         static_cast<std::uint32_t>(event.optInteger("standby-count", 0)),
                         event.optInteger("kernel-time", 0));
}

/// The time that the sender knew, in milliseconds; 0 when it gave none or no readable one.
std::int64_t givenTime(const JsonObject& event) {
    const std::string text = event.optString("utc-time");
    if (text.empty()) return 0;
    try {
        return std::stoll(text);
    } catch (const std::logic_error&) {
        cerrdbg << kTag << "Cannot convert this string to a long long!" << std::endl;
        return 0;
    }
}

std::string decimal(std::int64_t number) {
    char text[24] = "";
    ::snprintf(text, sizeof text, "%" PRId64, number);
    return text;
}

void writeTime(JsonObject& event, const std::string& text, std::int64_t time, bool dropUnknown) {
    if (time == 0 && dropUnknown) {
        logLine("Removing UTC-Time in event:", text);
        event.del("utc-time");
    } else {
        logLine("Replacing UTC-Time in event:", text);
        event.set("utc-time", decimal(time));
    }
}

void writeSource(JsonObject& event, TimeSource source) {
    if (source == TimeSourceInvalid) return;
    logLine("Add time source ", source);
    event.set("utc-src", std::string(TimeMgrImpl::getTimeSourceAsString(source)));
}

}  // namespace

std::int64_t EventTimeRework::reworkEventTime(std::string& event, bool dropUnknown) {
    JsonObject json = JsonObject::parse(event);
    TimeReference reference(0, 0, 0);
    if (!json.isNull()) {
        reference = referenceOf(json);
        const std::int64_t given = givenTime(json);
        if (given != 0) return given;
    }
    const Singleton<TimeMgrImpl> timeManager;
    const TimeSource source = timeManager->getPreferredTimeSource(reference);
    std::int64_t time = 0;
    if (source != TimeSourceInvalid) time = timeManager->getTime(source, reference);
    if (!json.isNull()) {
        writeTime(json, event, time, dropUnknown);
        writeSource(json, source);
        const std::string text = json.dumpAsString();
        logLine("Event as JSON object: ", text);
        if (!text.empty() && text.front() != '(') event = text;  // else it could not be dumped
    }
    logLine("Event utcTime = ", time);
    return time;
}
