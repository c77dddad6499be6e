#include "EventSessionHeader.h"

#include "BuildInfo.h"
#include "CGlobalInfoImpl.h"
#include "CountryCode.h"
#include "CycleTimes.h"
#include "DBToken.h"
#include "LocationInfo.h"
#include "PimAppVersion.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"

#include <memory>

#include <time.h>

std::string EventSessionHeader::m_DbPath;

namespace {

constexpr char kFormat[] =
    "{s:s, s:s, s:s, s:s, s:s, s:i, s:i, s:s, s:s, s:i, s:i, s:O, s:s, s:s, s:O, s:s}";

/// The local time offset: seconds east of UTC.
int localTimeOffset() {
    const time_t now = ::time(nullptr);
    struct tm local = {};
    if (::localtime_r(&now, &local) == nullptr) return 0;
    return static_cast<int>(local.tm_gmtoff);
}

std::string clientText() {
    return "kivApp " + BuildInfo::revisionText() + " " + BuildInfo::buildTimeText();
}

std::string siblingText() {
    const PimAppVersion::Version version = PimAppVersion::current();
    return "pimApp " + version.version + " " + version.buildDate;
}

}  // namespace

EventSessionHeader::EventSessionHeader(unsigned int bootCount, unsigned int standbyCount,
                                       UtcTimeMs startTime) {
    const Singleton<TimeMgrImpl> timeManager;
    CycleTimes times(*timeManager);
    m_text = textFor(Cycle(bootCount, standbyCount), startTime, times);
}

EventSessionHeader::EventSessionHeader(const Cycle& cycle, UtcTimeMs startTime, CycleTimes& times)
    : m_text(textFor(cycle, startTime, times)) {}

std::string EventSessionHeader::textFor(const Cycle& cycle, UtcTimeMs startTime,
                                        CycleTimes& cycleTimes) {
    const Singleton<CGlobalInfoImpl> device;
    const std::string country = countryOf(device->getCountry());
    const std::string uploadTime = cycleTimes.momentOf(TimeReference()).time.getString();
    const std::string startText = startTime.getString();
    const JsonObject place = location();
    const std::string client = clientText();
    const std::string sibling = siblingText();
    const JsonObject times = cycleTimes.allTimesAsJson(TimeReference(cycle, 0));
    const unsigned int minutes = operatingMinutes(cycle, cycleTimes);
    const std::string token = DBToken::current();

    JsonObject header;
    const bool packed = header.Pack(kFormat,                                                //
                                    "country", country.c_str(),                             //
                                    "deviceid", device->getDeviceId().c_str(),              //
                                    "ctn", device->getCtn().c_str(),                        //
                                    "component", device->getComponent().c_str(),            //
                                    "ufversion", device->getSwVersion().c_str(),            //
                                    "boot-count", static_cast<int>(cycle.bootCount),        //
                                    "standby-count", static_cast<int>(cycle.standbyCount),  //
                                    "upload-time", uploadTime.c_str(),                      //
                                    "start-time", startText.c_str(),                        //
                                    "lto", localTimeOffset(),                               //
                                    "operating-minutes", static_cast<int>(minutes),         //
                                    "location", place.get(),                                //
                                    "client", client.c_str(),                               //
                                    "pimclient", sibling.c_str(),                           //
                                    "times", times.get(),                                   //
                                    "db-token", token.c_str());
    return packed ? header.dumpAsString() : std::string();
}

void EventSessionHeader::setDbPath(const std::string& path) {
    m_DbPath = path;
}

std::string EventSessionHeader::countryOf(const std::string& deviceCountry) {
    const CountryCode* entry = CountryCode::getByCode(deviceCountry, true);
    return entry == nullptr ? deviceCountry : entry->alpha2;
}

unsigned int EventSessionHeader::operatingMinutes(const Cycle& cycle, CycleTimes& times) {
    return m_DbPath.empty() ? 0 : times.operatingMinutes(cycle, m_DbPath);
}

/// Only what is known by now: the packet is built under the store's lock, which no network call
/// may hold up. The job asked the geolocation service before it took that lock.
JsonObject EventSessionHeader::location() {
    const std::shared_ptr<LocationInfo> known = LocationInfo::getKnownLocation();
    const JsonObject place = known == nullptr ? JsonObject() : known->toJSON();
    return place.isNull() ? JsonObject::createObject() : place;
}
