#pragma once

#include <chrono>
#include <functional>

namespace Aws {

/// Sets where the requests' `x-amz-date` comes from, and by what the dates of the servers'
/// certificates are judged: a set's system clock may be wrong while the application knows the
/// time. An empty function means the system clock, which is the default.
/// The function is called on the thread of the request, without a lock. Any thread.
void SetRequestClock(std::function<std::chrono::system_clock::time_point()> clock);

}  // namespace Aws
