/* What the sources of libkivevent share; none of it is exported. */
#ifndef KIVEVENT_INTERNAL_H
#define KIVEVENT_INTERNAL_H

#include "kivevent.h"

#include <jansson.h>

/* A point of CLOCK_MONOTONIC in nanoseconds: the set's wall clock jumps. */
int64_t kiv_now_ns(void);

/* Keeps the particulars of a failure for this thread's kivevent_detail, and returns `code`. */
kivevent_code kiv_fail(kivevent_code code, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* The same for a refused system call on `what`; EACCES and EPERM are KIVEVENT_DENIED. */
kivevent_code kiv_fail_errno(const char* what, int error);

/* Judges an event's text. `end` becomes the place of the object's closing brace. */
kivevent_code kiv_check_event(const char* json, size_t size, size_t* end);

/* Parses any JSON value, as the daemon does. On failure NULL, with the code in `code`. */
json_t* kiv_parse(const char* json, size_t size, kivevent_code* code);

/* Whether a text or a key anywhere in the value has a single quote. */
int kiv_has_quote(const json_t* value);

/* Whether a text is UTF-8 without a single quote; `what` names it in the failure. */
kivevent_code kiv_check_text(const char* what, const char* text);

/* The name of the semaphore of a receipt. */
const char* kiv_receipt_name(const kivevent_receipt* receipt);

#endif
