#include "Services.h"

#include <string>

#include <gtest/gtest.h>

#include "JsonObject.h"
#include "support/ServicesFile.h"

namespace {

class ServicesTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(m_file.isObject()); }

    const JsonObject m_file = servicesOfThisBuild(KIV_SOURCE_DIR, KIV_BINARY_DIR);
};

/// The connectivity host and the geolocation URL are those of the services file of the build.
TEST_F(ServicesTest, GivesTheHostsOfTheServicesFile) {
    EXPECT_EQ(Services::connectivityHost(), m_file.optString("connectivity-host"));
    EXPECT_EQ(Services::geolocationUrl(), m_file.optString("geolocation-url"));
    EXPECT_FALSE(Services::connectivityHost().empty());
    EXPECT_FALSE(Services::geolocationUrl().empty());
}

/// The default Firehose and S3 endpoints are HTTPS URLs of the services file.
TEST_F(ServicesTest, GivesTheDefaultEndpointsOfTheServicesFileAsHttpsUrls) {
    EXPECT_EQ(Services::defaultFirehoseEndpoint(), m_file.optString("firehose-endpoint"));
    EXPECT_EQ(Services::defaultS3Endpoint(), m_file.optString("s3-endpoint"));
    EXPECT_EQ(Services::defaultFirehoseEndpoint().rfind("https://", 0), 0u);
    EXPECT_EQ(Services::defaultS3Endpoint().rfind("https://", 0), 0u);
}

/// The fixed place for sets without geolocation comes from the services file.
TEST_F(ServicesTest, GivesTheFallbackPlaceOfTheServicesFile) {
    const JsonObject expected = m_file.getObject("fallback-location");
    ASSERT_TRUE(expected.isObject());
    const Services::Place place = Services::fallbackPlace();
    EXPECT_DOUBLE_EQ(place.latitude, expected.getObject("lat").getAsNumber());
    EXPECT_DOUBLE_EQ(place.longitude, expected.getObject("lng").getAsNumber());
    EXPECT_EQ(place.ip, expected.optString("ip"));
    EXPECT_EQ(place.city, expected.optString("city"));
    EXPECT_EQ(place.region, expected.optString("region"));
    EXPECT_EQ(place.countryCode, expected.optString("country-code"));
    EXPECT_EQ(place.countryCode.size(), 2u);
}

}  // namespace
