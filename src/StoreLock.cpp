#include "StoreLock.h"

#include "ClassLog.h"
#include "KernelTime.h"

#include <filesystem>
#include <system_error>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kPatienceMs = 2000;
constexpr useconds_t kBetweenLooksUs = 20000;
constexpr mode_t kMode = 0644;  // less what the umask takes

/// Another's file may be read only, and the whole disk too: a lock needs no more.
int openFile(const std::string& path) {
    constexpr int kFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | kFlags, kMode);
    if (fd >= 0 || (errno != EROFS && errno != EACCES)) return fd;
    const int reason = errno;
    const int readable = ::open(path.c_str(), O_RDONLY | kFlags);
    if (readable < 0) errno = reason;
    return readable;
}

/// @return 0, or the errno for which it is not taken
int lockWithin(int fd, std::int64_t patienceMs) {
    const std::int64_t end = KernelTime::getTimeMonotonicAsInt64() + patienceMs;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK || KernelTime::getTimeMonotonicAsInt64() >= end) return errno;
        ::usleep(kBetweenLooksUs);
    }
    return 0;
}

}  // namespace

std::string StoreLock::nameFor(const std::string& store) {
    std::error_code error;
    const fs::path file = fs::weakly_canonical(fs::absolute(store, error), error);
    return (error ? store : file.string()) + ".lock";
}

StoreLock::StoreLock(const std::string& store) {
    const std::string path = nameFor(store);
    open(path);
    if (!m_file.isOpen()) return;
    const int error = lockWithin(m_file.get(), kPatienceMs);
    if (error == 0) {
        m_state = State::Held;
        leaveNumber();
    } else if (error == EWOULDBLOCK) {
        m_state = State::Others;
        m_text = holder();
    } else {
        errno = error;
        fail("lock", path);
    }
}

void StoreLock::open(const std::string& path) {
    m_file = Descriptor(openFile(path));
    if (!m_file.isOpen()) return fail("open", path);
    struct stat facts {};
    if (::fstat(m_file.get(), &facts) == 0 && S_ISREG(facts.st_mode)) return;
    m_text = "not a regular file: " + path;
    m_file.close();
}

void StoreLock::fail(const char* action, const std::string& path) {
    m_text = std::string("cannot ") + action + " " + path + ": " + ClassLog::errnoText(errno);
    m_file.close();
}

/// As it has left its number. It may not have come to that yet.
std::string StoreLock::holder() const {
    char text[16] = {};
    const ssize_t length = ::pread(m_file.get(), text, sizeof text - 1, 0);
    const std::string number(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::size_t digits = number.find_first_not_of("0123456789");
    const std::string pid = number.substr(0, digits);
    return pid.empty() ? "another process" : "process " + pid;
}

/// For whoever looks, and for the line of the one that comes second. The lock holds without.
void StoreLock::leaveNumber() const {
    if (::ftruncate(m_file.get(), 0) != 0) return;
    static_cast<void>(m_file.writeAll(std::to_string(::getpid()) + "\n"));
}
