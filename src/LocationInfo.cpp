#include "LocationInfo.h"

#include "ClassLog.h"
#include "CountryCode.h"
#include "DB.h"
#include "NetworkHelper.h"
#include "Services.h"
#include "WorkerThread.h"

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include <stdlib.h>

std::mutex LocationInfo::m_mutex;
std::shared_ptr<LocationInfo> LocationInfo::mInfo;
std::string LocationInfo::m_DbPath;
std::string LocationInfo::PROVIDER = Services::geolocationUrl();

namespace {

ClassLog s_log("LocationInfo:");

constexpr double kUnknownDegrees = 999.99;
constexpr double kMaxLatitude = 90;
constexpr double kMaxLongitude = 180;
constexpr std::chrono::seconds kStoreRetryDelay(1);

double degreesWithin(double limit, double value) {
    const bool valid = value >= -limit && value <= limit;  // false for NaN
    return valid ? value : kUnknownDegrees;
}

bool isGeolocationOff() {
    const char* network = ::getenv("LOC_NETWORK");
    return network != nullptr && std::string(network) != "true";
}

std::shared_ptr<LocationInfo> fallbackLocation() {
    const Services::Place place = Services::fallbackPlace();
    return std::make_shared<LocationInfo>(place.latitude, place.longitude, place.ip, place.city,
                                          place.region, place.countryCode);
}

struct Coordinates {
    double lat = kUnknownDegrees;
    double lng = kUnknownDegrees;
};

/// The two numbers of "latitude,longitude"; both unknown when the text is anything else.
Coordinates parseCoordinates(const std::string& loc) {
    const std::size_t comma = loc.find(',');
    if (comma == std::string::npos || loc.find(',', comma + 1) != std::string::npos) return {};
    try {
        Coordinates parsed;
        parsed.lat = std::stod(loc.substr(0, comma));
        parsed.lng = std::stod(loc.substr(comma + 1));
        return parsed;
    } catch (const std::logic_error& error) {  // not a number, or out of a double's range
        s_log.error("Invalid loc : ", loc, ": ", error.what());
        return {};
    }
}

}  // namespace

LocationInfo::LocationInfo(double lat, double lng, std::string ip, std::string city,
                           std::string region, std::string countryCode)
    : m_lng(degreesWithin(kMaxLongitude, lng)),
      m_lat(degreesWithin(kMaxLatitude, lat)),
      m_ip(std::move(ip)),
      m_city(std::move(city)),
      m_region(std::move(region)),
      m_countryCode(std::move(countryCode)) {
    const CountryCode* record = CountryCode::getByCode(m_countryCode, false);
    if (record == nullptr) return;
    m_country = record->name;
    m_continent = record->continent;
}

std::shared_ptr<LocationInfo> LocationInfo::getLocation() {
    if (auto known = currentLocation()) return known;
    if (isGeolocationOff()) return remember(fallbackLocation());
    const std::shared_ptr<LocationInfo> stored = readStored();
    const std::shared_ptr<LocationInfo> found = askProvider();
    if (!found) return stored ? remember(stored) : nullptr;
    const LocationInfo nothing(kUnknownDegrees, kUnknownDegrees, "", "", "", "");
    if (!found->toJSON().equals((stored ? *stored : nothing).toJSON())) storeInBackground(*found);
    return remember(found);
}

std::shared_ptr<LocationInfo> LocationInfo::getKnownLocation() {
    if (auto known = currentLocation()) return known;
    return isGeolocationOff() ? remember(fallbackLocation()) : readStored();
}

std::shared_ptr<LocationInfo> LocationInfo::currentLocation() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return mInfo;
}

std::shared_ptr<LocationInfo> LocationInfo::remember(std::shared_ptr<LocationInfo> info) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!mInfo) mInfo = std::move(info);
    return mInfo;
}

std::shared_ptr<LocationInfo> LocationInfo::readStored() {
    const std::string path = dbPath();
    if (path.empty()) return nullptr;
    Coordinates at;
    std::string ip;
    std::string city;
    std::string region;
    std::string countryCode;
    DB db;
    db.open(path, false);
    if (!db.getLocation(at.lng, at.lat, ip, city, region, countryCode)) return nullptr;
    return std::make_shared<LocationInfo>(at.lat, at.lng, ip, city, region, countryCode);
}

std::shared_ptr<LocationInfo> LocationInfo::askProvider() {
    NetworkHelper request;
    if (!request.UrlRequest(PROVIDER, false, "")) return nullptr;
    return fromAnswer(request.data);
}

std::shared_ptr<LocationInfo> LocationInfo::fromAnswer(const std::string& body) {
    const JsonObject answer = JsonObject::parse(body);
    if (!answer.isObject()) {
        // A captive portal's page, for one, must not replace the stored place.
        s_log.error("Answer of ", PROVIDER, " is no JSON object: Ignore");
        return nullptr;
    }
    const Coordinates at = parseCoordinates(answer.optString("loc"));
    return std::make_shared<LocationInfo>(at.lat, at.lng, answer.optString("ip"),
                                          answer.optString("city"), answer.optString("region"),
                                          answer.optString("country"));
}

void LocationInfo::storeInBackground(const LocationInfo& info) {
    const int error = WorkerThread::startDetached("LocationInfoStoreThread", [info] {
        StoreInDB(info.m_lat, info.m_lng, info.m_ip, info.m_city, info.m_region,
                  info.m_countryCode);
        return 0;
    });
    if (error != 0) s_log.error("Could not start Store thread: ", ClassLog::errnoText(error));
}

void LocationInfo::StoreInDB(double lat, double lng, std::string ip, std::string city,
                             std::string region, std::string countryCode) {
    for (;;) {
        {
            DB db;
            db.open(dbPath(), false);
            if (db.setLocation(lng, lat, ip, city, region, countryCode)) return;
        }
        std::this_thread::sleep_for(kStoreRetryDelay);
    }
}

JsonObject LocationInfo::toJSON() const {
    JsonObject object;
    object.Pack("{s:f, s:f, s:s, s:s, s:s, s:s, s:s, s:s }",  //
                "lat", m_lat,                                 //
                "lng", m_lng,                                 //
                "ip", m_ip.c_str(),                           //
                "city", m_city.c_str(),                       //
                "region", m_region.c_str(),                   //
                "country-code", m_countryCode.c_str(),        //
                "country", m_country.c_str(),                 //
                "continent", m_continent.c_str());
    return object;
}

std::shared_ptr<LocationInfo> LocationInfo::fromJSON(JsonObject object) {
    const CountryCode* record = CountryCode::getByCode(object.optString("country-code"), false);
    if (record == nullptr) record = CountryCode::getByName(object.optString("country"));
    if (record == nullptr) return nullptr;
    return std::make_shared<LocationInfo>(object.optDouble("lat", kUnknownDegrees),
                                          object.optDouble("lng", kUnknownDegrees),
                                          object.optString("ip"), object.optString("city"),
                                          object.optString("region"), record->alpha2);
}

std::string LocationInfo::dbPath() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_DbPath;
}

void LocationInfo::setDbPath(const std::string& path) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_DbPath = path;
}

void LocationInfo::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool LocationInfo::GetVerbose() {
    return s_log.isVerbose();
}
