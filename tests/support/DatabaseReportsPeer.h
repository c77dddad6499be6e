#pragma once

#include <string>

#include "DatabaseReports.h"
#include "support/PausePeer.h"

/// What has been sent, and where the full report looks and writes.
struct DatabaseReportsPeer {
    static bool fullFileSent(const DatabaseReports& reports) { return reports.m_fullFileSent; }
    static bool errorEventSent(const DatabaseReports& reports) { return reports.m_errorEventSent; }
    static void letAMinutePass(DatabaseReports& reports) {
        PausePeer::complete(reports.m_fullFileFailed);
        PausePeer::complete(reports.m_errorEventFailed);
    }
    static void setReport(DatabaseReports& reports, const std::string& directory,
                          const std::string& listingFile) {
        reports.m_listedDirectory = directory;
        reports.m_listingFile = listingFile;
    }
    static const std::string& listedDirectory(const DatabaseReports& reports) {
        return reports.m_listedDirectory;
    }
    static const std::string& listingFile(const DatabaseReports& reports) {
        return reports.m_listingFile;
    }
};
