#include <aws/core/awslite.h>

#include <awslite/SigV4.h>

#include <mutex>
#include <utility>

namespace {

using Clock = std::function<std::chrono::system_clock::time_point()>;

std::mutex clockMutex;
Clock requestClock;  ///< guarded by `clockMutex`

}  // namespace

void Aws::SetRequestClock(Clock clock) {
    const std::lock_guard<std::mutex> lock(clockMutex);
    requestClock = std::move(clock);
}

std::chrono::system_clock::time_point Awslite::requestNow() {
    std::unique_lock<std::mutex> lock(clockMutex);
    const Clock clock = requestClock;
    lock.unlock();
    return clock ? clock() : std::chrono::system_clock::now();
}
