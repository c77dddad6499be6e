#include "support/WallClock.h"

#include <atomic>

#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

namespace {

std::atomic<std::int64_t> offset{0};  // seconds

template <typename Function>
Function original(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

/// What the calls below are to the linker: with times of 64 bits on a 32-bit machine another name.
constexpr const char* kReadClock = sizeof(time_t) > sizeof(long) ? "__clock_gettime64"
                                                                 : "clock_gettime";

}  // namespace

WallClock::WallClock(std::int64_t utcSeconds) {
    offset = utcSeconds - static_cast<std::int64_t>(::time(nullptr));
}

WallClock::~WallClock() {
    offset = 0;
}

// ---- What the linker finds before the library's own ----------------------------------------

extern "C" {

int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    static const auto read = original<int (*)(clockid_t, struct timespec*)>(kReadClock);
    const int result = read(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += static_cast<time_t>(offset.load());
    return result;
}

#ifdef __USE_TIME_BITS64
/// What libraries call that were built with times of 32 bits, the C++ library's clock among them.
struct ShortTime {
    std::int32_t tv_sec;
    std::int32_t tv_nsec;
};
int readShortClock(clockid_t clock, ShortTime* now) noexcept __asm__("clock_gettime");
int readShortClock(clockid_t clock, ShortTime* now) noexcept {
    static const auto read = original<int (*)(clockid_t, ShortTime*)>("clock_gettime");
    const int result = read(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) {
        now->tv_sec = static_cast<std::int32_t>(now->tv_sec + offset.load());
    }
    return result;
}
#endif

time_t time(time_t* seconds) noexcept {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (seconds != nullptr) *seconds = now.tv_sec;
    return now.tv_sec;
}

int gettimeofday(struct timeval* __restrict moment, void* __restrict) noexcept {
    struct timespec now {};
    const int result = clock_gettime(CLOCK_REALTIME, &now);
    moment->tv_sec = now.tv_sec;
    moment->tv_usec = static_cast<suseconds_t>(now.tv_nsec / 1000);
    return result;
}

}  // extern "C"
