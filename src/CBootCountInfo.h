#pragma once

#include <cstdint>

class JsonObject;

/// The boot-count file: how often the set has booted, and left standby since.
class CBootCountInfo {
  public:
    /// Reads the file. A count that is absent, not an integer or negative (which gets a line on
    /// standard error) becomes 0. @return whether the file was parsed as JSON.
    bool LoadFile(const char* path);

    std::uint32_t getBootCount() const { return m_bootCount; }
    std::uint32_t getStandbyCount() const { return m_standbyCount; }

  private:
    static std::uint32_t readCount(const JsonObject& file, const char* key);

    std::uint32_t m_bootCount = 0;
    std::uint32_t m_standbyCount = 0;
};
