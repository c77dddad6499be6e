#include "WebTimeImpl.h"

#include "ClassLog.h"
#include "NetworkHelper.h"
#include "ServiceTables.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UtcTime.h"
#include "UtcTimeMs.h"

#include <cstdio>

namespace {

ClassLog s_log("kivwebtime: ");

}  // namespace

std::atomic<std::int64_t> WebTimeImpl::m_WebTime{0};

bool WebTimeImpl::getWebTime() {
    {
        const TimeReference now;
        const Singleton<TimeMgrImpl> timeManager;
        m_WebTime = timeManager->getTime(TimeSourceWeb, now) / 1000;
    }
    if (m_WebTime == 0) takeTimeFromServer();
    // Not read again: the call that obtains the time still says that it was not known.
    return m_WebTime != 0;
}

long long WebTimeImpl::getWebTimeValue() {
    return m_WebTime;
}

void WebTimeImpl::takeTimeFromServer() {
    s_log.info(" trying to get time from server... ");
    NetworkHelper request;
    const std::string url = ServiceTables::getWebTimeUrl();
    if (!request.UrlRequest(url, false, ServiceTables::getLambdaKey())) {
        s_log.error("Time could not be retrieved from server");
    } else if (request.date.empty()) {
        s_log.error("No time received");
    } else {
        setTimeFromDate(request.date);
    }
}

void WebTimeImpl::setTimeFromDate(const std::string& date) {
    if (s_log.isVerbose()) {
        std::printf("%s Setting time from the date received from server being:  %s\n", s_log.tag(),
                    date.c_str());
    }
    const std::int32_t seconds = UtcTime(date).seconds();
    const Singleton<TimeMgrImpl> timeManager;
    if (!timeManager->isSystemTimeAcceptable(static_cast<unsigned long long>(seconds))) return;
    timeManager->setTime(TimeSourceWeb, TimeReference(),
                         UtcTimeMs(static_cast<std::int64_t>(seconds) * 1000));
}

void WebTimeImpl::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool WebTimeImpl::GetVerbose() {
    return s_log.isVerbose();
}
