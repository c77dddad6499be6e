#include "ConfigDocument.h"

#include "ClassLog.h"
#include "Services.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace {

std::int32_t optInt32(const JsonObject& object, const char* key, std::int32_t current) {
    using Limits = std::numeric_limits<std::int32_t>;
    const std::int64_t value = object.optInteger(key, current);
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

/// The filter's text; "{}" (no rules) where the document has no such object.
std::string filterText(const JsonObject& doc, const char* key) {
    const JsonObject filter = doc.getObject(key);
    return filter.isObject() ? filter.dumpAsString() : ConfigDocument::defaultFilter;
}

}  // namespace

std::string ConfigDocument::defaultFirehoseEndpoint() {
    return Services::defaultFirehoseEndpoint();
}

std::string ConfigDocument::defaultS3Endpoint() {
    return Services::defaultS3Endpoint();
}

void ConfigDocument::parse(const JsonObject& doc, Values& values, const ClassLog& log) {
    log.info(" parsing config: ", [&doc] { return doc.dumpAsString(); });
    log.info(" Version is ", [&doc] { return doc.optString("version"); });
    values.touAccepted = doc.getObject(keyKivTou).isTrue();
    log.info(" TOU is ", values.touAccepted ? "true" : "false");
    values.expiryTou = doc.optInteger(keyExpiryTou, values.expiryTou);
    log.info(" ExpiryTOU is ", values.expiryTou);
    values.eventFilter = filterText(doc, keyEventFilter);
    log.info(" EventFilters is ", values.eventFilter);
    values.fileFilter = filterText(doc, keyFileFilter);
    log.info(" OOBDataFilters is ", values.fileFilter);
    parseThresholds(doc, values, log);
    parseCloudTargets(doc, values, log);
    parseCredentials(doc, values);
    values.lastModified = doc.optString(keyLastModified);
    values.utcTime = optInt32(doc, keyUtcTime, values.utcTime);
    log.info(" Timestamp data is ", values.lastModified, ", ", values.utcTime);
}

void ConfigDocument::parseThresholds(const JsonObject& doc, Values& values, const ClassLog& log) {
    const JsonObject thresholds = doc.getObject(keyUploadEvents);
    values.maxDelay = thresholds.optInteger(keyMaxDelay, values.maxDelay);
    log.info(" EventAgeThreshold is ", values.maxDelay);
    values.maxSize = optInt32(thresholds, keyMaxSize, values.maxSize);
    log.info(" EventMaxSizeThreshold is ", values.maxSize);
    values.minSize = optInt32(thresholds, keyMinSize, values.minSize);
    log.info(" EventMinSizeThreshold is ", values.minSize);
}

void ConfigDocument::parseCloudTargets(const JsonObject& doc, Values& values, const ClassLog& log) {
    values.firehoseEndpoint = doc.optString(keyFirehoseEndpoint);
    values.firehoseStream = doc.optString(keyFirehoseStream);
    values.s3Endpoint = doc.optString(keyS3Endpoint);
    values.s3Bucket = doc.optString(keyS3Bucket);
    log.info(" AWS data is ", values.firehoseEndpoint, ", ", values.firehoseStream, ", ",
             values.s3Endpoint, ", ", values.s3Bucket);
}

void ConfigDocument::parseCredentials(const JsonObject& doc, Values& values) {
    const JsonObject credentials = doc.getObject(keyCredentials);
    if (!credentials.isObject()) return;
    values.iv = credentials.optString(keyIv);
    values.accessKeyId = credentials.optString(keyAccessKeyId);
    values.secretAccessKey = credentials.optString(keySecretAccessKey);
    values.sessionToken = credentials.optString(keySessionToken);
}

JsonObject ConfigDocument::defaultDocument() {
    const JsonObject noRules = JsonObject::createObject();
    const std::string firehoseEndpoint = defaultFirehoseEndpoint();
    const std::string s3Endpoint = defaultS3Endpoint();
    JsonObject doc;
    doc.Pack("{s:b, s:s, s:i, s:O, s:O, s:{s:i, s:i, s:i}, s:s, s:s, s:s, s:s, s:s, s:i }",
             keyKivTou, 0,                                      //
             "version", "1.0",                                  //
             keyExpiryTou, static_cast<int>(defaultExpiryTou),  //
             keyEventFilter, noRules.get(),                     //
             keyFileFilter, noRules.get(),                      //
             keyUploadEvents,                                   //
             keyMaxDelay, static_cast<int>(defaultMaxDelay),    //
             keyMinSize, static_cast<int>(defaultMinSize),      //
             keyMaxSize, static_cast<int>(defaultMaxSize),      //
             keyFirehoseEndpoint, firehoseEndpoint.c_str(),     //
             keyFirehoseStream, defaultStream,                  //
             keyS3Endpoint, s3Endpoint.c_str(),                 //
             keyS3Bucket, defaultBucket,                        //
             keyLastModified, "",                               //
             keyUtcTime, 0);
    return doc;
}

bool ConfigDocument::isConfiguration(const JsonObject& doc) {
    constexpr const char* members[] = {keyKivTou,         keyExpiryTou,    keyEventFilter,
                                       keyFileFilter,     keyUploadEvents, keyFirehoseEndpoint,
                                       keyFirehoseStream, keyS3Endpoint,   keyS3Bucket,
                                       keyCredentials,    keyUtcTime,      keyLastModified};
    return std::any_of(std::begin(members), std::end(members),
                       [&doc](const char* member) { return !doc.getObject(member).isNull(); });
}

bool ConfigDocument::isErrorAnswer(const JsonObject& doc) {
    return !refusal(doc).empty();
}

std::string ConfigDocument::refusal(const JsonObject& doc) {
    const std::string message = doc.optString("message");
    return message.empty() ? doc.optString("errorMessage") : message;
}

void ConfigDocument::stamp(JsonObject& doc, std::int32_t utcSeconds, const std::string& date) {
    doc.set(keyUtcTime, JsonObject::createInteger(utcSeconds));
    doc.set(keyLastModified, date);
}
