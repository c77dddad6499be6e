#pragma once

#include <string>

class AwsWrapperImpl;

/// What is sent about the store itself, past the store: the listing of the data partition when the
/// store is full, and an event when it is in error. Each goes out once a run, and not without
/// consent.
///
/// Belongs to the upload side and lives as long as it; needs no store. For the upload thread,
/// without locks held. Failures are results and error lines.
class DatabaseReports {
  public:
    explicit DatabaseReports(AwsWrapperImpl& cloud) : m_cloud(cloud) {}
    DatabaseReports(const DatabaseReports&) = delete;
    DatabaseReports& operator=(const DatabaseReports&) = delete;

    /// @return whether the listing was sent; 1 too when there was nothing to do
    int sendFullFile();
    /// A failed one is sent with the next call.
    void sendErrorEvent();

    /// The folder in the bucket for objects that name no place of their own: the set's component.
    static std::string componentFolder();

  private:
    friend struct DatabaseReportsPeer;

    AwsWrapperImpl& m_cloud;
    bool m_fullFileSent = false;
    bool m_errorEventSent = false;
    std::string m_listedDirectory = "/3rd_rw";
    std::string m_listingFile = "/tmp/dbfullfile.log";
};
