// The texts of times: the Date header on its way to the application clock, the other text forms,
// the time that a sender gives with its event; and numbers as texts.
//
// Input: eight bytes of a number, then the text.

#include "AppClock.h"
#include "CGlobalInfoImpl.h"
#include "EventTimeRework.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UtcTime.h"
#include "UtcTimeMs.h"
#include "WebTimeImpl.h"
#include "support/AppClockPeer.h"
#include "support/Fuzz.h"
#include "support/NoNetwork.h"
#include "support/WebTimeImplPeer.h"

#include <aws/core/utils/DateTime.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include <time.h>

namespace {

constexpr char kHttpDate[] = "%a, %d %b %Y %H:%M:%S GMT";

std::string httpDate(std::int32_t seconds) {
    const time_t moment = seconds;
    struct tm fields {};
    char text[64];
    ::strftime(text, sizeof text, kHttpDate, ::gmtime_r(&moment, &fields));
    return text;
}

bool isTheEpoch(const std::string& text) {
    constexpr const char* forms[] = {kHttpDate, "%a %b %d %H:%M:%S GMT %Y",
                                     "%a %d %b %Y %H:%M:%S GMT", "UTC time=%Y%m%d %H:%M:%S="};
    return std::any_of(std::begin(forms), std::end(forms),
                       [&text](const char* form) { return UtcTime().parseTime(text, form) == 0; });
}

/// Every number of seconds can be written and read again.
void checkSeconds(std::int32_t seconds) {
    const UtcTime time(seconds);
    fuzz::demand(time.getString().size() == 24, "a time has 24 characters", time.getString());
    fuzz::demand(time.getDateString() == time.getString().substr(0, 10), "and begins with its day");
    const std::int64_t again = UtcTime().parseTime(httpDate(seconds), kHttpDate);
    fuzz::demand(again == seconds, "an HTTP date comes back", httpDate(seconds));
}

void checkMilliseconds(std::int64_t number) {
    const UtcTimeMs time(number);
    const std::string text = time.getString();
    fuzz::demand(text.size() == 24, "a time has 24 characters", text);
    const std::string seconds = UtcTime(static_cast<std::int32_t>(number / 1000)).getString();
    fuzz::demand(text.substr(0, 19) == seconds.substr(0, 19), "and begins with its seconds", text);
    fuzz::demand(time.distanceTo(0) == UtcTimeMs(0).distanceTo(time),
                 "a distance has no direction");
    AppClock::set(time);
    const auto first = kivAppNow();
    fuzz::demand(first <= kivAppNow(), "the application clock goes forward", text);
    const std::int64_t moment = number / (1 << 20);  // what the system's clock can hold
    const Aws::Utils::DateTime date(moment);
    fuzz::demand(date.Millis() == moment, "a moment keeps its milliseconds");
    fuzz::demand(date.ToGmtString("%Y-%m-%dT%H:%M:%SZ").size() >= 20, "and has its text");
}

/// From the header to the application clock.
void checkDateHeader(const std::string& text, std::int32_t seconds) {
    const auto& manager = fuzz::forever<Singleton<TimeMgrImpl>>();
    const auto& device = fuzz::forever<Singleton<CGlobalInfoImpl>>();
    static bool isOpen = false;
    if (!isOpen) {
        device->setBootCounts(7, 2);
        manager->setDBPath(fuzz::pathOf("Db"));
    }
    isOpen = true;
    const TimeReference now;
    manager->setTime(TimeSourceWeb, now, 0);
    AppClockPeer::forget();
    WebTimeImpl::m_WebTime = 0;
    WebTimeImplPeer::pause().forget();
    url_data answer;
    answer.status = 200;
    answer.date = text;
    fuzz::answerWith(answer);
    WebTimeImpl web;
    fuzz::demand(!web.getWebTime(), "the call that fetches the time returns false");
    const std::int64_t known = manager->getTime(TimeSourceWeb, TimeReference()) / 1000;
    const bool acceptable =
        manager->isSystemTimeAcceptable(static_cast<unsigned long long>(seconds));
    if (!acceptable) {
        fuzz::demand(known == 0, "what cannot be now is not taken", text);
        return;
    }
    fuzz::demand(known >= seconds && known <= std::int64_t{seconds} + 60,
                 "the time is the header's", text);
    const auto clock = std::chrono::system_clock::to_time_t(kivAppNow());
    fuzz::demand(clock >= std::int64_t{seconds} - 1 && clock <= std::int64_t{seconds} + 60,
                 "and so is the clock's", text);
    fuzz::demand(web.getWebTime() && web.getWebTimeValue() >= seconds, "and it stays known", text);
}

/// The time that came with an event.
void checkGivenTime(const std::string& text) {
    if (text.find('\0') != std::string::npos) return;  // no JSON text of the queue has one
    JsonObject event = JsonObject::createObject();
    event.set("utc-time", text);
    event.set("boot-count", JsonObject::createInteger(7));
    event.set("kernel-time", JsonObject::createInteger(1000));
    std::string written = event.dumpAsString();
    const std::int64_t given = EventTimeRework::reworkEventTime(written, true);
    const JsonObject after = JsonObject::parse(written);
    fuzz::demand(after.isObject() || !event.getObject("utc-time").isString(), "it stays an event",
                 written);
    UtcTimeMs(given).getString();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::int64_t number = 0;
    if (size < sizeof number) return -1;
    std::memcpy(&number, data, sizeof number);
    const std::string text(data + sizeof number, data + size);
    const fuzz::TimeBound bound(2);
    const auto seconds = static_cast<std::int32_t>(number);
    if (seconds != -1) checkSeconds(seconds);
    checkMilliseconds(number);
    fuzz::errorLines();
    const std::int32_t parsed = UtcTime(text).seconds();
    fuzz::demand(parsed != 0 || fuzz::errorLines() > 0 || isTheEpoch(text),
                 "a text that is not a time has its line", text);
    if (parsed != 0) checkSeconds(parsed);
    if (parsed != 0) checkDateHeader(text, parsed);
    checkGivenTime(text);
    return 0;
}
