#include "CertificateClock.h"

#include "AppClock.h"

#include <chrono>

namespace {

constexpr std::int64_t kYear = 31557600;  // seconds
constexpr std::int64_t kLongest = 25 * kYear;

std::int64_t secondsOf(std::chrono::system_clock::time_point moment) {
    return std::chrono::duration_cast<std::chrono::seconds>(moment.time_since_epoch()).count();
}

}  // namespace

const std::int64_t CertificateClock::earliest = KIV_BUILD_EPOCH;

std::optional<std::int64_t> CertificateClock::now() {
    // Unset, the application clock reads as the system clock.
    const std::int64_t application = secondsOf(AppClock::now());
    if (isBelievable(application)) return application;
    const std::int64_t system = secondsOf(std::chrono::system_clock::now());
    if (isBelievable(system)) return system;
    return std::nullopt;
}

bool CertificateClock::isBelievable(std::int64_t utcSeconds) {
    return utcSeconds >= earliest && utcSeconds <= earliest + kLongest;
}
