#pragma once

#include "ClassLog.h"

/// The lines of the cloud client: its classes share one tag, "kivAWSWrapper: ", and one switch,
/// which `AwsWrapperImpl::SetVerbose` sets. It writes nothing of its own. Any thread.
class CloudLog {
  public:
    static ClassLog log;
};
