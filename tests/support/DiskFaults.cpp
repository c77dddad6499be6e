#include "support/DiskFaults.h"

#include <algorithm>

#include <errno.h>
#include <signal.h>
#include <stdio.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

thread_local DiskWatch* t_watch = nullptr;  ///< null: nothing is watched

bool fails(int error) {
    if (error != 0) errno = error;
    return error != 0;
}

void endWhenTold() {
    if (t_watch != nullptr && t_watch->endAt > 0 && --t_watch->endAt == 0)
        ::_exit(t_watch->endStatus);
}

bool isDirectory(int fd) {
    struct stat facts {};
    return ::fstat(fd, &facts) == 0 && S_ISDIR(facts.st_mode);
}

template <typename Function>
Function* libraryCall(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

DiskWatch::DiskWatch() {
    t_watch = this;
}

DiskWatch::~DiskWatch() {
    t_watch = nullptr;
}

const std::vector<std::string>& DiskWatch::safeReplacement() {
    static const std::vector<std::string> steps = {"sync file", "rename", "sync directory"};
    return steps;
}

FullDisk::FullDisk(rlim_t bytes) : m_onExcess(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &m_before);
    rlimit limit = m_before;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

FullDisk::~FullDisk() {
    ::setrlimit(RLIMIT_FSIZE, &m_before);
    ::signal(SIGXFSZ, m_onExcess);
}

// The program's own definitions come before those of the C library.
extern "C" {

int fsync(int fd) {
    static auto* const real = libraryCall<int(int)>("fsync");
    endWhenTold();
    if (t_watch == nullptr) return real(fd);
    const bool directory = isDirectory(fd);
    t_watch->calls.emplace_back(directory ? "sync directory" : "sync file");
    return fails(directory ? t_watch->directorySyncError : t_watch->fileSyncError) ? -1 : real(fd);
}

int rename(const char* from, const char* to) noexcept {
    static auto* const real = libraryCall<int(const char*, const char*)>("rename");
    endWhenTold();
    if (t_watch == nullptr) return real(from, to);
    t_watch->calls.emplace_back("rename");
    const auto number = std::count(t_watch->calls.begin(), t_watch->calls.end(), "rename");
    const bool meant = t_watch->failingRename == 0 || t_watch->failingRename == number;
    return meant && fails(t_watch->renameError) ? -1 : real(from, to);
}

int link(const char* from, const char* to) noexcept {
    static auto* const real = libraryCall<int(const char*, const char*)>("link");
    endWhenTold();
    if (t_watch != nullptr && fails(t_watch->linkError)) return -1;
    return real(from, to);
}

int unlink(const char* path) noexcept {
    static auto* const real = libraryCall<int(const char*)>("unlink");
    endWhenTold();
    return real(path);
}
}
