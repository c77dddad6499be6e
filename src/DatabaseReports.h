#pragma once

#include <chrono>
#include <string>

#include "Pause.h"

class AwsWrapperImpl;
class UploadSchedule;

/// What is sent about the store itself, past the store: the listing of the data partition when the
/// store is full, and an event when it is in error. Each goes out once a run, and not without
/// consent, nor while no clock can judge the cloud's certificate; after a failure, and after an
/// attempt that threw, none is tried for a minute.
///
/// Belongs to the upload side, which lends it the cloud client and the schedule; needs no store.
/// For the upload thread, without locks held. Failures are results and error lines.
class DatabaseReports {
  public:
    DatabaseReports(AwsWrapperImpl& cloud, UploadSchedule& schedule)
        : m_cloud(cloud), m_schedule(schedule) {}
    DatabaseReports(const DatabaseReports&) = delete;
    DatabaseReports& operator=(const DatabaseReports&) = delete;

    /// @return whether the listing was sent; 1 too when there was nothing to do, 0 too within a
    /// minute of a failure and while no clock can be believed
    int sendFullFile();
    /// A failed one is owed: it asks for an upload in a minute, which sends it.
    void sendErrorEvent();
    /// Sends the error event that failed before, if there is one, and not within a minute.
    void sendOwedErrorEvent();

    /// The folder in the bucket for objects that name no place of their own: the set's component.
    static std::string componentFolder();

  private:
    friend struct DatabaseReportsPeer;

    bool sendListing();

    AwsWrapperImpl& m_cloud;
    UploadSchedule& m_schedule;
    bool m_fullFileSent = false;
    bool m_errorEventSent = false;
    bool m_errorEventOwed = false;  ///< it failed or waits; the store may be in order again
    Pause m_fullFileFailed{std::chrono::minutes(1)};
    Pause m_errorEventFailed{std::chrono::minutes(1)};
    std::string m_listedDirectory = "/3rd_rw";
    std::string m_listingFile = "/tmp/dbfullfile.log";
};
