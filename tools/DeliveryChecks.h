#pragma once

#include "Evidence.h"
#include "Finding.h"

/// Judges the way of events through the set: the queue, the store, the uploads, and what went wrong
/// last.
///
/// Lives for one look, on the evidence that it is lent. No errors.
class DeliveryChecks {
  public:
    explicit DeliveryChecks(const Evidence& evidence) : m_evidence(evidence) {}

    Finding queue() const;
    Finding store() const;
    Finding events() const;
    Finding files() const;
    Finding lastError() const;

  private:
    std::string whatIsStored() const;
    std::string nextUpload() const;

    const Evidence& m_evidence;
};
