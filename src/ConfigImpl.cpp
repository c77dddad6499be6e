#include "ConfigImpl.h"

#include "AtomicFile.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "Config.h"
#include "Credentials.h"
#include "DbgOut.h"
#include "KernelTime.h"
#include "NetworkHelper.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UtcTime.h"
#include "UtcTimeMs.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <utility>

#include <cstdio>

namespace {

constexpr const char* kLogPrefix = "kivconfig: ";
constexpr std::int64_t kRetrySeconds = 600;  // least time between attempts, and the blind re-check
constexpr std::int64_t kLongestDelayMs = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kLongestExpiry = std::int64_t{1} << 40;  // seconds, for safe arithmetic

std::atomic<bool> verboseFlag{false};

std::mutex schedulerMutex;  // guards refreshScheduler; held while it is called
ConfigImpl::RefreshScheduler refreshScheduler;

std::int32_t clampToInt32(std::int64_t value) {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

std::int32_t optInt32(const JsonObject& object, const char* key, std::int32_t current) {
    return clampToInt32(object.optInteger(key, current));
}

/// The filter's text; "{}" (no rules) where the document has no such object.
std::string filterText(const JsonObject& doc, const char* key) {
    const JsonObject filter = doc.getObject(key);
    return filter.isObject() ? filter.dumpAsString() : Config::defaultFilter;
}

const char* asText(bool value) {
    return value ? "true" : "false";
}

template <typename Value>
void logValue(const char* label, const Value& value) {
    if (verboseFlag) coutdbg << kLogPrefix << label << value << std::endl;
}

bool isErrorAnswer(const JsonObject& doc) {
    return !doc.optString("message").empty() || !doc.optString("errorMessage").empty();
}

std::string deviceId() {
    const Singleton<CGlobalInfoImpl> globalInfo;
    return globalInfo->getDeviceId();
}

bool termsOfUseExist() {
    const Singleton<CTouImpl> tou;
    return tou->ReLoad();
}

/// Takes the server's time over as web time. @return it in UTC seconds; 0 when it cannot be now
std::int32_t takeServerTime(const std::string& date) {
    if (verboseFlag) {
        std::printf("%s Setting time from the date received from server being:  %s\n", kLogPrefix,
                    date.c_str());
    }
    const std::int32_t serverTime = UtcTime(date).seconds();
    const Singleton<TimeMgrImpl> timeManager;
    if (!timeManager->isSystemTimeAcceptable(static_cast<unsigned long long>(serverTime))) return 0;
    timeManager->setTime(TimeSourceWeb, TimeReference(),
                         UtcTimeMs(static_cast<std::int64_t>(serverTime) * 1000));
    return serverTime;
}

}  // namespace

ConfigImpl::ConfigImpl()
    : m_firehoseEndpoint(Config::defaultFirehoseEndpoint()),
      m_s3Endpoint(Config::defaultS3Endpoint()),
      m_firehoseStream(Config::defaultStream),
      m_s3Bucket(Config::defaultBucket) {}

// --- the document -------------------------------------------------------------------------------

void ConfigImpl::Load(std::string path) {
    const JsonObject stored = JsonObject::loadFile(path);
    {
        std::unique_lock<std::recursive_mutex> lock(m_lock);
        m_path = std::move(path);
    }
    if (stored.isObject()) {
        parseConfig(stored);
        return;
    }
    logValue(" persistent config not found, creating default one", "");
    saveAndParseConfig(defaultDocument());
}

JsonObject ConfigImpl::defaultDocument() const {
    const JsonObject noRules = JsonObject::createObject();
    const std::string firehoseEndpoint = Config::defaultFirehoseEndpoint();
    const std::string s3Endpoint = Config::defaultS3Endpoint();
    JsonObject doc;
    doc.Pack("{s:b, s:s, s:i, s:O, s:O, s:{s:i, s:i, s:i}, s:s, s:s, s:s, s:s, s:s, s:i }",
             Config::keyKivTou, 0,                                              //
             "version", "1.0",                                                  //
             Config::keyExpiryTou, static_cast<int>(Config::defaultExpiryTou),  //
             Config::keyEventFilter, noRules.get(),                             //
             Config::keyFileFilter, noRules.get(),                              //
             Config::keyUploadEvents,                                           //
             Config::keyMaxDelay, static_cast<int>(Config::defaultMaxDelay),    //
             Config::keyMinSize, static_cast<int>(Config::defaultMinSize),      //
             Config::keyMaxSize, static_cast<int>(Config::defaultMaxSize),      //
             Config::keyFirehoseEndpoint, firehoseEndpoint.c_str(),             //
             Config::keyFirehoseStream, Config::defaultStream,                  //
             Config::keyS3Endpoint, s3Endpoint.c_str(),                         //
             Config::keyS3Bucket, Config::defaultBucket,                        //
             Config::keyLastModified, "",                                       //
             Config::keyUtcTime, 0);
    return doc;
}

void ConfigImpl::saveAndParseConfig(const JsonObject& doc) {
    saveConfig(doc);
    parseConfig(doc);
}

void ConfigImpl::saveConfig(const JsonObject& doc) {
    const std::string failure = AtomicFile::replace(GetPath(), doc.dumpAsString());
    if (!failure.empty()) {
        cerrdbg << kLogPrefix << "Cannot save persistent config: " << failure << std::endl;
    }
}

void ConfigImpl::parseConfig(const JsonObject& doc) {
    std::unique_lock<std::recursive_mutex> lock(m_lock);
    if (verboseFlag) logValue(" parsing config: ", doc.dumpAsString());
    logValue(" Version is ", doc.optString("version"));
    m_touAccepted = doc.getObject(Config::keyKivTou).isTrue();
    logValue(" TOU is ", asText(m_touAccepted));
    m_expiryTou = doc.optInteger(Config::keyExpiryTou, m_expiryTou);
    logValue(" ExpiryTOU is ", m_expiryTou);
    m_eventFilter = filterText(doc, Config::keyEventFilter);
    logValue(" EventFilters is ", m_eventFilter);
    m_fileFilter = filterText(doc, Config::keyFileFilter);
    logValue(" OOBDataFilters is ", m_fileFilter);
    parseThresholds(doc);
    parseCloudTargets(doc);
    parseCredentials(doc);
    m_lastModified = doc.optString(Config::keyLastModified);
    m_utcTime = optInt32(doc, Config::keyUtcTime, m_utcTime);
    if (verboseFlag) {
        logValue(" Timestamp data is ", m_lastModified + ", " + std::to_string(m_utcTime));
    }
}

// With m_lock held, as the two below.
void ConfigImpl::parseThresholds(const JsonObject& doc) {
    const JsonObject thresholds = doc.getObject(Config::keyUploadEvents);
    m_maxDelay = thresholds.optInteger(Config::keyMaxDelay, m_maxDelay);
    logValue(" EventAgeThreshold is ", m_maxDelay);
    m_maxSize = optInt32(thresholds, Config::keyMaxSize, m_maxSize);
    logValue(" EventMaxSizeThreshold is ", m_maxSize);
    m_minSize = optInt32(thresholds, Config::keyMinSize, m_minSize);
    logValue(" EventMinSizeThreshold is ", m_minSize);
}

void ConfigImpl::parseCloudTargets(const JsonObject& doc) {
    m_firehoseEndpoint = doc.optString(Config::keyFirehoseEndpoint);
    m_firehoseStream = doc.optString(Config::keyFirehoseStream);
    m_s3Endpoint = doc.optString(Config::keyS3Endpoint);
    m_s3Bucket = doc.optString(Config::keyS3Bucket);
    if (!verboseFlag) return;
    logValue(" AWS data is ", m_firehoseEndpoint + ", " + m_firehoseStream + ", " + m_s3Endpoint +
                                  ", " + m_s3Bucket);
}

void ConfigImpl::parseCredentials(const JsonObject& doc) {
    const JsonObject credentials = doc.getObject(Config::keyCredentials);
    if (!credentials.isObject()) return;
    m_iv = credentials.optString(Config::keyIv);
    m_accessKeyId = credentials.optString(Config::keyAccessKeyId);
    m_secretAccessKey = credentials.optString(Config::keySecretAccessKey);
    m_sessionToken = credentials.optString(Config::keySessionToken);
}

// --- validity -----------------------------------------------------------------------------------

std::int32_t ConfigImpl::currentUtcSeconds() {
    const Singleton<TimeMgrImpl> timeManager;
    return clampToInt32(timeManager->getTime() / 1000);
}

bool ConfigImpl::IsValid() const {
    std::unique_lock<std::recursive_mutex> lock(m_lock);
    return !m_lastModified.empty() || m_utcTime != 0;
}

/// Seconds until the configuration expires at `now` (not positive: it has). With m_lock held.
std::int64_t ConfigImpl::secondsLeft(std::int32_t now) const {
    const std::int64_t age = static_cast<std::int64_t>(now) - m_utcTime;
    return std::clamp(m_expiryTou, -kLongestExpiry, kLongestExpiry) - age;
}

bool ConfigImpl::configIsExpired() {
    const std::int32_t now = currentUtcSeconds();  // before the lock: the time manager has its own
    std::unique_lock<std::recursive_mutex> lock(m_lock);
    if (now == 0 || !IsValid()) return true;
    return secondsLeft(now) <= 0;
}

bool ConfigImpl::isDownloadRequired() {
    const bool expired = configIsExpired();
    const bool valid = IsValid();
    if (verboseFlag) {
        coutdbg << kLogPrefix << "isDownloadRequired: IsValid=" << valid
                << " configIsExpired=" << expired << std::endl;
    }
    return valid ? expired : true;
}

void ConfigImpl::scheduleExpiryCheck() {
    const std::int32_t now = currentUtcSeconds();
    std::int64_t delaySeconds = kRetrySeconds;
    {
        std::unique_lock<std::recursive_mutex> lock(m_lock);
        if (IsValid() && now != 0 && secondsLeft(now) > 0) delaySeconds = secondsLeft(now);
    }
    scheduleRefresh(delaySeconds * 1000, true);
}

void ConfigImpl::scheduleRefresh(long long delayMs, bool force) {
    const auto delay = std::clamp<long long>(delayMs, 1, kLongestDelayMs);
    const std::lock_guard<std::mutex> lock(schedulerMutex);
    if (refreshScheduler) refreshScheduler(static_cast<long>(delay), force);
}

void ConfigImpl::SetRefreshScheduler(RefreshScheduler scheduler) {
    const std::lock_guard<std::mutex> lock(schedulerMutex);
    refreshScheduler = std::move(scheduler);
}

// --- refreshing ---------------------------------------------------------------------------------

bool ConfigImpl::Refresh(bool force) {
    if (!force && !isDownloadRequired()) {
        scheduleExpiryCheck();
        return true;
    }
    const std::string device = deviceId();
    if (device.empty()) {
        logValue(" DeviceId is empty", "");
        return false;
    }
    const std::int32_t now = currentUtcSeconds();
    if (attemptIsTooRecent(now)) return false;
    logValue(" trying to load config from server... force=", force);
    if (!termsOfUseExist()) {
        cerrdbg << kLogPrefix << "Tou does not exist, Retry later" << std::endl;
        return giveUp(now);
    }
    const Credentials credentials;
    NetworkHelper request;
    const std::string url = credentials.getConfigUrl() + device;
    if (!request.UrlRequest(url, true, credentials.getLambdaKey())) {
        cerrdbg << kLogPrefix << "Config could not be retrieved from server" << std::endl;
        return giveUp(now);
    }
    return takeAnswer(request.data, request.date, now);
}

/// Whether less than the least time between two attempts has passed; then it asks for the next
/// try. Where a wall-clock time is missing the monotonic clock serves.
bool ConfigImpl::attemptIsTooRecent(std::int32_t now) {
    const std::int64_t kernelMs = KernelTime::getTimeMonotonicAsInt64();
    std::int32_t lastAttempt = 0;
    std::int64_t elapsed = kRetrySeconds;  // seconds
    {
        std::unique_lock<std::recursive_mutex> lock(m_lock);
        lastAttempt = m_lastAttempt;
        if (now != 0 && lastAttempt != 0) {
            elapsed = static_cast<std::int64_t>(now) - lastAttempt;
        } else if (m_lastAttemptKernelMs >= 0) {
            elapsed = (kernelMs - m_lastAttemptKernelMs) / 1000;
        }
    }
    if (elapsed < 0 || elapsed >= kRetrySeconds) return false;
    if (verboseFlag) {
        coutdbg << kLogPrefix << "Last request was too recent : time = " << now << " last Attempt "
                << lastAttempt << std::endl;
    }
    scheduleRefresh((kRetrySeconds - elapsed) * 1000, true);
    return true;
}

void ConfigImpl::recordAttempt(std::int32_t utcSeconds) {
    const std::int64_t kernelMs = KernelTime::getTimeMonotonicAsInt64();
    std::unique_lock<std::recursive_mutex> lock(m_lock);
    m_lastAttempt = utcSeconds;
    m_lastAttemptKernelMs = kernelMs;
}

/// Ends an attempt that brought nothing. @return false
bool ConfigImpl::giveUp(std::int32_t now) {
    recordAttempt(now);
    scheduleExpiryCheck();
    return false;
}

bool ConfigImpl::takeAnswer(const std::string& body, const std::string& date, std::int32_t now) {
    JsonObject doc = JsonObject::parse(body);
    if (!doc.isObject()) {
        cerrdbg << kLogPrefix << "Invalid Config JSON object received: " << body << std::endl;
        return giveUp(now);
    }
    const std::int32_t serverTime = takeServerTime(date);
    stamp(doc, date);
    if (isErrorAnswer(doc)) {
        countAsFresh(serverTime);
    } else {
        saveAndParseConfig(doc);
    }
    recordAttempt(serverTime != 0 ? serverTime : now);
    callBack();
    scheduleExpiryCheck();
    return true;
}

void ConfigImpl::stamp(JsonObject& doc, const std::string& date) {
    doc.set(Config::keyUtcTime, JsonObject::createInteger(currentUtcSeconds()));
    doc.set(Config::keyLastModified, date);
}

/// The configuration in force counts as received at `serverTime`, unless that is not known (0).
void ConfigImpl::countAsFresh(std::int32_t serverTime) {
    if (serverTime == 0) return;
    std::unique_lock<std::recursive_mutex> lock(m_lock);
    m_utcTime = serverTime;
}

void ConfigImpl::callBack() const {
    const std::function<void()> callback = read(m_callback);
    if (callback) callback();
}

// --- thresholds, callback and getters -----------------------------------------------------------

bool ConfigImpl::MinimumSizeReached(long dbSize) const {
    const std::int32_t minSize = GetMinSize();
    if (verboseFlag) {
        coutdbg << kLogPrefix << " DBsize(" << dbSize << ") vs MinimumSizeThreshold(" << minSize
                << ")" << std::endl;
    }
    return dbSize > minSize;
}

void ConfigImpl::RegisterCallback(std::function<void()> callback) {
    std::unique_lock<std::recursive_mutex> lock(m_lock);
    m_callback = std::move(callback);
}

std::string ConfigImpl::GetPath() const {
    return read(m_path);
}

bool ConfigImpl::GetTouAccepted() const {
    return read(m_touAccepted);
}

std::int64_t ConfigImpl::GetExpiryTou() const {
    return read(m_expiryTou);
}

std::string ConfigImpl::GetEventFilter() const {
    return read(m_eventFilter);
}

std::string ConfigImpl::GetFileFilter() const {
    return read(m_fileFilter);
}

std::int64_t ConfigImpl::GetMaxDelay() const {
    return read(m_maxDelay);
}

std::int32_t ConfigImpl::GetMaxSize() const {
    return read(m_maxSize);
}

std::int32_t ConfigImpl::GetMinSize() const {
    return read(m_minSize);
}

std::string ConfigImpl::GetFirehoseEndpoint() const {
    return read(m_firehoseEndpoint);
}

std::string ConfigImpl::GetS3Endpoint() const {
    return read(m_s3Endpoint);
}

std::string ConfigImpl::GetFirehoseStream() const {
    return read(m_firehoseStream);
}

std::string ConfigImpl::GetS3Bucket() const {
    return read(m_s3Bucket);
}

std::string ConfigImpl::GetIV() const {
    return read(m_iv);
}

std::string ConfigImpl::GetAccessKeyId() const {
    return read(m_accessKeyId);
}

std::string ConfigImpl::GetSecretAccessKey() const {
    return read(m_secretAccessKey);
}

std::string ConfigImpl::GetSessionToken() const {
    return read(m_sessionToken);
}

std::string ConfigImpl::GetLastModified() const {
    return read(m_lastModified);
}

std::int32_t ConfigImpl::GetUtcTime() const {
    return read(m_utcTime);
}

std::int32_t ConfigImpl::GetLastAttempt() const {
    return read(m_lastAttempt);
}

void ConfigImpl::SetVerbose(bool verbose) {
    verboseFlag = verbose;
}

bool ConfigImpl::GetVerbose() {
    return verboseFlag;
}
