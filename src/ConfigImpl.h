#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "ConfigDocument.h"
#include "JsonObject.h"

class NetworkHelper;

/// The daemon's working configuration: fetched from the server, mirrored in a persistent file,
/// read through locked getters. What a document says is read by `ConfigDocument`.
///
/// Reached through `Singleton<ConfigImpl>` or the facade `Config`. `Refresh` runs on the upload
/// thread, getters on any. The recursive lock guards every field; it is never held across HTTP, a
/// file write, the time manager, a scheduling call or the callback. The mutex of the stored file is
/// held while that is read, and comes before it.
///
/// A stored file that is there and cannot be read (the disk fails, memory is short, the right is
/// missing) stays as it is. Until it can be read, or an answer of the server takes its place,
/// nothing is collected.
class ConfigImpl {
  public:
    ConfigImpl();

    /// Remembers the path and reads the persistent file; a missing one, or one that is not a
    /// configuration, is replaced by the default document.
    void Load(std::string path);
    /// Copies the document into the fields; absent members keep or clear theirs, key by key.
    void parseConfig(const JsonObject& doc);
    /// Replaces the persistent file (atomically). A failed write gets an error line.
    void saveConfig(const JsonObject& doc);
    void saveAndParseConfig(const JsonObject& doc);

    /// Fetches the configuration if it is needed or forced, at most once in 600 s, and asks for
    /// the next check. @return whether it is current or an answer was received. An HTTP status
    /// other than 200 to 299 is not an answer, but for an error answer of the server (400 and
    /// above).
    bool Refresh(bool force);
    bool isDownloadRequired();
    bool configIsExpired();
    /// Whether a server's answer was ever taken over.
    bool IsValid() const;
    /// Asks for a refresh when this configuration expires, or in 600 s where that is not known.
    void scheduleExpiryCheck();
    /// Whether an event may be kept, and a packet or a file sent: the server has consent on record,
    /// and the user has not said no. Reads again, at most once in 10 s, what could not be read.
    bool collectionAllowed();
    /// Whether the stored file could not be read yet: the values are the defaults.
    bool storedIsUnread() const { return m_storedIsUnread; }
    /// Whether a file with the configuration or the user's answer is to be read again, in
    /// `CTouImpl::kReadAgainMs`.
    bool waitsForFiles() const;
    /// Whether `dbSize` (bytes) is above "min-size".
    bool MinimumSizeReached(long dbSize) const;
    /// `callback` runs after every answer that parsed, on the refreshing thread, without the lock.
    void RegisterCallback(std::function<void()> callback);

    std::string GetPath() const;
    bool GetTouAccepted() const;         ///< "kiv_tou": the server has consent on record
    std::int64_t GetExpiryTou() const;   ///< seconds
    std::string GetEventFilter() const;  ///< JSON text
    std::string GetFileFilter() const;   ///< JSON text
    std::int64_t GetMaxDelay() const;    ///< seconds
    std::int32_t GetMaxSize() const;     ///< bytes
    std::int32_t GetMinSize() const;     ///< bytes
    std::string GetFirehoseEndpoint() const;
    std::string GetS3Endpoint() const;
    std::string GetFirehoseStream() const;
    std::string GetS3Bucket() const;
    std::string GetIV() const;               ///< hexadecimal
    std::string GetAccessKeyId() const;      ///< hexadecimal cipher text
    std::string GetSecretAccessKey() const;  ///< hexadecimal cipher text
    std::string GetSessionToken() const;     ///< hexadecimal cipher text
    std::string GetLastModified() const;
    std::int32_t GetUtcTime() const;      ///< UTC seconds of the answer in force
    std::int32_t GetLastAttempt() const;  ///< UTC seconds of the last download attempt

    /// Who runs a refresh after a delay: scheduler(delay in ms, force). The upload side installs
    /// itself here; without one nothing is scheduled. Guarded by a mutex of its own, which is held
    /// during the call.
    using RefreshScheduler = std::function<void(long, bool)>;
    static void SetRefreshScheduler(RefreshScheduler scheduler);

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct ConfigImplPeer;

    template <typename Field>
    Field read(const Field& field) const {
        const std::lock_guard<std::recursive_mutex> lock(m_lock);
        return field;
    }
    void takeStored();
    void readStoredAgain();
    void replaceStored(const JsonObject& doc);
    static std::int32_t currentUtcSeconds();
    static void scheduleRefresh(long long delayMs, bool force);
    bool attemptIsTooRecent(std::int32_t now);
    void recordAttempt(std::int32_t utcSeconds);
    bool giveUp(std::int32_t now);
    static bool waitForTerms();
    bool takeAnswer(const NetworkHelper& answer, std::int32_t now);
    void countAsFresh(std::int32_t serverTime);
    void callBack() const;
    std::int64_t secondsLeft(std::int32_t now) const;

    std::mutex m_storedMutex;                   ///< held while the stored file is read; see there
    std::atomic<bool> m_storedIsUnread{false};  ///< changed with m_storedMutex held
    std::atomic<std::int64_t> m_storedKernelMs{0};  ///< of the last attempt to read it; monotonic

    std::string m_path;
    ConfigDocument::Values m_values;
    std::int32_t m_lastAttempt = 0;           ///< UTC seconds
    std::int64_t m_lastAttemptKernelMs = -1;  ///< monotonic stamp of the last attempt; -1: none
    std::function<void()> m_callback;
    mutable std::recursive_mutex m_lock;  ///< guards what follows m_storedKernelMs
};
