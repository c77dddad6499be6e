#pragma once

#include <cstdint>
#include <string>

#include "JsonObject.h"

class ClassLog;

/// The configuration document (docs/configuration.md): its keys, its default values, and the way
/// from a document to values. It neither fetches nor stores one, and keeps no values.
///
/// Only functions and constants; usable from any thread. A member of another type than the key's
/// counts as missing.
class ConfigDocument {
  public:
    static constexpr std::int64_t defaultExpiryTou = 600;   ///< seconds
    static constexpr std::int32_t defaultMinSize = 16384;   ///< bytes
    static constexpr std::int32_t defaultMaxSize = 131072;  ///< bytes
    static constexpr std::int64_t defaultMaxDelay = 3500;   ///< seconds
    static constexpr const char* defaultFilter = "{}";
    static constexpr const char* defaultBucket = "norvane-ddump/kiv-test";
    static constexpr const char* defaultStream = "kiv-eventsrc-stream-test";

    static std::string defaultFirehoseEndpoint();
    static std::string defaultS3Endpoint();

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

    /// What documents say, the defaults at first.
    struct Values {
        bool touAccepted = false;
        std::int64_t expiryTou = defaultExpiryTou;  ///< seconds
        std::string eventFilter = defaultFilter;    ///< JSON text
        std::string fileFilter = defaultFilter;     ///< JSON text
        std::int64_t maxDelay = defaultMaxDelay;    ///< seconds
        std::int32_t maxSize = defaultMaxSize;      ///< bytes
        std::int32_t minSize = defaultMinSize;      ///< bytes
        std::string firehoseEndpoint = defaultFirehoseEndpoint();
        std::string s3Endpoint = defaultS3Endpoint();
        std::string firehoseStream = defaultStream;
        std::string s3Bucket = defaultBucket;
        std::string iv;               ///< hexadecimal
        std::string accessKeyId;      ///< hexadecimal cipher text
        std::string secretAccessKey;  ///< hexadecimal cipher text
        std::string sessionToken;     ///< hexadecimal cipher text
        std::string lastModified;
        std::int32_t utcTime = 0;  ///< UTC seconds
    };

    /// Copies the document into `values`; absent members keep or clear theirs, key by key. Each
    /// value gets an information line of `log`.
    static void parse(const JsonObject& doc, Values& values, const ClassLog& log);
    /// The document of a set that never had an answer.
    static JsonObject defaultDocument();
    /// Whether the document is an object with at least one member of a configuration; the version
    /// alone does not make it one.
    static bool isConfiguration(const JsonObject& doc);
    /// Whether the answer says why there is no configuration, instead of being one.
    static bool isErrorAnswer(const JsonObject& doc);
    /// What such an answer says.
    static std::string refusal(const JsonObject& doc);
    /// Notes in an answer when it came: `utcSeconds`, and `date`, the server's word for it.
    static void stamp(JsonObject& doc, std::int32_t utcSeconds, const std::string& date);

  private:
    static void parseThresholds(const JsonObject& doc, Values& values, const ClassLog& log);
    static void parseCloudTargets(const JsonObject& doc, Values& values, const ClassLog& log);
    static void parseCredentials(const JsonObject& doc, Values& values);
};
