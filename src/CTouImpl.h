#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

class JsonObject;
class RegularFile;

/// The user's consent to the terms of use, as the user interface left it in "current_tou.txt",
/// and the announcement of newer terms to it through "show_new_tou.txt" and
/// "tou_server_answer.txt". All files lie in one directory, whose name is used as a prefix and
/// ends in "/".
///
/// Reached through `Singleton<CTouImpl>`. `Load` runs at start-up, `ReLoad` and `Refresh` on the
/// upload thread; the others may be called from any thread. One mutex, a leaf, is held while the
/// files are read; the answer is read without it. Bad files never throw: they leave consent off,
/// with an error line. What is not a regular file of at most 1 MiB counts as one that could not be
/// opened, and as a no. A file that is there and cannot be read (the disk fails, memory is short,
/// the right is missing) is neither a yes nor a no: nothing is collected until it can be read.
class CTouImpl {
  public:
    /// Reads the consent from the files in `directory`.
    void Load(const std::string& directory);
    /// Loads again while the file was missing, or a file could not be read. @return whether the
    /// file exists, and could be read.
    bool ReLoad();
    /// Asks the server for the latest terms and announces newer ones. @return false when the
    /// server gave no usable answer, and without asking while a file cannot be read. Never changes
    /// the consent itself.
    bool Refresh();
    /// Asks again when the last `Refresh` could not ask: the time was not known, or a file could
    /// not be read.
    void refreshIfItWaited();

    /// How long a file that cannot be read is left alone.
    static constexpr std::int64_t kReadAgainMs = 10000;

    bool isAccepted() const { return m_accepted; }
    /// Whether the user's answer lets events be collected: it is a yes, or there is none. A file
    /// that could not be read is read again first, at most once in 10 s.
    bool allowsCollection();
    /// Whether a file was there at the last load and could not be read.
    bool isUnreadable() const { return m_answer == Answer::Unreadable; }
    /// Whether the user has said no: something was there in the place of "current_tou.txt" at the
    /// last load, and it accepts nothing (or not the version that the server demands).
    bool refused() const { return m_answer == Answer::No; }
    long getVersion() const { return m_version; }

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct CTouImplPeer;

    enum class Answer { None, Yes, No, Unreadable };

    void read();
    void read(const RegularFile& file, const RegularFile& serverAnswer);
    void putOff(const RegularFile& unreadable, const char* name);
    std::string takeConsent(const RegularFile& file);
    static std::int64_t serverVersionOf(const RegularFile& serverAnswer);
    void parseConsent(const std::string& text, std::int64_t serverVersion);
    void dropServerAnswer() const;
    bool announceNewer(const JsonObject& answer) const;
    void announce(const std::string& url, bool mandatory, const std::string& answer) const;
    void write(const std::string& name, const std::string& text) const;

    std::mutex m_loadMutex;  ///< guards m_fileExists, and a reading of the files
    std::atomic<bool> m_accepted{false};
    bool m_fileExists = false;
    std::atomic<Answer> m_answer{Answer::None};  ///< changed last in a reading
    std::atomic<std::int64_t> m_readKernelMs{0};
    bool m_refreshWaits = false;  ///< upload thread only
    std::atomic<std::int32_t> m_version{0};
    std::string m_directory;  ///< not changed after the start
};
