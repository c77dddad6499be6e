#pragma once

#include "Evidence.h"
#include "Finding.h"

#include <string>

/// One look at the set: what was found, judged in the order in which things must work, and the
/// verdict on the whole.
///
/// A value. The writing is its caller's.
class Look {
  public:
    explicit Look(const StatusOptions& options);

    /// The exit statuses.
    enum Status : int { Delivers = 0, Degraded = 1, NotRunning = 2 };

    Status status() const;
    /// One line: whether it delivers, and the first cause why not.
    std::string verdict() const;
    /// The verdict and a line for each finding, for people.
    std::string table() const;
    /// The same for programs, with the numbers.
    std::string json() const;

  private:
    const Finding* first(Finding::Level level) const;
    std::string summary() const;

    Evidence m_evidence;
    Findings m_findings;
};
