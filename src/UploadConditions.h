#pragma once

#include <cstdint>

#include "Pause.h"

class Config;
class DB;
class DatabaseReports;

/// What must hold before events or files may leave the device: consent, a configuration in force,
/// web time, and a store that works.
///
/// A part of each of the two uploads, which lend it the store and the reports; it schedules
/// nothing. For the upload thread, without locks held: it may use the network.
class UploadConditions {
  public:
    enum class Verdict {
        Met,
        NotMet,    ///< not now: `UploadImpl` asks for the jobs again when they `hold`
        AskAgain,  ///< the store was in error, but works: the next job may go on
        AskLater   ///< the store fails: ask again after UploadSchedule::kRetryMs
    };

    UploadConditions(DB& store, DatabaseReports& reports);
    UploadConditions(const UploadConditions&) = delete;
    UploadConditions& operator=(const UploadConditions&) = delete;

    /// Asks for web time and for a newer configuration first. A store in error is reported instead
    /// and asked whether it works. One that fails is asked once a minute; until then the verdict is
    /// `NotMet`. After `AskAgain` the next verdict is about the other conditions alone: a flood of
    /// events that fail for a reason of their own must not hold up the good ones.
    Verdict check(const Config& config);

    /// Whether consent, configuration and web time are as they must be. Asks no server.
    static bool hold(const Config& config);
    /// UTC seconds by the time manager; 0 when unknown.
    static std::int64_t nowSeconds();

  private:
    friend struct UploadConditionsPeer;

    Verdict askTheStore();

    DB& m_store;
    DatabaseReports& m_reports;
    bool m_storeAnswered = false;  ///< the last verdict was `AskAgain`
    Pause m_storeFails;            ///< until the store is asked again
};
