#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "DB.h"
#include "OwnFiles.h"
#include "Pause.h"
#include "UploadConditions.h"

class AwsWrapperImpl;
class DatabaseReports;
class UploadSchedule;

/// The upload of the files that other processes announced: one pass over the records of the store,
/// that whose last failure is oldest first.
///
/// Belongs to the upload side, which lends it the store, the schedule, the cloud client and the
/// reports. Between two passes it remembers what the store could not be told: a file that failed is
/// not tried again within a minute, and of one that is in the cloud only the record is removed, as
/// long as that fails. One file that fails does not hold up the others; when a second one fails
/// within a minute the service is at fault, or may be: then a minute passes before the next pass,
/// whatever is announced meanwhile. For the upload thread, without locks held.
class FilesUpload {
  public:
    FilesUpload(DB& store, UploadSchedule& schedule, AwsWrapperImpl& cloud,
                DatabaseReports& reports)
        : m_store(store), m_schedule(schedule), m_cloud(cloud), m_conditions(store, reports) {}
    FilesUpload(const FilesUpload&) = delete;
    FilesUpload& operator=(const FilesUpload&) = delete;

    /// One pass; asks for the next one where a file has to wait.
    /// @return 1 when a record was uploaded or dropped, else 0
    int run();

  private:
    friend struct FilesUploadPeer;

    struct Pass;
    /// The last one of a file that is still announced.
    struct Attempt {
        std::string url;   ///< of the announcement: another one is another file
        bool done;         ///< uploaded or invalid: nothing is left to do but to remove the record
        Pause beforeNext;  ///< until the next one
    };

    bool mayStart();
    void forgetOldAttempts();
    bool handleNext(Pass& pass);
    bool serviceMayBeAsked();
    long delayBefore(const DB::PendingUpload& file) const;
    bool isDone(const DB::PendingUpload& file) const;
    void handle(const DB::PendingUpload& file, Pass& pass);
    bool upload(const DB::PendingUpload& file, const OwnFiles::Identity& identity);
    bool remove(const DB::PendingUpload& file);
    void recordAttempt(const DB::PendingUpload& file, bool done);
    void remember(const DB::PendingUpload& file, bool done);
    void recordFailure();

    DB& m_store;
    UploadSchedule& m_schedule;
    AwsWrapperImpl& m_cloud;
    UploadConditions m_conditions;
    std::map<std::string, Attempt> m_attempts;      ///< by the names of the files
    Pause m_oneFailed{std::chrono::minutes(1)};     ///< since the latest file that failed
    Pause m_serviceFails{std::chrono::minutes(1)};  ///< until the next pass
};
