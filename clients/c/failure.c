/* The codes in words, and the particulars of a thread's last failure. */
#define _POSIX_C_SOURCE 200809L /* strerror_r of POSIX */
#include "internal.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

static __thread char s_detail[512];

const char* kivevent_version(void) {
    return KIVEVENT_VERSION;
}

const char* kivevent_detail(void) {
    return s_detail;
}

const char* kivevent_strerror(int code) {
    static const char* const texts[] = {
        "success",
        "wrong argument",
        "not a JSON text",
        "not valid UTF-8",
        "a NUL character in the event",
        "not a JSON object",
        "no \"event-type\" string",
        "a single quote in the event, which the daemon cannot store",
        "message too large for the queue",
        "no queue: kivApp does not run",
        "queue full",
        "no room in the queue in time: kivApp is dead or busy",
        "posted, but not handled in time",
        "no permission to post",
        "out of memory",
        "error of the system",
    };
    const size_t index = (size_t)code;
    return index < sizeof texts / sizeof texts[0] ? texts[index] : "unknown code";
}

kivevent_code kiv_fail(kivevent_code code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(s_detail, sizeof s_detail, format, arguments);
    va_end(arguments);
    return code;
}

kivevent_code kiv_fail_errno(const char* what, int error) {
    char buffer[128] = "";
    const int denied = error == EACCES || error == EPERM;
    if (strerror_r(error, buffer, sizeof buffer) != 0)
        snprintf(buffer, sizeof buffer, "error %d", error);
    if (error == ENOMEM) return kiv_fail(KIVEVENT_NO_MEMORY, "%s: %s", what, buffer);
    return kiv_fail(denied ? KIVEVENT_DENIED : KIVEVENT_SYSTEM, "%s: %s", what, buffer);
}
