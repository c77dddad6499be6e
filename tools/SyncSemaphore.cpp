#include "SyncSemaphore.h"

#include "Failure.h"

#include <cstdint>
#include <random>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

std::string uniqueName() {
    char name[64];
    snprintf(name, sizeof name, "/kivsend.%ld.%08x", static_cast<long>(getpid()),
             static_cast<unsigned>(std::random_device()()));
    return name;
}

/// Open to all users: kivApp need not run as ours, and opens it for reading and writing.
sem_t* create(const std::string& name) {
    const mode_t mask = umask(0);
    sem_t* semaphore = sem_open(name.c_str(), O_CREAT | O_EXCL, 0666, 0);
    const int error = errno;
    umask(mask);
    errno = error;
    return semaphore;
}

timespec monotonicTimeIn(std::chrono::milliseconds time) {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const std::int64_t nanoseconds = until.tv_nsec + std::int64_t{time.count()} * 1000000;
    until.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    until.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return until;
}

}  // namespace

SyncSemaphore::SyncSemaphore() : m_name(uniqueName()), m_semaphore(create(m_name)) {
    if (m_semaphore == SEM_FAILED) throw Failure::ofSystem("semaphore " + m_name, errno);
}

SyncSemaphore::~SyncSemaphore() {
    sem_close(m_semaphore);
    sem_unlink(m_name.c_str());
}

bool SyncSemaphore::wait(std::chrono::milliseconds time) const {
    const timespec until = monotonicTimeIn(time);
    if (sem_clockwait(m_semaphore, CLOCK_MONOTONIC, &until) == 0) return true;
    if (errno != ETIMEDOUT && errno != EINTR) throw Failure::ofSystem(m_name, errno);
    return false;
}
