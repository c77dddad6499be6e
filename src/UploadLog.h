#pragma once

#include "ClassLog.h"

/// The lines of the upload side: its classes share one tag, "kivUpload: ", and one switch, which
/// `UploadImpl::SetVerbose` sets. It writes nothing of its own. Any thread.
class UploadLog {
  public:
    static ClassLog log;
};
