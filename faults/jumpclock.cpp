// Preloaded into a daemon under test: its system clock is ahead by the seconds that the file named
// by $KIV_CLOCK_FILE holds (eight bytes, mapped: a change counts from the next call on). The
// monotonic clock, and the clock of everybody else, stay.

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

using Seconds = std::atomic<std::int64_t>;
static_assert(sizeof(Seconds) == 8);

const Seconds* mapped() {
    const char* path = std::getenv("KIV_CLOCK_FILE");
    const int file = path == nullptr ? -1 : ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return nullptr;
    void* place = ::mmap(nullptr, sizeof(Seconds), PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    return place == MAP_FAILED ? nullptr : static_cast<const Seconds*>(place);
}

time_t secondsAhead() {
    static const Seconds* const seconds = mapped();
    return seconds == nullptr ? 0 : static_cast<time_t>(seconds->load(std::memory_order_relaxed));
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
