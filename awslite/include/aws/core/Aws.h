#pragma once

#include <aws/core/utils/logging/LogLevel.h>
#include <aws/core/utils/memory/AWSMemory.h>
#include <aws/core/utils/memory/stl/AWSString.h>

namespace Aws {

/// Kept for the callers' sake: the subset writes no log whatever the level.
struct LoggingOptions {
    Utils::Logging::LogLevel logLevel = Utils::Logging::LogLevel::Off;
    const char* defaultLogPrefix = "aws_sdk_";
};

struct SDKOptions {
    LoggingOptions loggingOptions;
};

/// Prepares libcurl. May be called several times; each call is undone by one `ShutdownAPI`. Any
/// thread.
void InitAPI(const SDKOptions& options);

/// Undoes one `InitAPI`; without one it does nothing. No client may be in a call any more.
void ShutdownAPI(const SDKOptions& options);

}  // namespace Aws
