/* The handle on the queue, and the posts. */
#define _GNU_SOURCE /* dup3, secure_getenv, poll on a queue's descriptor */
#include "internal.h"

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { LONGEST_SLICE_MS = 100 }; /* of a wait: then it is seen whether the queue was replaced */

/* Without a lock, so that a fork at any moment leaves a handle that can be used: the descriptor is
 * -1 until the first opening, then the same number to the end; a new queue takes the old one's
 * place under that number at once (dup3). */
struct kivevent_queue {
    int descriptor;
    size_t limit;
    char name[1]; /* as long as it is */
};

int64_t kiv_now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static int64_t end_of(int timeout_ms) {
    return kiv_now_ns() + (int64_t)timeout_ms * 1000000;
}

/* The milliseconds until `end`, a begun one counted whole: no wait ends early. */
static int rest_of(int64_t end) {
    const int64_t left = end - kiv_now_ns();
    return left > 0 ? (int)((left + 999999) / 1000000) : 0;
}

static int is_queue_name(const char* name) {
    return name[0] == '/' && name[1] != '\0' && strchr(name + 1, '/') == NULL;
}

kivevent_code kivevent_open(const char* name, kivevent_queue** handle) {
    kivevent_queue* made;
    if (handle == NULL) return kiv_fail(KIVEVENT_INVALID, "no place for the handle");
    *handle = NULL;
    if (name == NULL) name = secure_getenv("KIV_QUEUE");
    if (name == NULL || name[0] == '\0') name = KIVEVENT_DEFAULT_QUEUE;
    if (!is_queue_name(name))
        return kiv_fail(KIVEVENT_INVALID, "'%s' is not '/' and a name without slashes", name);
    made = malloc(sizeof *made + strlen(name));
    if (made == NULL) return kiv_fail_errno("handle", ENOMEM);
    made->descriptor = -1;
    made->limit = 0;
    strcpy(made->name, name);
    *handle = made;
    return KIVEVENT_OK;
}

void kivevent_close(kivevent_queue* handle) {
    if (handle == NULL) return;
    if (handle->descriptor >= 0) mq_close(handle->descriptor);
    free(handle);
}

const char* kivevent_queue_name(const kivevent_queue* handle) {
    return handle == NULL ? "" : handle->name;
}

static int descriptor_of(const kivevent_queue* handle) {
    return __atomic_load_n(&handle->descriptor, __ATOMIC_ACQUIRE);
}

/* Whether its name was taken away, as the daemon does at its end: then nobody reads it any more. */
static int is_gone(int descriptor) {
    struct stat facts;
    return fstat(descriptor, &facts) != 0 || facts.st_nlink == 0;
}

/* Puts a newly opened queue in its place. Of threads that open at once each puts its own. */
static kivevent_code take_in(kivevent_queue* handle, int opened) {
    int none = -1;
    struct mq_attr attributes;
    if (mq_getattr(opened, &attributes) != 0) {
        const int error = errno;
        mq_close(opened);
        return kiv_fail_errno(handle->name, error);
    }
    __atomic_store_n(&handle->limit, (size_t)attributes.mq_msgsize, __ATOMIC_RELEASE);
    if (__atomic_compare_exchange_n(&handle->descriptor, &none, opened, 0, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE))
        return KIVEVENT_OK;
    /* Others may be posting to `none`, the number that is there: it never points to nothing. */
    while (dup3(opened, none, O_CLOEXEC) < 0) {
        const int error = errno;
        if (error == EBUSY || error == EINTR) continue;
        mq_close(opened);
        return kiv_fail_errno(handle->name, error);
    }
    mq_close(opened);
    return KIVEVENT_OK;
}

static kivevent_code open_queue(kivevent_queue* handle) {
    const int opened = mq_open(handle->name, O_WRONLY | O_NONBLOCK); /* closed by exec */
    if (opened >= 0) return take_in(handle, opened);
    if (errno != ENOENT) return kiv_fail_errno(handle->name, errno);
    return kiv_fail(KIVEVENT_NO_DAEMON, "%s: no such queue (is kivApp running?)", handle->name);
}

static kivevent_code ensure_open(kivevent_queue* handle) {
    return descriptor_of(handle) >= 0 ? KIVEVENT_OK : open_queue(handle);
}

kivevent_code kivevent_message_limit(kivevent_queue* handle, size_t* bytes) {
    kivevent_code code;
    if (handle == NULL || bytes == NULL) return kiv_fail(KIVEVENT_INVALID, "no handle or no place");
    code = descriptor_of(handle) >= 0 && !is_gone(descriptor_of(handle)) ? KIVEVENT_OK
                                                                         : open_queue(handle);
    if (code == KIVEVENT_OK) *bytes = __atomic_load_n(&handle->limit, __ATOMIC_ACQUIRE);
    return code;
}

static kivevent_code check_size(kivevent_queue* handle, size_t size) {
    const size_t limit = __atomic_load_n(&handle->limit, __ATOMIC_ACQUIRE);
    if (size <= limit) return KIVEVENT_OK;
    return kiv_fail(KIVEVENT_TOO_LARGE, "message too large: %lu bytes, the queue takes %lu",
                    (unsigned long)size, (unsigned long)limit);
}

enum outcome { OFFER_TAKEN, OFFER_FULL, OFFER_GONE, OFFER_FAILED };

/* Whether a message that was sent to a queue that is gone was received before: the daemon reads no
 * more after it has taken the name away. */
static int was_received(int descriptor) {
    struct mq_attr attributes;
    return mq_getattr(descriptor, &attributes) == 0 && attributes.mq_curmsgs == 0;
}

static enum outcome offer(int descriptor, const char* text, size_t size) {
    if (mq_send(descriptor, text, size, 0) != 0) {
        if (errno == EMSGSIZE) return OFFER_GONE; /* another thread has opened a newer one */
        if (errno != EAGAIN) return OFFER_FAILED;
        return is_gone(descriptor) ? OFFER_GONE : OFFER_FULL;
    }
    /* Looked at afterwards: what is there now was there when the message was sent. */
    return !is_gone(descriptor) || was_received(descriptor) ? OFFER_TAKEN : OFFER_GONE;
}

static kivevent_code no_room(const kivevent_queue* handle, int timeout_ms) {
    if (timeout_ms == 0) return kiv_fail(KIVEVENT_FULL, "%s: full", handle->name);
    return kiv_fail(KIVEVENT_TIMEOUT, "%s: no room within %g s (kivApp is dead or busy)",
                    handle->name, timeout_ms / 1000.0);
}

static void await_room(int descriptor, int time_ms) {
    struct pollfd room;
    room.fd = descriptor;
    room.events = POLLOUT;
    room.revents = 0;
    poll(&room, 1, time_ms < LONGEST_SLICE_MS ? time_ms : LONGEST_SLICE_MS);
}

/* Posts a text that was judged. */
static kivevent_code deliver(kivevent_queue* handle, const char* text, size_t size,
                             int timeout_ms) {
    const int64_t end = end_of(timeout_ms);
    kivevent_code code = ensure_open(handle);
    while (code == KIVEVENT_OK) {
        int left;
        const int descriptor = descriptor_of(handle);
        code = check_size(handle, size);
        if (code != KIVEVENT_OK && !is_gone(descriptor)) return code;
        switch (code == KIVEVENT_OK ? offer(descriptor, text, size) : OFFER_GONE) {
            case OFFER_TAKEN:
                return KIVEVENT_OK;
            case OFFER_FAILED:
                return kiv_fail_errno(handle->name, errno);
            case OFFER_GONE:
                code = open_queue(handle);
                break;
            case OFFER_FULL:
                left = rest_of(end);
                if (left == 0) return no_room(handle, timeout_ms);
                await_room(descriptor, left);
        }
    }
    return code;
}

/* The event with the receipt's name in it, as its last member: the last one of a name counts. */
static kivevent_code send_with_receipt(kivevent_queue* handle, const char* json, size_t end,
                                       int timeout_ms, const kivevent_receipt* receipt) {
    static const char before[] = ",\"syncsem\":\"";
    static const char after[] = "\"}";
    const char* const name = kiv_receipt_name(receipt);
    const size_t length = strlen(name);
    const size_t size = end + (sizeof before - 1) + length + (sizeof after - 1);
    kivevent_code code;
    char* const text = malloc(size);
    char* place = text;
    if (text == NULL) return kiv_fail_errno("event", ENOMEM);
    memcpy(place, json, end);
    memcpy(place += end, before, sizeof before - 1);
    memcpy(place += sizeof before - 1, name, length);
    memcpy(place += length, after, sizeof after - 1);
    code = deliver(handle, text, size, timeout_ms);
    free(text);
    return code;
}

/* A text of megabytes is refused without reading it. */
static kivevent_code check_huge(kivevent_queue* handle, size_t size) {
    enum { HUGE_BYTES = 1 << 20 };
    return size > HUGE_BYTES && ensure_open(handle) == KIVEVENT_OK ? check_size(handle, size)
                                                                   : KIVEVENT_OK;
}

kivevent_code kivevent_post_bytes(kivevent_queue* handle, const char* json, size_t size,
                                  int timeout_ms, const kivevent_receipt* receipt) {
    size_t end = 0;
    kivevent_code code;
    if (handle == NULL || json == NULL) return kiv_fail(KIVEVENT_INVALID, "no handle or no text");
    if (timeout_ms < 0) return kiv_fail(KIVEVENT_INVALID, "a time-out below 0");
    code = check_huge(handle, size);
    if (code == KIVEVENT_OK) code = kiv_check_event(json, size, &end);
    if (code != KIVEVENT_OK) return code;
    if (receipt != NULL) return send_with_receipt(handle, json, end, timeout_ms, receipt);
    return deliver(handle, json, size, timeout_ms);
}

kivevent_code kivevent_post(kivevent_queue* handle, const char* json) {
    return kivevent_post_wait(handle, json, 0);
}

kivevent_code kivevent_post_wait(kivevent_queue* handle, const char* json, int timeout_ms) {
    return kivevent_post_bytes(handle, json, json == NULL ? 0 : strlen(json), timeout_ms, NULL);
}

kivevent_code kivevent_post_sync(kivevent_queue* handle, const char* json, int timeout_ms) {
    const int64_t end = end_of(timeout_ms);
    kivevent_receipt* receipt = NULL;
    kivevent_code code;
    if (timeout_ms < 0) return kiv_fail(KIVEVENT_INVALID, "a time-out below 0");
    code = kivevent_receipt_open(&receipt);
    if (code != KIVEVENT_OK) return code;
    code = kivevent_post_bytes(handle, json, json == NULL ? 0 : strlen(json), timeout_ms, receipt);
    if (code == KIVEVENT_OK) code = kivevent_receipt_wait(receipt, rest_of(end));
    if (code == KIVEVENT_NOT_HANDLED) kiv_fail(code, "no answer within %g s", timeout_ms / 1000.0);
    kivevent_receipt_close(receipt);
    return code;
}
