#pragma once

namespace Aws {
namespace Utils {
namespace Logging {

enum class LogLevel : int {
    Off = 0,
    Fatal = 1,
    Error = 2,
    Warn = 3,
    Info = 4,
    Debug = 5,
    Trace = 6
};

}  // namespace Logging
}  // namespace Utils
}  // namespace Aws
