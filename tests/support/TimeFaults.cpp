#include "support/TimeFaults.h"

#include <dlfcn.h>
#include <time.h>

thread_local bool TimeFaults::localtimeFails = false;
thread_local bool TimeFaults::strftimeFails = false;

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" struct tm* localtime_r(const time_t* seconds, struct tm* fields) noexcept {
    static auto* const real = next<struct tm*(const time_t*, struct tm*)>("localtime_r");
    return TimeFaults::localtimeFails ? nullptr : real(seconds, fields);
}

extern "C" size_t strftime(char* text, size_t size, const char* format,
                           const struct tm* fields) noexcept {
    static auto* const real =
        next<size_t(char*, size_t, const char*, const struct tm*)>("strftime");
    return TimeFaults::strftimeFails ? 0 : real(text, size, format, fields);
}
