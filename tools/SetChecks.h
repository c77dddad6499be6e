#pragma once

#include "Evidence.h"
#include "Finding.h"

/// Judges what must be there before anything can be sent: the daemon, device files, consent,
/// configuration and filter, credentials, time, network.
///
/// Lives for one look, on the evidence that it is lent. No errors.
class SetChecks {
  public:
    explicit SetChecks(const Evidence& evidence) : m_evidence(evidence) {}

    Finding daemon() const;
    Finding deviceFiles() const;
    Finding userConsent() const;
    Finding serverConsent() const;
    Finding configuration() const;
    Finding filter() const;
    Finding credentials() const;
    Finding clock() const;
    Finding network() const;

    /// Whether a cloud service's words speak of who sends, not of what is sent.
    static bool speaksOfCredentials(const std::string& error);

  private:
    std::string unreachable() const;

    const Evidence& m_evidence;
};
