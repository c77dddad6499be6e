#pragma once

#include <string>

#include "DatabaseReports.h"

/// What has been sent, and where the full report looks and writes.
struct DatabaseReportsPeer {
    static bool fullFileSent(const DatabaseReports& reports) { return reports.m_fullFileSent; }
    static bool errorEventSent(const DatabaseReports& reports) { return reports.m_errorEventSent; }
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
