// Preloaded into a daemon under test: its system clock is ahead by $KIV_CLOCK_AHEAD seconds
// (behind, when negative). The monotonic clock, and the clock of everybody else, stay.

#include <cstdlib>

#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

namespace {

time_t secondsAhead() {
    const char* text = std::getenv("KIV_CLOCK_AHEAD");
    return text == nullptr ? 0 : static_cast<time_t>(std::strtoll(text, nullptr, 10));
}

using Read = int (*)(clockid_t, struct timespec*);

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    static const auto original = reinterpret_cast<Read>(
        ::dlsym(RTLD_NEXT, sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime"));
    const int result = original(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += secondsAhead();
    return result;
}

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
