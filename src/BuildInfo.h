#pragma once

#include <string>

/// The constants of this build.
class BuildInfo {
  public:
    static constexpr unsigned int revision = 0x442c3c4;  ///< 28 bits
    static constexpr long long buildTime = 1558062013;   ///< UTC seconds

    /// "#0x442c3c4"
    static std::string revisionText();
    /// The build time in local time, "%a %Y-%m-%d %H:%M:%S %Z".
    static std::string buildTimeText();
};
