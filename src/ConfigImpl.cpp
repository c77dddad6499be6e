#include "ConfigImpl.h"

#include "AtomicFile.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "ClassLog.h"
#include "KernelTime.h"
#include "NetworkHelper.h"
#include "RegularFile.h"
#include "ServiceTables.h"
#include "Singleton.h"
#include "Status.h"
#include "TimeMgrImpl.h"
#include "WebTimeImpl.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <utility>

namespace {

ClassLog s_log("kivconfig: ");

constexpr std::int64_t kRetrySeconds = 600;  // least time between attempts, and the blind re-check
constexpr std::int64_t kLongestDelayMs = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kLongestExpiry = std::int64_t{1} << 40;  // seconds, for safe arithmetic

std::mutex schedulerMutex;  // guards refreshScheduler; held while it is called
ConfigImpl::RefreshScheduler refreshScheduler;

std::string deviceId() {
    const Singleton<CGlobalInfoImpl> globalInfo;
    return globalInfo->getDeviceId();
}

bool termsOfUseExist() {
    const Singleton<CTouImpl> tou;
    return tou->ReLoad();
}

bool termsOfUseAreUnreadable() {
    const Singleton<CTouImpl> tou;
    return tou->isUnreadable();
}

/// An answer has just told the time.
void askForTermsThatWaited() {
    const Singleton<CTouImpl> tou;
    tou->refreshIfItWaited();
}

}  // namespace

ConfigImpl::ConfigImpl() = default;

// --- the document -------------------------------------------------------------------------------

void ConfigImpl::Load(std::string path) {
    {
        const std::lock_guard<std::recursive_mutex> lock(m_lock);
        m_path = std::move(path);
    }
    const std::lock_guard<std::mutex> lock(m_storedMutex);
    m_storedIsUnread = false;
    takeStored();
}

/// With m_storedMutex held: meanwhile no answer of the server can be overtaken.
void ConfigImpl::takeStored() {
    const RegularFile file(GetPath());
    m_storedKernelMs = KernelTime::getTimeMonotonicAsInt64();
    if (file.cannotBeReadNow()) {
        if (!m_storedIsUnread.exchange(true))
            s_log.error("Persistent config cannot be read, nothing is collected until it can: ",
                        ClassLog::errnoText(file.error()));
        return;
    }
    if (m_storedIsUnread) s_log.always("Persistent config can be read again");
    const JsonObject stored = JsonObject::loadFile(file);
    if (stored.isObject()) {
        parseConfig(stored);
    } else {
        s_log.info(" persistent config not found, creating default one");
        saveAndParseConfig(ConfigDocument::defaultDocument());
    }
    m_storedIsUnread = false;  // last: what was made of the defaults is made anew from then on
}

void ConfigImpl::readStoredAgain() {
    if (!m_storedIsUnread) return;
    const std::int64_t since = KernelTime::getTimeMonotonicAsInt64() - m_storedKernelMs;
    if (since < CTouImpl::kReadAgainMs) return;
    // Where another thread reads already this one does not wait for the disk.
    const std::unique_lock<std::mutex> lock(m_storedMutex, std::try_to_lock);
    if (lock.owns_lock() && m_storedIsUnread) takeStored();
}

void ConfigImpl::replaceStored(const JsonObject& doc) {
    const std::lock_guard<std::mutex> lock(m_storedMutex);
    if (m_storedIsUnread) s_log.always("Persistent config is replaced without having been read");
    saveAndParseConfig(doc);
    m_storedIsUnread = false;
}

void ConfigImpl::saveAndParseConfig(const JsonObject& doc) {
    saveConfig(doc);
    parseConfig(doc);
}

void ConfigImpl::saveConfig(const JsonObject& doc) {
    const std::string failure = AtomicFile::replace(GetPath(), doc.dumpAsString());
    if (!failure.empty()) s_log.error("Cannot save persistent config: ", failure);
}

void ConfigImpl::parseConfig(const JsonObject& doc) {
    const std::lock_guard<std::recursive_mutex> lock(m_lock);
    ConfigDocument::parse(doc, m_values, s_log);
    Status::set(Status::ConfigTime, m_values.utcTime);
}

// --- validity -----------------------------------------------------------------------------------

std::int32_t ConfigImpl::currentUtcSeconds() {
    const Singleton<TimeMgrImpl> timeManager;
    using Limits = std::numeric_limits<std::int32_t>;
    const std::int64_t seconds = timeManager->getTime() / 1000;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(seconds, Limits::min(), Limits::max()));
}

bool ConfigImpl::IsValid() const {
    const std::lock_guard<std::recursive_mutex> lock(m_lock);
    return !m_values.lastModified.empty() || m_values.utcTime != 0;
}

/// Seconds until the configuration expires at `now` (not positive: it has). With m_lock held.
std::int64_t ConfigImpl::secondsLeft(std::int32_t now) const {
    const std::int64_t age = static_cast<std::int64_t>(now) - m_values.utcTime;
    if (age < 0) return 0;  // dated ahead by a clock that was wrong: it could stay for years
    return std::clamp(m_values.expiryTou, -kLongestExpiry, kLongestExpiry) - age;
}

bool ConfigImpl::configIsExpired() {
    const std::int32_t now = currentUtcSeconds();  // before the lock: the time manager has its own
    const std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (now == 0 || !IsValid()) return true;
    return secondsLeft(now) <= 0;
}

bool ConfigImpl::isDownloadRequired() {
    const bool expired = configIsExpired();
    const bool valid = IsValid();
    s_log.info("isDownloadRequired: IsValid=", valid, " configIsExpired=", expired);
    return valid ? expired : true;
}

void ConfigImpl::scheduleExpiryCheck() {
    const std::int32_t now = currentUtcSeconds();
    std::int64_t delaySeconds = kRetrySeconds;
    {
        const std::lock_guard<std::recursive_mutex> lock(m_lock);
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
    readStoredAgain();
    if (!force && !isDownloadRequired()) {
        scheduleExpiryCheck();
        return true;
    }
    const std::string device = deviceId();
    if (device.empty()) {
        s_log.info(" DeviceId is empty");
        return false;
    }
    const std::int32_t now = currentUtcSeconds();
    if (attemptIsTooRecent(now)) return false;
    const bool termsExist = termsOfUseExist();
    if (termsOfUseAreUnreadable()) return waitForTerms();
    recordAttempt(now);  // also one that throws
    s_log.info(" trying to load config from server... force=", force);
    if (!termsExist) {
        s_log.error("Tou does not exist, Retry later");
        return giveUp(now);
    }
    NetworkHelper request;
    const std::string url = ServiceTables::getConfigUrl() + device;
    request.countFor(Status::Config);
    request.allowUnknownTime();  // its Date may be what tells the time
    if (!request.UrlRequest(url, true, ServiceTables::getLambdaKey())) {
        s_log.error("Config could not be retrieved from server");
        return giveUp(now);
    }
    return takeAnswer(request, now);
}

/// Whether less than the least time between two attempts has passed; then it asks for the next
/// try. Where a wall-clock time is missing, or the last attempt seems to lie ahead, the monotonic
/// clock serves.
bool ConfigImpl::attemptIsTooRecent(std::int32_t now) {
    const std::int64_t kernelMs = KernelTime::getTimeMonotonicAsInt64();
    std::int32_t lastAttempt = 0;
    std::int64_t elapsed = kRetrySeconds;  // seconds
    {
        const std::lock_guard<std::recursive_mutex> lock(m_lock);
        lastAttempt = m_lastAttempt;
        if (now != 0 && lastAttempt != 0 && now >= lastAttempt) {
            elapsed = static_cast<std::int64_t>(now) - lastAttempt;
        } else if (m_lastAttemptKernelMs >= 0) {
            elapsed = (kernelMs - m_lastAttemptKernelMs) / 1000;
        }
    }
    if (elapsed < 0 || elapsed >= kRetrySeconds) return false;
    s_log.info("Last request was too recent : time = ", now, " last Attempt ", lastAttempt);
    scheduleRefresh((kRetrySeconds - elapsed) * 1000, true);
    return true;
}

void ConfigImpl::recordAttempt(std::int32_t utcSeconds) {
    const std::int64_t kernelMs = KernelTime::getTimeMonotonicAsInt64();
    const std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_lastAttempt = utcSeconds;
    m_lastAttemptKernelMs = kernelMs;
}

/// Ends an attempt that brought nothing. @return false
bool ConfigImpl::giveUp(std::int32_t now) {
    recordAttempt(now);
    scheduleExpiryCheck();
    return false;
}

/// The server would take a request without the accepted version for a user's no, and answer so.
/// Nothing was asked: the next look at the files is not an attempt too soon. @return false
bool ConfigImpl::waitForTerms() {
    s_log.info("Tou cannot be read, Retry later");
    scheduleRefresh(CTouImpl::kReadAgainMs, true);
    return false;
}

bool ConfigImpl::takeAnswer(const NetworkHelper& answer, std::int32_t now) {
    if (!answer.isGoodAnswer()) {
        s_log.error("Config could not be retrieved from server");
        return giveUp(now);
    }
    JsonObject doc = JsonObject::parse(answer.data);
    const bool refused = ConfigDocument::isErrorAnswer(doc);
    if (!refused && !ConfigDocument::isConfiguration(doc)) {
        s_log.error("Invalid Config JSON object received: ", ClassLog::foreign(answer.data));
        Status::failed(Status::Config, "the answer is not a configuration");
        return giveUp(now);
    }
    const std::int32_t serverTime = WebTimeImpl::takeDate(answer.date, s_log);
    ConfigDocument::stamp(doc, currentUtcSeconds(), answer.date);
    if (refused) {
        Status::failed(Status::Config, "the server refuses: " + ConfigDocument::refusal(doc));
        countAsFresh(serverTime);
    } else {
        replaceStored(doc);
    }
    recordAttempt(serverTime != 0 ? serverTime : now);
    callBack();
    scheduleExpiryCheck();
    askForTermsThatWaited();
    return true;
}

/// The configuration in force counts as received at `serverTime`, unless that is not known (0). A
/// server that is up to a minute ahead does not move the known time: it must not date it ahead.
void ConfigImpl::countAsFresh(std::int32_t serverTime) {
    if (serverTime == 0) return;
    const std::int32_t now = currentUtcSeconds();
    const std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_values.utcTime = now == 0 ? serverTime : std::min(serverTime, now);
    Status::set(Status::ConfigTime, m_values.utcTime);
}

void ConfigImpl::callBack() const {
    const std::function<void()> callback = read(m_callback);
    if (callback) callback();
}

// --- thresholds, callback and getters -----------------------------------------------------------

bool ConfigImpl::collectionAllowed() {
    readStoredAgain();
    const Singleton<CTouImpl> tou;
    return tou->allowsCollection() && GetTouAccepted();
}

bool ConfigImpl::waitsForFiles() const {
    return m_storedIsUnread || termsOfUseAreUnreadable();
}

bool ConfigImpl::MinimumSizeReached(long dbSize) const {
    const std::int32_t minSize = GetMinSize();
    s_log.info(" DBsize(", dbSize, ") vs MinimumSizeThreshold(", minSize, ")");
    return dbSize > minSize;
}

void ConfigImpl::RegisterCallback(std::function<void()> callback) {
    const std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_callback = std::move(callback);
}

std::string ConfigImpl::GetPath() const {
    return read(m_path);
}

bool ConfigImpl::GetTouAccepted() const {
    return read(m_values.touAccepted);
}

std::int64_t ConfigImpl::GetExpiryTou() const {
    return read(m_values.expiryTou);
}

std::string ConfigImpl::GetEventFilter() const {
    return read(m_values.eventFilter);
}

std::string ConfigImpl::GetFileFilter() const {
    return read(m_values.fileFilter);
}

std::int64_t ConfigImpl::GetMaxDelay() const {
    return read(m_values.maxDelay);
}

std::int32_t ConfigImpl::GetMaxSize() const {
    return read(m_values.maxSize);
}

std::int32_t ConfigImpl::GetMinSize() const {
    return read(m_values.minSize);
}

std::string ConfigImpl::GetFirehoseEndpoint() const {
    return read(m_values.firehoseEndpoint);
}

std::string ConfigImpl::GetS3Endpoint() const {
    return read(m_values.s3Endpoint);
}

std::string ConfigImpl::GetFirehoseStream() const {
    return read(m_values.firehoseStream);
}

std::string ConfigImpl::GetS3Bucket() const {
    return read(m_values.s3Bucket);
}

std::string ConfigImpl::GetIV() const {
    return read(m_values.iv);
}

std::string ConfigImpl::GetAccessKeyId() const {
    return read(m_values.accessKeyId);
}

std::string ConfigImpl::GetSecretAccessKey() const {
    return read(m_values.secretAccessKey);
}

std::string ConfigImpl::GetSessionToken() const {
    return read(m_values.sessionToken);
}

std::string ConfigImpl::GetLastModified() const {
    return read(m_values.lastModified);
}

std::int32_t ConfigImpl::GetUtcTime() const {
    return read(m_values.utcTime);
}

std::int32_t ConfigImpl::GetLastAttempt() const {
    return read(m_lastAttempt);
}

void ConfigImpl::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool ConfigImpl::GetVerbose() {
    return s_log.isVerbose();
}
