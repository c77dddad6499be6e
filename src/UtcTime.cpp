#include "UtcTime.h"

#include "ClassLog.h"

#include <limits>

namespace {

const ClassLog s_log("UtcTime: ");

constexpr const char* kTextForms[] = {
    "%a, %d %b %Y %H:%M:%S GMT",
    "%a %b %d %H:%M:%S GMT %Y",
    "%a %d %b %Y %H:%M:%S GMT",
    "UTC time=%Y%m%d %H:%M:%S=",
};

constexpr time_t kUnparsed = -1;

// 1970-01-01 12:00:00 UTC, far enough from both ends of its day for most zones.
constexpr time_t kCalibrationInstant = 43200;

bool fits32Bits(std::int64_t seconds) {
    return seconds >= std::numeric_limits<std::int32_t>::min() &&
           seconds <= std::numeric_limits<std::int32_t>::max();
}

bool readFields(const std::string& text, const char* format, struct tm& fields) {
    const char* end = ::strptime(text.c_str(), format, &fields);
    return end != nullptr && end == text.c_str() + text.size();
}

// The local zone's distance from UTC in seconds, to the minute, as it was at the calibration
// instant: neither daylight-saving time nor later changes of the zone count.
bool readZoneOffset(std::int64_t& offset) {
    struct tm local {};
    if (::localtime_r(&kCalibrationInstant, &local) == nullptr) {
        s_log.error("Cannot determine 'calibration time'");
        return false;
    }
    offset = std::int64_t{60} * local.tm_min + std::int64_t{3600} * local.tm_hour -
             std::int64_t{kCalibrationInstant};
    return true;
}

}  // namespace

UtcTime::UtcTime(const std::string& text) : m_seconds(0) {
    m_seconds = static_cast<std::int32_t>(parseTime(text));
}

time_t UtcTime::parseTime(const std::string& text, const char* format) const {
    struct tm fields {};
    if (!readFields(text, format, fields)) return kUnparsed;

    // Local on purpose; it also takes over the zone that the correction asks for.
    const time_t local = ::mktime(&fields);
    if (local == kUnparsed || !fits32Bits(local)) return kUnparsed;

    std::int64_t offset = 0;
    if (!readZoneOffset(offset)) return kUnparsed;
    const std::int64_t utc = local + offset;
    return fits32Bits(utc) ? static_cast<time_t>(utc) : kUnparsed;
}

time_t UtcTime::parseTime(const std::string& text) const {
    for (const char* form : kTextForms) {
        const time_t seconds = parseTime(text, form);
        if (seconds != kUnparsed) return seconds;
    }
    s_log.error("Failed to parse time: ", ClassLog::foreign(text));
    return 0;
}

std::string UtcTime::getString() const {
    return format("%Y-%m-%dT%H:%M:%S.000Z");
}

std::string UtcTime::getDateString() const {
    return format("%Y-%m-%d");
}

std::string UtcTime::format(const char* pattern) const {
    const time_t seconds = m_seconds;
    struct tm fields {};
    char text[128];
    if (::gmtime_r(&seconds, &fields) == nullptr ||
        ::strftime(text, sizeof text, pattern, &fields) == 0) {
        s_log.error("Conversion of time ", m_seconds, " to string failed");
        return "";
    }
    return text;
}
