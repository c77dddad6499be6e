#pragma once

#include <cstdint>
#include <string>

#include "UtcTime.h"

/// The facts about the device that the platform leaves in files at start-up.
///
/// Reached through `Singleton<CGlobalInfoImpl>`. Written on the main thread during start-up, only
/// read afterwards: no lock. Missing or malformed files leave the defaults and report nothing.
class CGlobalInfoImpl {
  public:
    /// Reads the global information file (one JSON object). Strings that are absent keep their
    /// value; an absent "op_hour" sets the operating minutes to 0.
    void Load(std::string path);
    /// Parses the build date into the build time.
    void updateBuildTime();

    void setBootCounts(std::uint32_t bootCount, std::uint32_t standbyCount);

    std::uint32_t getBootCount() const { return m_bootCount; }
    std::uint32_t getStandbyCount() const { return m_standbyCount; }
    const std::string& getBuildDate() const { return m_buildDate; }
    const std::string& getDeviceId() const { return m_deviceId; }
    const std::string& getComponent() const { return m_component; }
    const std::string& getSwVersion() const { return m_swVersion; }
    std::int32_t getOpMinutes() const { return m_opMinutes; }
    const std::string& getCountry() const { return m_country; }
    const std::string& getCtn() const { return m_ctn; }
    const std::string& getMenuLanguage() const { return m_menuLanguage; }
    const std::string& getSerial() const { return m_serial; }
    UtcTime getBuildTime() const { return m_buildTime; }

    static void SetVerbose(bool) {}
    static bool GetVerbose() { return false; }  ///< this class never traces

  private:
    std::uint32_t m_bootCount = 0;
    std::uint32_t m_standbyCount = 0;
    std::string m_buildDate;
    std::string m_deviceId;
    std::string m_component;
    std::string m_swVersion;
    std::int32_t m_opMinutes = 0;
    std::string m_country;
    std::string m_ctn;
    std::string m_menuLanguage = "en";
    std::string m_serial;
    UtcTime m_buildTime;
};
