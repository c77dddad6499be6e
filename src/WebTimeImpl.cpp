#include "WebTimeImpl.h"

#include "ClassLog.h"
#include "NetworkHelper.h"
#include "ServiceTables.h"
#include "Singleton.h"
#include "Status.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UtcTime.h"
#include "UtcTimeMs.h"

#include <cstdio>

namespace {

ClassLog s_log("kivwebtime: ");

}  // namespace

std::atomic<std::int64_t> WebTimeImpl::m_WebTime{0};
RetryPause WebTimeImpl::m_pause;

bool WebTimeImpl::getWebTime() {
    m_WebTime = knownSeconds();
    if (m_WebTime != 0) return true;
    if (m_pause.leftMs() > 0) {
        s_log.info(" no request for the time within the next ", m_pause.leftMs(), "ms");
        return false;
    }
    m_pause.lengthen();  // before the attempt, which may throw
    takeTimeFromServer();
    if (knownSeconds() != 0) {
        m_pause.forget();
    } else {
        m_pause.beginAnew();
    }
    // m_WebTime is not read again: the call that obtains the time still says that it was unknown.
    return false;
}

/// UTC of this moment by web time; 0 when unknown.
std::int64_t WebTimeImpl::knownSeconds() {
    const TimeReference now;
    const Singleton<TimeMgrImpl> timeManager;
    return timeManager->getTime(TimeSourceWeb, now) / 1000;
}

long long WebTimeImpl::getWebTimeValue() {
    return m_WebTime;
}

void WebTimeImpl::takeTimeFromServer() {
    s_log.info(" trying to get time from server... ");
    NetworkHelper request;
    const std::string url = ServiceTables::getWebTimeUrl();
    request.allowUnknownTime();
    request.countFor(Status::Time);
    if (!request.UrlRequest(url, false, ServiceTables::getLambdaKey()) || !request.isGoodAnswer()) {
        s_log.error("Time could not be retrieved from server");
    } else if (request.date.empty()) {
        s_log.error("No time received");
        Status::failed(Status::Time, "the answer has no date");
    } else if (takeDate(request.date, s_log) == 0) {
        Status::failed(Status::Time, "the server's date cannot be now: " + request.date);
    }
}

std::int32_t WebTimeImpl::takeDate(const std::string& date, const ClassLog& log) {
    if (log.isVerbose()) {
        std::printf("%s Setting time from the date received from server being:  %s\n", log.tag(),
                    date.c_str());
    }
    const std::int32_t seconds = UtcTime(date).seconds();
    const Singleton<TimeMgrImpl> timeManager;
    if (!timeManager->isSystemTimeAcceptable(static_cast<unsigned long long>(seconds))) {
        // A text that is not a date has its line already.
        if (seconds != 0) log.error("The server's date cannot be now: ", ClassLog::foreign(date));
        return 0;
    }
    timeManager->setTime(TimeSourceWeb, TimeReference(),
                         UtcTimeMs(static_cast<std::int64_t>(seconds) * 1000));
    return seconds;
}

void WebTimeImpl::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool WebTimeImpl::GetVerbose() {
    return s_log.isVerbose();
}
