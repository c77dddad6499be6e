#pragma once

#include "JsonObject.h"

#include <cstdint>
#include <string>

/// What the daemon says of itself in its status document, and whether it runs.
///
/// Reads the document and /proc when it is made; a value afterwards. Without a document everything
/// is 0 and "". It does not judge.
class DaemonReport {
  public:
    /// How one target answers.
    struct Answers {
        std::int64_t requests = 0;
        std::int64_t failures = 0;
        std::int64_t lastSuccess = 0;  ///< monotonic ms; 0: never
        std::int64_t lastFailure = 0;
        bool fails = false;
        bool unreachable = false;
        std::string error;
    };

    explicit DaemonReport(const std::string& path);

    const std::string& path() const { return m_path; }
    /// Whether there is a document of the daemon that runs.
    bool speaks() const { return m_running && !m_document.isNull(); }
    bool isRunning() const { return m_running; }
    long long process() const { return m_process; }
    std::string version() const { return m_document.optString("version"); }
    std::int64_t started() const { return m_document.optInteger("started", 0); }

    std::int64_t count(const char* name) const;
    std::int64_t fact(const char* name) const;
    Answers answers(const char* target) const;
    /// One of the daemon's files; "" where it does not say.
    std::string file(const char* name) const;
    const JsonObject& document() const { return m_document; }

  private:
    std::string m_path;
    JsonObject m_document;
    bool m_running = false;
    long long m_process = 0;
};
