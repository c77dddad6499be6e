#include "Services.h"

#include <vector>

// The places of this build: kConnectivityHost, kGeolocationUrl, kDefault..., kFallback...
#define KIV_SERVICE_PLACES
namespace {
#include "ServiceTables.inc"
}  // namespace

std::string Services::connectivityHost() {
    return kConnectivityHost;
}

std::string Services::geolocationUrl() {
    return kGeolocationUrl;
}

std::string Services::defaultFirehoseEndpoint() {
    return kDefaultFirehoseEndpoint;
}

std::string Services::defaultS3Endpoint() {
    return kDefaultS3Endpoint;
}

Services::Place Services::fallbackPlace() {
    return Place{kFallbackLatitude, kFallbackLongitude, kFallbackIp,
                 kFallbackCity,     kFallbackRegion,    kFallbackCountryCode};
}
