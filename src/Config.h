#pragma once

#include <cstdint>
#include <string>

#include "ConfigImpl.h"
#include "Services.h"
#include "Singleton.h"

/// A holder of the configuration for the span of one call (or the whole run), together with the
/// default values and the key names of the document.
class Config {
  public:
    ConfigImpl* operator->() const { return m_impl.get(); }
    ConfigImpl& operator*() const { return *m_impl; }

    static constexpr std::int64_t defaultExpiryTou = 600;   ///< seconds
    static constexpr std::int32_t defaultMinSize = 16384;   ///< bytes
    static constexpr std::int32_t defaultMaxSize = 131072;  ///< bytes
    static constexpr std::int64_t defaultMaxDelay = 3500;   ///< seconds
    static constexpr const char* defaultFilter = "{}";
    static constexpr const char* defaultBucket = "norvane-ddump/kiv-test";
    static constexpr const char* defaultStream = "kiv-eventsrc-stream-test";

    static std::string defaultFirehoseEndpoint() { return Services::defaultFirehoseEndpoint(); }
    static std::string defaultS3Endpoint() { return Services::defaultS3Endpoint(); }

    static constexpr const char* keyKivTou = "kiv_tou";
    static constexpr const char* keyExpiryTou = "expiry_tou";
    static constexpr const char* keyEventFilter = "event-filter";
    static constexpr const char* keyFileFilter = "file-filter";
    static constexpr const char* keyUploadEvents = "upload_events";
    static constexpr const char* keyMinSize = "min-size";
    static constexpr const char* keyMaxSize = "max-size";
    static constexpr const char* keyMaxDelay = "max-delay";
    static constexpr const char* keyFirehoseEndpoint = "firehose_endpoint";
    static constexpr const char* keyFirehoseStream = "firehose_stream";
    static constexpr const char* keyS3Endpoint = "s3_endpoint";
    static constexpr const char* keyS3Bucket = "s3_bucket";
    static constexpr const char* keyCredentials = "credentials";
    static constexpr const char* keyIv = "iv";
    static constexpr const char* keyAccessKeyId = "AccessKeyId";
    static constexpr const char* keySecretAccessKey = "SecretAccessKey";
    static constexpr const char* keySessionToken = "SessionToken";
    static constexpr const char* keyUtcTime = "UTC-Time";
    static constexpr const char* keyLastModified = "Last-Modified";

  private:
    Singleton<ConfigImpl> m_impl;
};
