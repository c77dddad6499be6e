/* Faults in chosen system calls of the daemon, preloaded into it (see callfaults.py).
 *
 * A file that both sides map says which calls count, of which thread, on which paths, and what the
 * N-th of them gets: an error, or the end of the process in its place. Calls that the C library
 * makes by itself (streams of stdio) do not come by here. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

/* Their bits and their order are known to callfaults.py. */
enum Call {
    OPEN,
    WRITE,
    FSYNC,
    RENAME,
    UNLINK,
    TRUNCATE,
    ALLOCATE,
    MAP,
    SEND,
    RECEIVE,
    CONNECT,
    CLOSE,
    LINK,
    QUEUE
};

struct Control {
    _Atomic uint32_t calls; /* bits; 0: nothing counts */
    uint32_t from, to;      /* of the calls that count, from 1 on, these get the fault */
    int32_t error;          /* errno; 0: SIGKILL in the call's place */
    _Atomic uint32_t count, hits;
    char path[100];  /* part of the path; "": any */
    char thread[40]; /* whole name; "": any */
    char last[140];  /* what was hit last */
};

static struct Control* control;
static pid_t daemonPid;
static __thread char threadName[40];
static const char* const names[] = {"open",     "write",    "fsync", "rename", "unlink",
                                    "truncate", "allocate", "mmap",  "send",   "receive",
                                    "connect",  "close",    "link",  "queue"};

__attribute__((constructor)) static void begin(void) {
    const char* const path = getenv("CALLFAULTS");
    if (path == NULL || strcmp(program_invocation_short_name, "kivApp") != 0) return;
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    void* const shared = (void*)syscall(
#ifdef SYS_mmap2
        SYS_mmap2,
#else
        SYS_mmap,
#endif
        NULL, sizeof(struct Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd);
    if (shared == MAP_FAILED) return;
    daemonPid = getpid();
    strcpy(threadName, "main");
    control = shared;
}

static int isOnPath(int fd, const char* path) {
    char name[64], real[512];
    if (control->path[0] == '\0') return 1;
    if (path == NULL) {
        snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
        const ssize_t size = readlink(name, real, sizeof real - 1);
        if (size < 0) return 0;
        real[size] = '\0';
        path = real;
    }
    return strstr(path, control->path) != NULL;
}

/* Whether this call is to fail; errno is set then. */
static int fails(enum Call call, int fd, const char* path) {
    if (control == NULL || (control->calls & 1u << call) == 0 || getpid() != daemonPid) return 0;
    const int before = errno;
    const int counts = (control->thread[0] == '\0' || strcmp(control->thread, threadName) == 0) &&
                       isOnPath(fd, path);
    errno = before;
    if (!counts) return 0;
    const uint32_t number = ++control->count;
    if (number < control->from || number > control->to) return 0;
    snprintf(control->last, sizeof control->last, "%s %s", names[call], path ? path : "");
    ++control->hits;
    if (control->error == 0) syscall(SYS_kill, daemonPid, SIGKILL);
    errno = control->error;
    return 1;
}

int pthread_setname_np(pthread_t thread, const char* name) {
    static int (*real)(pthread_t, const char*);
    if (!real) real = dlsym(RTLD_NEXT, "pthread_setname_np");
    if (pthread_equal(thread, pthread_self())) {
        strncpy(threadName, name, sizeof threadName - 1);
    }
    return real(thread, name);
}

#define REAL(type, name, arguments) \
    static type(*real) arguments;   \
    if (!real) real = (type(*) arguments)dlsym(RTLD_NEXT, #name)

#define OPEN_LIKE(name)                                                                 \
    int name(const char* path, int flags, ...) {                                        \
        REAL(int, name, (const char*, int, ...));                                       \
        va_list more;                                                                   \
        va_start(more, flags);                                                          \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(more, mode_t) : 0; \
        va_end(more);                                                                   \
        if (fails(OPEN, -1, path)) return -1;                                           \
        return real(path, flags, mode);                                                 \
    }
OPEN_LIKE(open)
OPEN_LIKE(open64)

#define OPENAT_LIKE(name)                                                               \
    int name(int folder, const char* path, int flags, ...) {                            \
        REAL(int, name, (int, const char*, int, ...));                                  \
        va_list more;                                                                   \
        va_start(more, flags);                                                          \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(more, mode_t) : 0; \
        va_end(more);                                                                   \
        if (fails(OPEN, -1, path)) return -1;                                           \
        return real(folder, path, flags, mode);                                         \
    }
OPENAT_LIKE(openat)
OPENAT_LIKE(openat64)

#define ON_FILE(type, name, call, parameters, arguments, failure) \
    type name parameters {                                        \
        REAL(type, name, parameters);                             \
        if (fails(call, fd, NULL)) return failure;                \
        return real arguments;                                    \
    }
ON_FILE(ssize_t, write, WRITE, (int fd, const void* data, size_t size), (fd, data, size), -1)
ON_FILE(ssize_t, pwrite, WRITE, (int fd, const void* data, size_t size, off_t place),
        (fd, data, size, place), -1)
ON_FILE(ssize_t, pwrite64, WRITE, (int fd, const void* data, size_t size, off64_t place),
        (fd, data, size, place), -1)
ON_FILE(int, fsync, FSYNC, (int fd), (fd), -1)
ON_FILE(int, fdatasync, FSYNC, (int fd), (fd), -1)
ON_FILE(int, ftruncate, TRUNCATE, (int fd, off_t size), (fd, size), -1)
ON_FILE(int, ftruncate64, TRUNCATE, (int fd, off64_t size), (fd, size), -1)
ON_FILE(int, fallocate, ALLOCATE, (int fd, int mode, off_t begin, off_t size),
        (fd, mode, begin, size), -1)
ON_FILE(int, posix_fallocate, ALLOCATE, (int fd, off_t begin, off_t size), (fd, begin, size),
        control->error)
ON_FILE(ssize_t, send, SEND, (int fd, const void* data, size_t size, int flags),
        (fd, data, size, flags), -1)
ON_FILE(ssize_t, sendto, SEND,
        (int fd, const void* data, size_t size, int flags, const struct sockaddr* to,
         socklen_t length),
        (fd, data, size, flags, to, length), -1)
ON_FILE(ssize_t, sendmsg, SEND, (int fd, const struct msghdr* message, int flags),
        (fd, message, flags), -1)
ON_FILE(ssize_t, recv, RECEIVE, (int fd, void* data, size_t size, int flags),
        (fd, data, size, flags), -1)
ON_FILE(int, connect, CONNECT, (int fd, const struct sockaddr* to, socklen_t length),
        (fd, to, length), -1)

int close(int fd) {
    REAL(int, close, (int));
    fails(CLOSE, fd, NULL); /* a place to be killed at; it closes all the same */
    return real(fd);
}

/* Of files only: the allocator has its own way. */
#define MAP_LIKE(name, offset)                                                           \
    void* name(void* where, size_t size, int rights, int flags, int fd, offset begin_) { \
        REAL(void*, name, (void*, size_t, int, int, int, offset));                       \
        if (fd >= 0 && fails(MAP, fd, NULL)) return MAP_FAILED;                          \
        return real(where, size, rights, flags, fd, begin_);                             \
    }
MAP_LIKE(mmap, off_t)
MAP_LIKE(mmap64, off64_t)

mqd_t mq_open(const char* name, int flags, ...) {
    REAL(mqd_t, mq_open, (const char*, int, ...));
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(more, mode_t) : 0;
    struct mq_attr* const attributes = (flags & O_CREAT) ? va_arg(more, struct mq_attr*) : NULL;
    va_end(more);
    return fails(QUEUE, -1, name) ? (mqd_t)-1 : real(name, flags, mode, attributes);
}

int rename(const char* from, const char* to) {
    REAL(int, rename, (const char*, const char*));
    return fails(RENAME, -1, to) ? -1 : real(from, to);
}

int unlink(const char* path) {
    REAL(int, unlink, (const char*));
    return fails(UNLINK, -1, path) ? -1 : real(path);
}

int link(const char* from, const char* to) {
    REAL(int, link, (const char*, const char*));
    return fails(LINK, -1, to) ? -1 : real(from, to);
}
