// Preloaded into a program: writes down, in order and with its data, what the program does to the
// files below the folder $CRASHPOINTS_ROOT (an absolute path without links), into the file
// $CRASHPOINTS_LOG. recording.py reads it.
//
// Each operation is done and noted under one lock, so the order of the notes is the order of the
// operations. Its moment (nanoseconds of the monotonic clock) is taken before it is done: whatever
// another process has seen before that moment needs only the operations before this one.
//
// A memory map of a file is noted as such when it may be written: what is written through it cannot
// be seen from here. Indexes of write-ahead logs ("-shm") are left out: they are made anew.

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

enum Kind : std::uint32_t {
    Create = 1,      ///< path: a new file, or folder, with this inode
    Write = 2,       ///< data at offset
    Truncate = 3,    ///< to the length in offset
    Sync = 4,        ///< of a file's data
    SyncFolder = 5,  ///< of a folder's names
    Rename = 6,      ///< path to other
    Unlink = 7,      ///< path
    Link = 8,        ///< other is a second name of path
    SyncAll = 9,
    Mapped = 10  ///< path may be written through memory
};

/// Precedes path, other path and data. Numbers in the machine's order.
struct Note {
    std::uint32_t kind;
    std::uint32_t pathSize;
    std::uint32_t otherSize;
    std::uint32_t dataSize;
    std::uint64_t moment;
    std::uint64_t inode;
    std::int64_t offset;
};

/// What it works with. Never destroyed: threads may outlive every static object.
struct Recorder {
    std::mutex mutex;
    std::string root;
    int log = -1;
    std::set<std::pair<dev_t, ino_t>> files;  ///< below the root, folders too
};

Recorder* recorder = nullptr;  // null: nothing is noted

template <typename Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

using WriteV = ssize_t (*)(int, const iovec*, int);

[[noreturn]] void giveUp(const char* why) {
    std::fprintf(stderr, "recorder: %s\n", why);
    std::abort();  // a recording with a gap would prove nothing
}

std::uint64_t now() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(time.tv_nsec);
}

/// One operation: holds the lock, keeps a cancellation of the thread away, and notes the result.
class Operation {
  public:
    Operation() : m_lock(recorder->mutex), m_moment(now()) {
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
    }
    ~Operation() {
        const int error = errno;
        m_lock.unlock();
        ::pthread_setcancelstate(m_cancelState, nullptr);
        errno = error;
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    void note(Kind kind, ino_t inode, std::int64_t offset, const std::string& path = "",
              const std::string& other = "", const void* data = nullptr, std::size_t size = 0) {
        static const auto next = real<WriteV>("writev");
        const int error = errno;
        Note head{kind,
                  static_cast<std::uint32_t>(path.size()),
                  static_cast<std::uint32_t>(other.size()),
                  static_cast<std::uint32_t>(size),
                  m_moment,
                  inode,
                  offset};
        const iovec pieces[] = {{&head, sizeof head},
                                {const_cast<char*>(path.data()), path.size()},
                                {const_cast<char*>(other.data()), other.size()},
                                {const_cast<void*>(data), size}};
        const std::size_t whole = sizeof head + path.size() + other.size() + size;
        if (next(recorder->log, pieces, 4) != static_cast<ssize_t>(whole)) giveUp("cannot write");
        errno = error;
    }

  private:
    std::unique_lock<std::mutex> m_lock;
    const std::uint64_t m_moment;
    int m_cancelState = 0;
};

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The path without ".", ".." and links in its folder; "" when it does not lie below the root, or
/// is of no interest.
std::string below(const char* path, int folder = AT_FDCWD) {
    if (recorder == nullptr || path == nullptr || *path == '\0') return "";
    std::string whole = path;
    char buffer[PATH_MAX];
    if (whole[0] != '/') {
        const std::string link =
            folder == AT_FDCWD ? "/proc/self/cwd" : "/proc/self/fd/" + std::to_string(folder);
        const ssize_t size = ::readlink(link.c_str(), buffer, sizeof buffer);
        if (size <= 0) return "";
        whole = std::string(buffer, static_cast<std::size_t>(size)) + "/" + whole;
    }
    while (whole.size() > 1 && whole.back() == '/') whole.pop_back();
    const std::size_t slash = whole.rfind('/');
    if (::realpath(whole.substr(0, slash + 1).c_str(), buffer) == nullptr) return "";
    whole = std::string(buffer) + whole.substr(slash);
    if (endsWith(whole, "/.")) whole.resize(whole.size() - 2);
    const bool within =
        whole.compare(0, recorder->root.size(), recorder->root) == 0 &&
        (whole.size() == recorder->root.size() || whole[recorder->root.size()] == '/');
    return within && !endsWith(whole, "-shm") ? whole : "";
}

bool isKnown(const struct stat& facts) {
    return recorder->files.count({facts.st_dev, facts.st_ino}) != 0;
}

/// Whether the descriptor is of a file or folder below the root.
bool isKnown(int fd, struct stat& facts) {
    if (recorder == nullptr) return false;
    const int error = errno;
    const bool isOne =
        ::fstat(fd, &facts) == 0 && (S_ISREG(facts.st_mode) || S_ISDIR(facts.st_mode));
    errno = error;
    if (!isOne) return false;
    const std::lock_guard<std::mutex> lock(recorder->mutex);
    return isKnown(facts);
}

std::string relative(const std::string& path) {
    return path.size() == recorder->root.size() ? "." : path.substr(recorder->root.size() + 1);
}

/// Notes what the opening of `path`, which was there before or not, has done.
void noteOpened(Operation& operation, int fd, const std::string& path, bool wasThere,
                off_t sizeBefore, int flags) {
    struct stat facts {};
    if (::fstat(fd, &facts) != 0) giveUp("cannot look at what was opened");
    if (!S_ISREG(facts.st_mode) && !S_ISDIR(facts.st_mode)) return;
    recorder->files.insert({facts.st_dev, facts.st_ino});
    if (!wasThere) operation.note(Create, facts.st_ino, 0, relative(path));
    const bool shortened = (flags & O_TRUNC) != 0 && wasThere && sizeBefore > 0;
    if (shortened) operation.note(Truncate, facts.st_ino, 0);
}

template <typename Open>
int openNoting(const std::string& path, int flags, Open open) {
    Operation operation;
    struct stat before {};
    const bool wasThere = ::stat(path.c_str(), &before) == 0;
    const int fd = open();
    if (fd >= 0) noteOpened(operation, fd, path, wasThere, before.st_size, flags);
    return fd;
}

bool takesMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

template <typename Offset>
using WriteAt = ssize_t (*)(int, const void*, size_t, Offset);

template <typename Offset>
ssize_t writeAt(WriteAt<Offset> next, int fd, const void* data, size_t size, Offset offset) {
    struct stat facts {};
    if (!isKnown(fd, facts)) return next(fd, data, size, offset);
    Operation operation;
    const ssize_t written = next(fd, data, size, offset);
    if (written > 0) {
        operation.note(Write, facts.st_ino, offset, "", "", data,
                       static_cast<std::size_t>(written));
    }
    return written;
}

template <typename Offset>
int truncateTo(int (*next)(int, Offset), int fd, Offset size) {
    struct stat facts {};
    if (!isKnown(fd, facts)) return next(fd, size);
    Operation operation;
    const int result = next(fd, size);
    if (result == 0) operation.note(Truncate, facts.st_ino, size);
    return result;
}

int syncNoting(int (*next)(int), int fd) {
    struct stat facts {};
    if (!isKnown(fd, facts)) return next(fd);
    Operation operation;
    const int result = next(fd);
    if (result == 0) operation.note(S_ISDIR(facts.st_mode) ? SyncFolder : Sync, facts.st_ino, 0);
    return result;
}

template <typename Offset>
int allocate(int (*next)(int, Offset, Offset), int fd, Offset offset, Offset size) {
    struct stat facts {};
    if (!isKnown(fd, facts)) return next(fd, offset, size);
    Operation operation;
    const int result = next(fd, offset, size);
    struct stat after {};
    const bool grown = result == 0 && ::fstat(fd, &after) == 0 && after.st_size != facts.st_size;
    if (grown) operation.note(Truncate, facts.st_ino, after.st_size);
    return result;
}

template <typename Offset>
using Map = void* (*)(void*, size_t, int, int, int, Offset);

template <typename Offset>
void* mapNoting(Map<Offset> next, void* place, size_t size, int protection, int flags, int fd,
                Offset offset) {
    struct stat facts {};
    const bool writes = (protection & PROT_WRITE) != 0 && (flags & MAP_SHARED) != 0;
    if (!writes || fd < 0 || !isKnown(fd, facts)) {
        return next(place, size, protection, flags, fd, offset);
    }
    Operation operation;
    operation.note(Mapped, facts.st_ino, 0);
    return next(place, size, protection, flags, fd, offset);
}

FILE* openStream(const char* symbol, const char* name, const char* mode) {
    const auto next = real<FILE* (*)(const char*, const char*)>(symbol);
    const std::string path = below(name);
    if (path.empty()) return next(name, mode);
    Operation operation;
    struct stat before {};
    const bool wasThere = ::stat(path.c_str(), &before) == 0;
    FILE* const stream = next(name, mode);
    if (stream == nullptr) return nullptr;
    // What the stream writes by itself is not seen here; recording.py compares the files.
    noteOpened(operation, ::fileno(stream), path, wasThere, before.st_size,
               mode[0] == 'w' ? O_TRUNC : 0);
    return stream;
}

ino_t inodeOf(const std::string& path) {
    struct stat facts {};
    return ::lstat(path.c_str(), &facts) == 0 ? facts.st_ino : 0;
}

void lockForFork() {
    recorder->mutex.lock();
}

void unlockAfterFork() {
    recorder->mutex.unlock();
}

__attribute__((constructor)) void begin() {
    const char* const root = std::getenv("CRASHPOINTS_ROOT");
    const char* const log = std::getenv("CRASHPOINTS_LOG");
    if (root == nullptr || log == nullptr) return;
    auto* const made = new Recorder;
    made->root = root;
    made->log = ::open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (made->log < 0) giveUp("cannot open its log");
    ::unsetenv("LD_PRELOAD");  // commands that the program starts are no part of it
    ::pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);
    recorder = made;
}

}  // namespace

extern "C" {

// --- names ---

#define KIV_OPEN(NAME)                                                           \
    int NAME(const char* name, int flags, ...) {                                 \
        static const auto next = real<int (*)(const char*, int, ...)>(#NAME);    \
        va_list more;                                                            \
        va_start(more, flags);                                                   \
        const mode_t mode = takesMode(flags) ? va_arg(more, mode_t) : 0;         \
        va_end(more);                                                            \
        const std::string path = below(name);                                    \
        if (path.empty()) return next(name, flags, mode);                        \
        return openNoting(path, flags, [&] { return next(name, flags, mode); }); \
    }
KIV_OPEN(open)
KIV_OPEN(open64)

#define KIV_OPENAT(NAME)                                                                 \
    int NAME(int folder, const char* name, int flags, ...) {                             \
        static const auto next = real<int (*)(int, const char*, int, ...)>(#NAME);       \
        va_list more;                                                                    \
        va_start(more, flags);                                                           \
        const mode_t mode = takesMode(flags) ? va_arg(more, mode_t) : 0;                 \
        va_end(more);                                                                    \
        const std::string path = below(name, folder);                                    \
        if (path.empty()) return next(folder, name, flags, mode);                        \
        return openNoting(path, flags, [&] { return next(folder, name, flags, mode); }); \
    }
KIV_OPENAT(openat)
KIV_OPENAT(openat64)

int creat(const char* name, mode_t mode) {
    return open(name, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

int creat64(const char* name, mode_t mode) {
    return open64(name, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

FILE* fopen(const char* name, const char* mode) {
    return openStream("fopen", name, mode);
}

FILE* fopen64(const char* name, const char* mode) {
    return openStream("fopen64", name, mode);
}

int rename(const char* from, const char* to) {
    static const auto next = real<int (*)(const char*, const char*)>("rename");
    const std::string path = below(from);
    const std::string other = below(to);
    if (path.empty() && other.empty()) return next(from, to);
    Operation operation;
    const ino_t inode = inodeOf(from);
    const int result = next(from, to);
    if (result != 0) return result;
    if (path.empty() || other.empty()) giveUp("a rename over the border of the folder");
    operation.note(Rename, inode, 0, relative(path), relative(other));
    return result;
}

int unlink(const char* name) {
    static const auto next = real<int (*)(const char*)>("unlink");
    const std::string path = below(name);
    if (path.empty()) return next(name);
    Operation operation;
    const ino_t inode = inodeOf(name);
    const int result = next(name);
    if (result == 0) operation.note(Unlink, inode, 0, relative(path));
    return result;
}

int remove(const char* name) {
    static const auto next = real<int (*)(const char*)>("remove");
    return below(name).empty() ? next(name) : unlink(name);
}

int unlinkat(int folder, const char* name, int flags) {
    static const auto next = real<int (*)(int, const char*, int)>("unlinkat");
    const std::string path = below(name, folder);
    return path.empty() || flags != 0 ? next(folder, name, flags) : unlink(path.c_str());
}

int link(const char* from, const char* to) {
    static const auto next = real<int (*)(const char*, const char*)>("link");
    const std::string path = below(from);
    const std::string other = below(to);
    if (path.empty() || other.empty()) return next(from, to);
    Operation operation;
    const int result = next(from, to);
    if (result == 0) operation.note(Link, inodeOf(from), 0, relative(path), relative(other));
    return result;
}

int mkdir(const char* name, mode_t mode) {
    static const auto next = real<int (*)(const char*, mode_t)>("mkdir");
    if (!below(name).empty()) giveUp("a folder below the folder");
    return next(name, mode);
}

// --- data ---

ssize_t write(int fd, const void* data, size_t size) {
    static const auto next = real<ssize_t (*)(int, const void*, size_t)>("write");
    struct stat facts {};
    if (!isKnown(fd, facts)) return next(fd, data, size);
    Operation operation;
    const ssize_t written = next(fd, data, size);
    if (written > 0) {
        const off_t end = ::lseek(fd, 0, SEEK_CUR);
        operation.note(Write, facts.st_ino, end - written, "", "", data,
                       static_cast<std::size_t>(written));
    }
    return written;
}

ssize_t writev(int fd, const iovec* pieces, int count) {
    static const auto next = real<WriteV>("writev");
    struct stat facts {};
    if (!isKnown(fd, facts)) return next(fd, pieces, count);
    ssize_t written = 0;
    for (int piece = 0; piece < count; ++piece) {
        const ssize_t result = write(fd, pieces[piece].iov_base, pieces[piece].iov_len);
        if (result < 0) return written > 0 ? written : result;
        written += result;
    }
    return written;
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    static const auto next = real<WriteAt<off_t>>("pwrite");
    return writeAt(next, fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    static const auto next = real<WriteAt<off64_t>>("pwrite64");
    return writeAt(next, fd, data, size, offset);
}

int ftruncate(int fd, off_t size) {
    static const auto next = real<int (*)(int, off_t)>("ftruncate");
    return truncateTo(next, fd, size);
}

int ftruncate64(int fd, off64_t size) {
    static const auto next = real<int (*)(int, off64_t)>("ftruncate64");
    return truncateTo(next, fd, size);
}

int posix_fallocate(int fd, off_t offset, off_t size) {
    static const auto next = real<int (*)(int, off_t, off_t)>("posix_fallocate");
    return allocate(next, fd, offset, size);
}

int posix_fallocate64(int fd, off64_t offset, off64_t size) {
    static const auto next = real<int (*)(int, off64_t, off64_t)>("posix_fallocate64");
    return allocate(next, fd, offset, size);
}

void* mmap(void* place, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    static const auto next = real<Map<off_t>>("mmap");
    return mapNoting(next, place, size, protection, flags, fd, offset);
}

void* mmap64(void* place, size_t size, int protection, int flags, int fd, off64_t offset) noexcept {
    static const auto next = real<Map<off64_t>>("mmap64");
    return mapNoting(next, place, size, protection, flags, fd, offset);
}

// --- syncs ---

int fsync(int fd) {
    static const auto next = real<int (*)(int)>("fsync");
    return syncNoting(next, fd);
}

int fdatasync(int fd) {
    static const auto next = real<int (*)(int)>("fdatasync");
    return syncNoting(next, fd);
}

void sync() noexcept {
    static const auto next = real<void (*)()>("sync");
    next();
    if (recorder == nullptr) return;
    Operation operation;
    operation.note(SyncAll, 0, 0);
}
}
