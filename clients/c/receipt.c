/* The named semaphore that the daemon posts once it has handled an event. */
#define _GNU_SOURCE /* sem_clockwait, program_invocation_short_name */
#include "internal.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { TRIES = 100 }; /* at a name that nobody has */

struct kivevent_receipt {
    sem_t* semaphore;
    char name[64]; /* "/program.pid.random": what is left of a killed program tells whose it is */
};

static unsigned random_number(void) {
    static unsigned count;
    unsigned number;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == (ssize_t)sizeof number) return number;
    return (unsigned)kiv_now_ns() + __atomic_add_fetch(&count, 1, __ATOMIC_RELAXED);
}

static void make_name(char* name, size_t size) {
    char program[33];
    size_t length = 0;
    const char* from = program_invocation_short_name;
    for (; from != NULL && *from != '\0' && length + 1 < sizeof program; ++from) {
        const unsigned char letter = (unsigned char)*from;
        program[length++] = letter < 128 && isalnum(letter) ? (char)letter : '_';
    }
    program[length] = '\0';
    snprintf(name, size, "/%s.%ld.%08x", program, (long)getpid(), random_number());
}

/* The daemon need not run as our user, and opens it for reading and writing. The umask is the whole
 * process's, so the rights are put right afterwards; the name is nobody else's, in a directory
 * where nobody else can move it. */
static void let_others_post(const char* name) {
    char path[96];
#ifdef __GLIBC__
    snprintf(path, sizeof path, "/dev/shm/sem.%s", name + 1);
#else
    snprintf(path, sizeof path, "/dev/shm/%s", name + 1);
#endif
    if (chmod(path, 0666) != 0) return; /* with the umask's rights, then */
}

static sem_t* create(kivevent_receipt* receipt) {
    int tries;
    sem_t* semaphore = SEM_FAILED;
    for (tries = 0; tries < TRIES && semaphore == SEM_FAILED; ++tries) {
        make_name(receipt->name, sizeof receipt->name);
        semaphore = sem_open(receipt->name, O_CREAT | O_EXCL, 0666, 0);
        if (semaphore == SEM_FAILED && errno != EEXIST) break;
    }
    return semaphore;
}

kivevent_code kivevent_receipt_open(kivevent_receipt** receipt) {
    kivevent_receipt* made;
    kivevent_code code;
    if (receipt == NULL) return kiv_fail(KIVEVENT_INVALID, "no place for the receipt");
    *receipt = NULL;
    made = malloc(sizeof *made);
    if (made == NULL) return kiv_fail_errno("receipt", ENOMEM);
    made->semaphore = create(made);
    if (made->semaphore == SEM_FAILED) {
        code = kiv_fail_errno(made->name, errno);
        free(made);
        return code;
    }
    let_others_post(made->name);
    *receipt = made;
    return KIVEVENT_OK;
}

static struct timespec monotonic_time_in(int ms) {
    struct timespec until;
    int64_t nanoseconds;
    clock_gettime(CLOCK_MONOTONIC, &until);
    nanoseconds = until.tv_nsec + (int64_t)ms * 1000000;
    until.tv_sec += (time_t)(nanoseconds / 1000000000);
    until.tv_nsec = (long)(nanoseconds % 1000000000);
    return until;
}

kivevent_code kivevent_receipt_wait(kivevent_receipt* receipt, int timeout_ms) {
    struct timespec until;
    if (receipt == NULL || timeout_ms < 0)
        return kiv_fail(KIVEVENT_INVALID, "no receipt, or a time-out below 0");
    until = monotonic_time_in(timeout_ms);
    while (sem_clockwait(receipt->semaphore, CLOCK_MONOTONIC, &until) != 0) {
        if (errno == EINTR) continue;
        if (errno != ETIMEDOUT) return kiv_fail_errno(receipt->name, errno);
        return kiv_fail(KIVEVENT_NOT_HANDLED, "no answer within %g s", timeout_ms / 1000.0);
    }
    return KIVEVENT_OK;
}

void kivevent_receipt_close(kivevent_receipt* receipt) {
    if (receipt == NULL) return;
    sem_close(receipt->semaphore);
    sem_unlink(receipt->name);
    free(receipt);
}

const char* kiv_receipt_name(const kivevent_receipt* receipt) {
    return receipt->name;
}
