#pragma once

#include <atomic>
#include <cstdint>
#include <string>

class JsonObject;
class RegularFile;

/// The user's consent to the terms of use, as the user interface left it in "current_tou.txt",
/// and the announcement of newer terms to it through "show_new_tou.txt" and
/// "tou_server_answer.txt". All files lie in one directory, whose name is used as a prefix and
/// ends in "/".
///
/// Reached through `Singleton<CTouImpl>`. `Load` runs at start-up, `ReLoad` and `Refresh` on the
/// upload thread; `isAccepted`, `refused` and `getVersion` may be read from any thread. Bad files
/// never throw: they leave consent off, with an error line. What is not a regular file of at most
/// 1 MiB counts as one that could not be opened, and as a no.
class CTouImpl {
  public:
    /// Reads the consent from the files in `directory`.
    void Load(const std::string& directory);
    /// Loads again while the file was missing. @return whether the file exists.
    bool ReLoad();
    /// Asks the server for the latest terms and announces newer ones. @return false when the
    /// server gave no usable answer. Never changes the consent itself.
    bool Refresh();
    /// Asks again when the last `Refresh` could not ask because the time was not known.
    void refreshIfItWaited();

    bool isAccepted() const { return m_accepted; }
    /// Whether the user has said no: something was there in the place of "current_tou.txt" at the
    /// last load, and it accepts nothing (or not the version that the server demands).
    bool refused() const { return m_refused; }
    long getVersion() const { return m_version; }

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct CTouImplPeer;

    std::string takeConsent(const RegularFile& file);
    std::int64_t readServerVersion() const;
    void parseConsent(const std::string& text, std::int64_t serverVersion);
    void dropServerAnswer() const;
    bool announceNewer(const JsonObject& answer) const;
    void announce(const std::string& url, bool mandatory, const std::string& answer) const;
    void write(const std::string& name, const std::string& text) const;

    std::atomic<bool> m_accepted{false};
    bool m_fileExists = false;
    std::atomic<bool> m_refused{false};
    bool m_waitsForTime = false;  ///< upload thread only
    std::atomic<std::int32_t> m_version{0};
    std::string m_directory;
};
