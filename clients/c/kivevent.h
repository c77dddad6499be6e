/* libkivevent: posts events on the message queue of the telemetry daemon kivApp.
 *
 * What an event is made of: docs/event-message.md; how to use this: docs/clients-c.md.
 *
 * Threads: one queue handle may be used by any number of threads at once. A builder, and a receipt,
 * belong to one thread at a time. `kivevent_close` waits for nobody: no other thread may be using
 * the handle then.
 * fork: a child may use the handles of its parent, and both may close theirs. exec: handles go.
 * Signals: the library sets no handlers and changes no masks; a handler that runs while a call
 * waits does not shorten nor lengthen the wait. No function may be called in a signal handler.
 * It never ends the process, writes nothing, and changes neither umask nor locale.
 */
#ifndef KIVEVENT_H
#define KIVEVENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KIVEVENT_API __attribute__((visibility("default")))
#else
#define KIVEVENT_API
#endif

#define KIVEVENT_VERSION "1.0.0"

/* The queue of the daemon, unless a name is given or the environment's KIV_QUEUE says another. */
#define KIVEVENT_DEFAULT_QUEUE "/kiv_queue"

/* How a call went. Every code but KIVEVENT_OK and KIVEVENT_NOT_HANDLED says that the daemon does
 * not get the event. The numbers stay in later versions; others may be added at the end. */
typedef enum kivevent_code {
    KIVEVENT_OK = 0,
    KIVEVENT_INVALID = 1,  /* an argument that makes no sense: NULL, a negative time, a bad name */
    KIVEVENT_NOT_JSON = 2, /* not a JSON text */
    KIVEVENT_NOT_UTF8 = 3, /* text that is not UTF-8 */
    KIVEVENT_NUL = 4,      /* a NUL character, as a byte or as \u0000 */
    KIVEVENT_NOT_OBJECT = 5,   /* JSON, but not an object */
    KIVEVENT_NO_TYPE = 6,      /* without a string "event-type" */
    KIVEVENT_QUOTE = 7,        /* a single quote: the daemon could not store the event */
    KIVEVENT_TOO_LARGE = 8,    /* larger than the queue takes */
    KIVEVENT_NO_DAEMON = 9,    /* there is no queue: the daemon does not run */
    KIVEVENT_FULL = 10,        /* no room in the queue, and no wait was asked for */
    KIVEVENT_TIMEOUT = 11,     /* no room in the queue for the whole time: dead or busy daemon */
    KIVEVENT_NOT_HANDLED = 12, /* posted, but not answered in time; it may still be handled */
    KIVEVENT_DENIED = 13,      /* this user may not post */
    KIVEVENT_NO_MEMORY = 14,
    KIVEVENT_SYSTEM = 15 /* another error of the system; kivevent_detail says which */
} kivevent_code;

typedef struct kivevent_queue kivevent_queue;     /* a handle on the queue */
typedef struct kivevent_receipt kivevent_receipt; /* learns that one event was handled */
typedef struct kivevent_builder kivevent_builder; /* makes the text of simple events */

/* The library's version, as KIVEVENT_VERSION was when it was built. */
KIVEVENT_API const char* kivevent_version(void);

/* What a code means, as a sentence without a full stop; never NULL, lives for ever. */
KIVEVENT_API const char* kivevent_strerror(int code);

/* What was wrong with the last call of this thread that failed, in words with its particulars
 * ("message too large: 9000 bytes, the queue takes 8192"); "" before the first failure. It stays
 * until the next failure of this thread. */
KIVEVENT_API const char* kivevent_detail(void);

/* ---- the queue ----------------------------------------------------------------------------------
 */

/* Makes a handle on the queue `name`; NULL: that of the environment's KIV_QUEUE (not in programs
 * with more rights than their user), else KIVEVENT_DEFAULT_QUEUE. It succeeds without a daemon,
 * too: the queue is opened by the first post, and opened anew after the daemon has made another
 * one. Returns KIVEVENT_OK, KIVEVENT_INVALID (not "/" and a name without slashes),
 * KIVEVENT_NO_MEMORY. */
KIVEVENT_API kivevent_code kivevent_open(const char* name, kivevent_queue** handle);

/* Gives the handle back; NULL is allowed. */
KIVEVENT_API void kivevent_close(kivevent_queue* handle);

/* The name of its queue; lives as long as the handle. */
KIVEVENT_API const char* kivevent_queue_name(const kivevent_queue* handle);

/* How large a message may be, in bytes; opens the queue where it is not open.
 * Returns KIVEVENT_OK, KIVEVENT_NO_DAEMON, KIVEVENT_DENIED, KIVEVENT_SYSTEM, KIVEVENT_INVALID. */
KIVEVENT_API kivevent_code kivevent_message_limit(kivevent_queue* handle, size_t* bytes);

/* ---- posting ------------------------------------------------------------------------------------
 */

/* Posts one event, the text of one JSON object, without waiting. KIVEVENT_OK: it is taken, that is,
 * it lies in the queue of the daemon. A daemon that is killed and started again takes its queue
 * over, with what lies in it. */
KIVEVENT_API kivevent_code kivevent_post(kivevent_queue* handle, const char* json);

/* The same, but waits up to `timeout_ms` milliseconds for room in a full queue. Where there is no
 * queue it does not wait. A time below 0 is KIVEVENT_INVALID: nothing here waits for ever. */
KIVEVENT_API kivevent_code kivevent_post_wait(kivevent_queue* handle, const char* json,
                                              int timeout_ms);

/* The same, and waits within that time until the daemon has handled the event. KIVEVENT_OK: it was
 * handled, that is, judged by consent and filter and, where they let it pass, completed and given
 * to the thread that stores. KIVEVENT_NOT_HANDLED: it lies in the queue, no answer came in time. A
 * "syncsem" of the event's own is replaced. */
KIVEVENT_API kivevent_code kivevent_post_sync(kivevent_queue* handle, const char* json,
                                              int timeout_ms);

/* What the three above do, for a text of `size` bytes that need not end with a NUL, with a receipt
 * (or NULL). */
KIVEVENT_API kivevent_code kivevent_post_bytes(kivevent_queue* handle, const char* json,
                                               size_t size, int timeout_ms,
                                               const kivevent_receipt* receipt);

/* Judges a text as a post does, without a queue: KIVEVENT_OK, or why the daemon would lose it. */
KIVEVENT_API kivevent_code kivevent_check(const char* json, size_t size);

/* ---- receipts: to post first and wait later
 * ------------------------------------------------------ */

/* Makes a receipt for one event: a named semaphore that the daemon posts once it has handled it.
 * The name is in the system until kivevent_receipt_close. */
KIVEVENT_API kivevent_code kivevent_receipt_open(kivevent_receipt** receipt);

/* Waits up to `timeout_ms` for it: KIVEVENT_OK, KIVEVENT_NOT_HANDLED. Only the first of several
 * waits is answered with KIVEVENT_OK. */
KIVEVENT_API kivevent_code kivevent_receipt_wait(kivevent_receipt* receipt, int timeout_ms);

/* Gives it back and its name too; NULL is allowed. */
KIVEVENT_API void kivevent_receipt_close(kivevent_receipt* receipt);

/* ---- builder: events of type, keys and values
 * ----------------------------------------------------- */

/* Makes a builder of an event of this type. */
KIVEVENT_API kivevent_code kivevent_builder_open(const char* type, kivevent_builder** builder);

/* Begins the next event, as a new builder would. */
KIVEVENT_API kivevent_code kivevent_builder_reset(kivevent_builder* builder, const char* type);

/* Adds one member of "data"; a key that is there already is replaced. What cannot be stored is
 * refused here, and the event stays as it was. A number must be finite. `kivevent_add_json` takes
 * any JSON value as text. */
KIVEVENT_API kivevent_code kivevent_add_text(kivevent_builder* builder, const char* key,
                                             const char* value);
KIVEVENT_API kivevent_code kivevent_add_integer(kivevent_builder* builder, const char* key,
                                                int64_t value);
KIVEVENT_API kivevent_code kivevent_add_number(kivevent_builder* builder, const char* key,
                                               double value);
KIVEVENT_API kivevent_code kivevent_add_boolean(kivevent_builder* builder, const char* key,
                                                int value);
KIVEVENT_API kivevent_code kivevent_add_json(kivevent_builder* builder, const char* key,
                                             const char* json);

/* When it happened, in milliseconds of CLOCK_MONOTONIC; without, or 0: when the daemon gets it. */
KIVEVENT_API kivevent_code kivevent_set_kernel_time(kivevent_builder* builder, int64_t ms);

/* The event's text, for any of the posts; it lives until the builder is changed, asked again or
 * closed. NULL without memory. */
KIVEVENT_API const char* kivevent_builder_text(kivevent_builder* builder);

/* Gives the builder back; NULL is allowed. */
KIVEVENT_API void kivevent_builder_close(kivevent_builder* builder);

#ifdef __cplusplus
}
#endif

#endif /* KIVEVENT_H */
