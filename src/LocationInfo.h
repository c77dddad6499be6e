#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "JsonObject.h"
#include "RetryPause.h"

class DB;

/// Where the television is, as far as its public IP address tells. An immutable record; the
/// location of this run is class-wide, under a mutex of its own, and once found never replaced.
class LocationInfo {
  public:
    /// Degrees out of range, and NaN, become 999.99; country and continent come from the table.
    LocationInfo(double lat, double lng, std::string ip, std::string city, std::string region,
                 std::string countryCode);

    /// The location of this run: asks the geolocation service at the first call (network!), falls
    /// back to the stored one, and stores a new one in the background. Null when nothing is known.
    /// With the environment variable "LOC_NETWORK" set to anything but "true": a fixed place,
    /// nothing asked. After a failed request nothing is asked for 10 s, doubling to 300 s. On the
    /// upload thread, without locks held.
    static std::shared_ptr<LocationInfo> getLocation();
    /// What is known without the network: this run's location, else the fixed place where
    /// geolocation is off, else the stored one, else null.
    static std::shared_ptr<LocationInfo> getKnownLocation();

    /// {"lat", "lng", "ip", "city", "region", "country-code", "country", "continent"}; a null
    /// handle when it cannot be packed.
    JsonObject toJSON() const;
    /// Null when neither the code nor the country's name is known.
    static std::shared_ptr<LocationInfo> fromJSON(JsonObject object);

    /// The body of the store thread: tries once a second until the database accepts the row, which
    /// holds the degrees as they were received.
    static void StoreInDB(double lat, double lng, std::string ip, std::string city,
                          std::string region, std::string countryCode);

    static void setDbPath(const std::string& path);
    static void SetVerbose(bool verbose);
    static bool GetVerbose();

    double getLatitude() const { return m_lat; }
    double getLongitude() const { return m_lng; }

  private:
    friend struct LocationInfoPeer;

    static std::shared_ptr<LocationInfo> currentLocation();
    struct Answer;

    static std::shared_ptr<LocationInfo> readStored();
    static std::optional<Answer> askProvider();  ///< nothing when the request failed
    static std::optional<Answer> parseAnswer(const std::string& body);
    static bool tryToStore(DB& db, const Answer& answer);
    static void storeInBackground(const Answer& answer);
    static std::shared_ptr<LocationInfo> remember(std::shared_ptr<LocationInfo> info);
    static std::string dbPath();

    double m_lng;
    double m_lat;
    std::string m_ip;
    std::string m_city;
    std::string m_region;
    std::string m_countryCode;
    std::string m_country;
    std::string m_continent;

    static std::mutex m_mutex;  ///< guards mInfo and m_DbPath
    static std::shared_ptr<LocationInfo> mInfo;
    static std::string m_DbPath;
    static std::string PROVIDER;  ///< set before `main`
    static RetryPause m_pause;    ///< between failed requests
};
