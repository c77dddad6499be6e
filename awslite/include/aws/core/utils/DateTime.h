#pragma once

#include <aws/core/utils/memory/stl/AWSString.h>

#include <chrono>
#include <cstdint>

namespace Aws {
namespace Utils {

/// A moment of the system clock in milliseconds. The formats are those of `strftime`; a text
/// above 255 bytes comes out empty.
class DateTime {
  public:
    /// The epoch.
    DateTime() = default;
    explicit DateTime(int64_t millisSinceEpoch);
    explicit DateTime(const std::chrono::system_clock::time_point& moment);

    static DateTime Now();
    /// The present, in the time zone of the process.
    static String CalculateLocalTimestampAsString(const char* format);
    static String CalculateGmtTimestampAsString(const char* format);

    String ToLocalTimeString(const char* format) const;
    String ToGmtString(const char* format) const;
    int64_t Millis() const;

  private:
    std::chrono::system_clock::time_point m_moment;
};

}  // namespace Utils
}  // namespace Aws
