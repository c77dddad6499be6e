#pragma once

#include <atomic>
#include <cstdint>
#include <string>

/// The user's consent to the terms of use, as the user interface left it in "current_tou.txt",
/// and the announcement of newer terms to it through "show_new_tou.txt" and
/// "tou_server_answer.txt". All files lie in one directory, whose name is used as a prefix and
/// ends in "/".
///
/// Reached through `Singleton<CTouImpl>`. `Load` runs at start-up, `ReLoad` and `Refresh` on the
/// upload thread; `isAccepted` and `getVersion` may be read from any thread. Bad files never
/// throw: they leave consent off, with an error line.
class CTouImpl {
  public:
    /// Reads the consent from the files in `directory`.
    void Load(const std::string& directory);
    /// Loads again while the file was missing. @return whether the file exists.
    bool ReLoad();
    /// Asks the server for the latest terms and announces newer ones. @return false when the
    /// server gave no usable answer. Never changes the consent itself.
    bool Refresh();

    bool isAccepted() const { return m_accepted; }
    long getVersion() const { return m_version; }

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct CTouImplPeer;

    std::string readConsentFile();
    std::int64_t readServerVersion() const;
    void parseConsent(const std::string& text, std::int64_t serverVersion);
    void dropServerAnswer() const;
    void announce(const std::string& url, bool mandatory, const std::string& answer) const;
    void write(const std::string& name, const std::string& text) const;

    std::atomic<bool> m_accepted{false};
    bool m_fileExists = false;
    std::atomic<std::int32_t> m_version{0};
    std::string m_directory;
};
