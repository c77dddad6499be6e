#pragma once

#include <cstdint>

class Config;
class DatabaseReports;

/// What must hold before events or files may leave the device. Keeps nothing. For the upload
/// thread, without locks held: it may use the network.
class UploadConditions {
  public:
    /// Asks for web time and for a newer configuration first; a store in error gets its event sent
    /// instead.
    /// @return whether consent, configuration and web time allow an upload
    static bool areMet(const Config& config, DatabaseReports& reports);
    /// UTC seconds by the time manager; 0 when unknown.
    static std::int64_t nowSeconds();
};
