#include "support/StoreFaults.h"

#include <atomic>

#include <dlfcn.h>
#include <errno.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

using Call = StoreFaults::Call;
using AnyCall = sqlite3_syscall_ptr;

struct Fault {
    std::atomic<int> calls{0};
    std::atomic<int> first{0};  ///< the number of the first that fails; 0: none
    std::atomic<bool> allAfter{false};
    std::atomic<int> error{0};

    void clear() {
        calls = 0;
        first = 0;
    }
    bool strikes() {
        const int number = ++calls;
        const int begin = first;
        if (begin == 0 || number < begin || (number > begin && !allAfter)) return false;
        errno = error;
        return true;
    }
};

Fault s_faults[5];

Fault& of(Call call) {
    return s_faults[static_cast<int>(call)];
}

const char* const kReplaced[] = {"open",     "pread64", "pread", "read",
                                 "pwrite64", "pwrite",  "write", "mmap"};
AnyCall s_real[8];

template <typename Function>
Function* real(int index) {
    return reinterpret_cast<Function*>(s_real[index]);
}

int failingOpen(const char* path, int flags, int mode) {
    if (of(Call::Open).strikes()) return -1;
    return real<int(const char*, int, int)>(0)(path, flags, mode);
}
ssize_t failingPread64(int fd, void* buffer, size_t size, off64_t offset) {
    if (of(Call::Read).strikes()) return -1;
    return real<ssize_t(int, void*, size_t, off64_t)>(1)(fd, buffer, size, offset);
}
ssize_t failingPread(int fd, void* buffer, size_t size, off_t offset) {
    if (of(Call::Read).strikes()) return -1;
    return real<ssize_t(int, void*, size_t, off_t)>(2)(fd, buffer, size, offset);
}
ssize_t failingRead(int fd, void* buffer, size_t size) {
    if (of(Call::Read).strikes()) return -1;
    return real<ssize_t(int, void*, size_t)>(3)(fd, buffer, size);
}
ssize_t failingPwrite64(int fd, const void* buffer, size_t size, off64_t offset) {
    if (of(Call::Write).strikes()) return -1;
    return real<ssize_t(int, const void*, size_t, off64_t)>(4)(fd, buffer, size, offset);
}
ssize_t failingPwrite(int fd, const void* buffer, size_t size, off_t offset) {
    if (of(Call::Write).strikes()) return -1;
    return real<ssize_t(int, const void*, size_t, off_t)>(5)(fd, buffer, size, offset);
}
ssize_t failingWrite(int fd, const void* buffer, size_t size) {
    if (of(Call::Write).strikes()) return -1;
    return real<ssize_t(int, const void*, size_t)>(6)(fd, buffer, size);
}
void* failingMmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    if (of(Call::Map).strikes()) return MAP_FAILED;
    return real<void*(void*, size_t, int, int, int, off_t)>(7)(address, size, protection, flags, fd,
                                                               offset);
}

AnyCall const kFailing[] = {
    reinterpret_cast<AnyCall>(failingOpen),     reinterpret_cast<AnyCall>(failingPread64),
    reinterpret_cast<AnyCall>(failingPread),    reinterpret_cast<AnyCall>(failingRead),
    reinterpret_cast<AnyCall>(failingPwrite64), reinterpret_cast<AnyCall>(failingPwrite),
    reinterpret_cast<AnyCall>(failingWrite),    reinterpret_cast<AnyCall>(failingMmap),
};

}  // namespace

StoreFaults::StoreFaults() {
    heal();
    sqlite3_vfs* const system = sqlite3_vfs_find(nullptr);
    for (int i = 0; i < 8; ++i) {
        s_real[i] = system->xGetSystemCall(system, kReplaced[i]);
        if (s_real[i] != nullptr) system->xSetSystemCall(system, kReplaced[i], kFailing[i]);
    }
}

StoreFaults::~StoreFaults() {
    heal();
    sqlite3_vfs* const system = sqlite3_vfs_find(nullptr);
    for (const char* call : kReplaced) system->xSetSystemCall(system, call, nullptr);
}

void StoreFaults::heal() {
    for (Fault& fault : s_faults) fault.clear();
}

int StoreFaults::count(Call call) const {
    return of(call).calls;
}

void StoreFaults::failOnce(Call call, int error, int number, bool andAllAfter) {
    heal();
    of(call).error = error;
    of(call).allAfter = andAllAfter;
    of(call).first = number;
}

// SQLite calls it by its name. The program's own definition comes before that of the C library.
extern "C" int fdatasync(int fd) {
    static auto* const library = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "fdatasync"));
    return of(Call::Sync).strikes() ? -1 : library(fd);
}
