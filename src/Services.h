#pragma once

#include <string>

/// The places of this build that are not secret, from its services file: the connectivity test
/// host, the geolocation service, the default cloud endpoints and the place assumed where
/// geolocation is switched off. It holds neither keys nor addresses of the service: those are
/// scrambled, in `ServiceTables`.
///
/// Only functions; the values are constant. Usable from any thread.
class Services {
  public:
    static std::string connectivityHost();
    static std::string geolocationUrl();
    static std::string defaultFirehoseEndpoint();  ///< HTTPS URL
    static std::string defaultS3Endpoint();        ///< HTTPS URL

    struct Place {
        double latitude;   ///< degrees
        double longitude;  ///< degrees
        std::string ip;
        std::string city;
        std::string region;
        std::string countryCode;  ///< ISO 3166-1 alpha-2
    };
    static Place fallbackPlace();
};
