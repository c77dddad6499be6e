#include "LocationInfo.h"

#include "ClassLog.h"
#include "CountryCode.h"
#include "DB.h"
#include "NetworkHelper.h"
#include "Services.h"
#include "Status.h"
#include "WorkerThread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include <cmath>
#include <cstddef>

#include <stdlib.h>

std::mutex LocationInfo::m_mutex;
std::shared_ptr<LocationInfo> LocationInfo::mInfo;
std::string LocationInfo::m_DbPath;
std::string LocationInfo::PROVIDER = Services::geolocationUrl();
RetryPause LocationInfo::m_pause;

namespace {

ClassLog s_log("LocationInfo:");

constexpr double kUnknownDegrees = 999.99;
constexpr double kMaxLatitude = 90;
constexpr double kMaxLongitude = 180;
constexpr std::chrono::seconds kStoreRetryDelay(1);
constexpr std::size_t kMostCharacters = 128;  ///< of each text

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

/// The store's rows cannot hold what is not a number.
double knownOr999(double degrees) {
    return std::isnan(degrees) ? kUnknownDegrees : degrees;
}

bool namesNothing(const JsonObject& answer) {
    constexpr const char* members[] = {"ip", "city", "region", "country", "loc"};
    return std::none_of(std::begin(members), std::end(members), [&answer](const char* member) {
        return !answer.getObject(member).isNull();
    });
}

/// Of UTF-8, as JSON texts are.
std::size_t charactersOf(const std::string& text) {
    const auto begins = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; };
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), begins));
}

/// The two numbers of "latitude,longitude"; both unknown when the text is anything else.
Coordinates parseCoordinates(const std::string& loc) {
    const std::size_t comma = loc.find(',');
    if (comma == std::string::npos || loc.find(',', comma + 1) != std::string::npos) return {};
    try {
        Coordinates parsed;
        parsed.lat = knownOr999(std::stod(loc.substr(0, comma)));
        parsed.lng = knownOr999(std::stod(loc.substr(comma + 1)));
        return parsed;
    } catch (const std::logic_error& error) {  // not a number, or out of a double's range
        s_log.error("Invalid loc : ", ClassLog::foreign(loc), ": ", error.what());
        return {};
    }
}

}  // namespace

/// What the service says, and a row of the store, with the degrees as they were received.
struct LocationInfo::Answer {
    Coordinates at;
    std::string ip;
    std::string city;
    std::string region;
    std::string countryCode;
    bool isEmpty = false;  ///< names none of these

    /// A longer text would leave no room for events in any packet.
    bool fitsAHeader() const {
        const auto fits = [](const std::string& text) {
            return charactersOf(text) <= kMostCharacters;
        };
        return fits(ip) && fits(city) && fits(region) && fits(countryCode);
    }
    std::shared_ptr<LocationInfo> place() const {
        return std::make_shared<LocationInfo>(at.lat, at.lng, ip, city, region, countryCode);
    }
};

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
    std::shared_ptr<LocationInfo> stored = readStored();
    if (m_pause.leftMs() > 0) return stored;
    const std::optional<Answer> answer = askProvider();
    if (!answer) {
        m_pause.lengthen();
        return stored ? remember(stored) : nullptr;
    }
    m_pause.forget();
    if (stored && answer->isEmpty) return remember(stored);
    const std::shared_ptr<LocationInfo> found = answer->place();
    const LocationInfo nothing(kUnknownDegrees, kUnknownDegrees, "", "", "", "");
    if (!found->toJSON().equals((stored ? *stored : nothing).toJSON())) storeInBackground(*answer);
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
    DB db;
    db.open(path, false);
    Answer row;
    if (!db.getLocation(row.at.lng, row.at.lat, row.ip, row.city, row.region, row.countryCode) ||
        !row.fitsAHeader()) {
        return nullptr;
    }
    return row.place();
}

std::optional<LocationInfo::Answer> LocationInfo::askProvider() {
    NetworkHelper request;
    request.countFor(Status::Place);
    if (!request.UrlRequest(PROVIDER, false, "") || !request.isGoodAnswer()) return std::nullopt;
    return parseAnswer(request.data);
}

std::optional<LocationInfo::Answer> LocationInfo::parseAnswer(const std::string& body) {
    const JsonObject object = JsonObject::parse(body);
    if (!object.isObject()) {
        // A captive portal's page, for one, must not replace the stored place.
        s_log.error("Answer of ", PROVIDER, " is no JSON object: Ignore");
        return std::nullopt;
    }
    Answer answer{Coordinates(),
                  object.optString("ip"),
                  object.optString("city"),
                  object.optString("region"),
                  object.optString("country"),
                  namesNothing(object)};
    if (!answer.fitsAHeader()) {
        s_log.error("Answer of ", PROVIDER, " has a text above ", kMostCharacters,
                    " characters: Ignore");
        return std::nullopt;
    }
    answer.at = parseCoordinates(object.optString("loc"));
    return answer;
}

void LocationInfo::storeInBackground(const Answer& answer) {
    const int error = WorkerThread::startDetached("LocationInfoStoreThread", [answer] {
        StoreInDB(answer.at.lat, answer.at.lng, answer.ip, answer.city, answer.region,
                  answer.countryCode);
        return 0;
    });
    if (error != 0) s_log.error("Could not start Store thread: ", ClassLog::errnoText(error));
}

void LocationInfo::StoreInDB(double lat, double lng, std::string ip, std::string city,
                             std::string region, std::string countryCode) {
    const Answer answer{{lat, lng}, ip, city, region, countryCode, false};
    std::string lastTrouble;
    DB db;
    for (;;) {
        try {
            if (tryToStore(db, answer)) return;
        } catch (const std::exception& error) {
            if (lastTrouble != error.what()) s_log.error("Storing failed: ", error.what());
            lastTrouble = error.what();
        }
        std::this_thread::sleep_for(kStoreRetryDelay);
    }
}

/// The store that fails opens itself again, with the pauses of every store.
bool LocationInfo::tryToStore(DB& db, const Answer& answer) {
    const std::string path = dbPath();
    if (path.empty() || db.path() != path) db.open(path, false);
    return db.setLocation(answer.at.lng, answer.at.lat, answer.ip, answer.city, answer.region,
                          answer.countryCode);
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
