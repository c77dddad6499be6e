#include "Config.h"

#include <string>

#include "Services.h"
#include "support/KivTest.h"

namespace {

class ConfigTest : public KivTest {};

/// Every facade reaches the one configuration and holds it for its own life.
TEST_F(ConfigTest, EveryFacadeReachesTheOneConfiguration) {
    const Config first;
    const Config second;
    EXPECT_EQ(first.operator->(), second.operator->());
    EXPECT_EQ(&*first, first.operator->());
    EXPECT_EQ(Singleton<ConfigImpl>::m_RefCount, 2);
}

/// Every facade reaches the one configuration and holds it for its own life.
TEST_F(ConfigTest, HoldsTheConfigurationForItsOwnLifeOnly) {
    { const Config config; }
    EXPECT_EQ(Singleton<ConfigImpl>::m_RefCount, 0);
    EXPECT_EQ(Singleton<ConfigImpl>::m_pImpl, nullptr);
}

/// It names the defaults and the keys of the document.
TEST_F(ConfigTest, NamesTheDefaults) {
    EXPECT_EQ(Config::defaultExpiryTou, 600);
    EXPECT_EQ(Config::defaultMinSize, 16384);
    EXPECT_EQ(Config::defaultMaxSize, 131072);
    EXPECT_EQ(Config::defaultMaxDelay, 3500);
    EXPECT_STREQ(Config::defaultFilter, "{}");
    EXPECT_STREQ(Config::defaultBucket, "norvane-ddump/kiv-test");
    EXPECT_STREQ(Config::defaultStream, "kiv-eventsrc-stream-test");
    EXPECT_EQ(Config::defaultFirehoseEndpoint(), Services::defaultFirehoseEndpoint());
    EXPECT_EQ(Config::defaultS3Endpoint(), Services::defaultS3Endpoint());
}

/// It names the defaults and the keys of the document.
TEST_F(ConfigTest, NamesTheKeysOfTheDocument) {
    EXPECT_STREQ(Config::keyKivTou, "kiv_tou");
    EXPECT_STREQ(Config::keyExpiryTou, "expiry_tou");
    EXPECT_STREQ(Config::keyEventFilter, "event-filter");
    EXPECT_STREQ(Config::keyFileFilter, "file-filter");
    EXPECT_STREQ(Config::keyUploadEvents, "upload_events");
    EXPECT_STREQ(Config::keyMinSize, "min-size");
    EXPECT_STREQ(Config::keyMaxSize, "max-size");
    EXPECT_STREQ(Config::keyMaxDelay, "max-delay");
    EXPECT_STREQ(Config::keyFirehoseEndpoint, "firehose_endpoint");
    EXPECT_STREQ(Config::keyFirehoseStream, "firehose_stream");
    EXPECT_STREQ(Config::keyS3Endpoint, "s3_endpoint");
    EXPECT_STREQ(Config::keyS3Bucket, "s3_bucket");
    EXPECT_STREQ(Config::keyCredentials, "credentials");
    EXPECT_STREQ(Config::keyIv, "iv");
    EXPECT_STREQ(Config::keyAccessKeyId, "AccessKeyId");
    EXPECT_STREQ(Config::keySecretAccessKey, "SecretAccessKey");
    EXPECT_STREQ(Config::keySessionToken, "SessionToken");
    EXPECT_STREQ(Config::keyUtcTime, "UTC-Time");
    EXPECT_STREQ(Config::keyLastModified, "Last-Modified");
}

}  // namespace
