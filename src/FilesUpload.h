#pragma once

#include <cstdint>
#include <memory>

#include "DB.h"

class AwsWrapperImpl;
class DatabaseReports;
class UploadSchedule;

/// The upload of the files that other processes announced: one pass over the records of the store,
/// that whose last failure is oldest first.
///
/// Belongs to the upload side, which lends it the store, the schedule, the cloud client and the
/// reports; it keeps nothing between two passes. For the upload thread, without locks held.
class FilesUpload {
  public:
    FilesUpload(DB& store, UploadSchedule& schedule, AwsWrapperImpl& cloud,
                DatabaseReports& reports)
        : m_store(store), m_schedule(schedule), m_cloud(cloud), m_reports(reports) {}
    FilesUpload(const FilesUpload&) = delete;
    FilesUpload& operator=(const FilesUpload&) = delete;

    /// One pass; asks for the next one where a file has to wait.
    /// @return 1 when a record was uploaded or dropped, else 0
    int run();

  private:
    struct Pass;

    bool handleNext(Pass& pass);
    void handle(const DB::PendingUpload& file, Pass& pass);
    bool upload(const DB::PendingUpload& file);

    DB& m_store;
    UploadSchedule& m_schedule;
    AwsWrapperImpl& m_cloud;
    DatabaseReports& m_reports;
};
