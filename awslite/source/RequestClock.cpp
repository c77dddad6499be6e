#include <aws/core/awslite.h>

#include <awslite/SigV4.h>

#include <mutex>
#include <utility>

namespace {

using Clock = std::function<std::chrono::system_clock::time_point()>;

std::mutex clockMutex;
Clock chosenClock;  ///< guarded by `clockMutex`

}  // namespace

void Aws::SetRequestClock(Clock clock) {
    const std::lock_guard<std::mutex> lock(clockMutex);
    chosenClock = std::move(clock);
}

std::optional<std::chrono::system_clock::time_point> Awslite::requestClock() {
    std::unique_lock<std::mutex> lock(clockMutex);
    const Clock clock = chosenClock;
    lock.unlock();
    if (!clock) return std::nullopt;
    return clock();
}

std::chrono::system_clock::time_point Awslite::requestNow() {
    return requestClock().value_or(std::chrono::system_clock::now());
}
