#pragma once

#include "Evidence.h"
#include "Finding.h"

#include <string>

/// Checks of a set what can be checked without its daemon: files and folders, the clock, each
/// server's name, connection and certificate, the queue, the store whole. It changes nothing, and
/// asks no server for anything.
///
/// Lives for one examination, on the evidence that it is lent.
class Doctor {
  public:
    explicit Doctor(const Evidence& evidence);

    bool isAllInOrder() const;
    std::string table() const;
    std::string json() const;

  private:
    void checkFolders();
    void checkClock();
    void checkCertificates();
    void checkServers();
    void checkServer(const std::string& whose, const std::string& url);
    void checkStore();
    void add(const char* subject, Finding::Level level, const std::string& text,
             const std::string& mend = "");

    const Evidence& m_evidence;
    Findings m_findings;
};
