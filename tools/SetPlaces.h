#pragma once

#include <string>

class DaemonReport;
struct StatusOptions;

/// Where this set's files are: what the command line says; else what the running daemon was told;
/// else the daemon's settings, of the environment and then of the file that its start reads; else
/// where an installed daemon has them.
///
/// A value; reads the settings when it is made.
struct SetPlaces {
    /// The status document, which is needed for the rest.
    static std::string statusFile(const StatusOptions& options);

    SetPlaces(const StatusOptions& options, const DaemonReport& daemon);

    std::string globalInfo;
    std::string bootInfo;
    std::string config;
    std::string database;
    std::string termsFolder;  ///< ends in "/"
    std::string queue;
    std::string certificates;  ///< "CURL_CA_BUNDLE"; "" for the system's
};
