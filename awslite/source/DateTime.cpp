#include <aws/core/utils/DateTime.h>

#include <time.h>

namespace Aws {
namespace Utils {

namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

using BreakDown = tm* (*)(const time_t*, tm*);

String format(const system_clock::time_point& moment, const char* pattern, BreakDown breakDown) {
    const time_t seconds = system_clock::to_time_t(moment);
    tm fields{};
    if (breakDown(&seconds, &fields) == nullptr) return String();
    char text[256];
    return String(text, ::strftime(text, sizeof text, pattern, &fields));
}

}  // namespace

DateTime::DateTime(int64_t millisSinceEpoch) : m_moment(milliseconds(millisSinceEpoch)) {}

DateTime::DateTime(const system_clock::time_point& moment) : m_moment(moment) {}

DateTime DateTime::Now() {
    return DateTime(system_clock::now());
}

String DateTime::CalculateLocalTimestampAsString(const char* pattern) {
    return Now().ToLocalTimeString(pattern);
}

String DateTime::CalculateGmtTimestampAsString(const char* pattern) {
    return Now().ToGmtString(pattern);
}

String DateTime::ToLocalTimeString(const char* pattern) const {
    ::tzset();  // localtime_r need not look at TZ
    return format(m_moment, pattern, ::localtime_r);
}

String DateTime::ToGmtString(const char* pattern) const {
    return format(m_moment, pattern, ::gmtime_r);
}

int64_t DateTime::Millis() const {
    return std::chrono::duration_cast<milliseconds>(m_moment.time_since_epoch()).count();
}

}  // namespace Utils
}  // namespace Aws
