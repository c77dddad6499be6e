#include "SenderSemaphore.h"

#include "ClassLog.h"

#include <utility>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include <sys/stat.h>

namespace {

#ifdef __GLIBC__

/// Where glibc keeps named semaphores.
constexpr char kPlace[] = "/dev/shm/sem.";

/// More threads than any kernel has.
constexpr std::uint32_t kMostWaiters = 1U << 22U;

/// What glibc keeps in a semaphore.
struct Fields {
    std::uint32_t value;
    std::uint32_t waiters;
    std::uint32_t sharing;  ///< between threads or between processes: an argument of the kernel
    std::uint32_t pad;
};

Fields fieldsOf(const sem_t& semaphore) {
    if constexpr (sizeof(void*) == 8) {
        std::uint64_t data = 0;
        std::uint32_t rest[2] = {};
        static_assert(sizeof(sem_t) >= sizeof data + sizeof rest);
        const auto* const bytes = reinterpret_cast<const char*>(&semaphore);
        std::memcpy(&data, bytes, sizeof data);
        std::memcpy(rest, bytes + sizeof data, sizeof rest);
        return {static_cast<std::uint32_t>(data), static_cast<std::uint32_t>(data >> 32U), rest[0],
                rest[1]};
    } else {
        std::uint32_t words[4] = {};
        static_assert(sizeof(sem_t) >= sizeof words);
        std::memcpy(words, &semaphore, sizeof words);
        return {words[0] >> 1U, words[3], words[1], words[2]};  // lowest bit: whether one waits
    }
}

/// Why the file under that name is not a semaphore; "" when it may be one, or there is none.
std::string objectionToFile(const std::string& name) {
    const std::size_t start = name.find_first_not_of('/');
    if (start == std::string::npos) return "";  // sem_open refuses it
    struct stat facts {};
    if (::lstat((kPlace + name.substr(start)).c_str(), &facts) != 0)
        return errno == ENOENT ? "" : ClassLog::errnoText(errno);
    if (!S_ISREG(facts.st_mode)) return "not a regular file";
    if (facts.st_size == static_cast<off_t>(sizeof(sem_t))) return "";
    return "not the size of a semaphore";
}

bool isPlausible(const sem_t& semaphore) {
    sem_t model{};
    ::sem_init(&model, 1, 0);
    const Fields as = fieldsOf(model);
    ::sem_destroy(&model);
    const Fields fields = fieldsOf(semaphore);
    return fields.sharing == as.sharing && fields.pad == as.pad && fields.value <= SEM_VALUE_MAX &&
           fields.waiters <= kMostWaiters;
}

#else

std::string objectionToFile(const std::string&) {
    return "";
}

bool isPlausible(const sem_t&) {
    return true;
}

#endif

}  // namespace

SenderSemaphore::SenderSemaphore(std::string name, const ClassLog& log)
    : m_name(std::move(name)), m_log(log) {
    open();
}

SenderSemaphore::~SenderSemaphore() {
    close();
}

void SenderSemaphore::open() {
    const std::string objection = objectionToFile(m_name);
    if (!objection.empty()) {
        report("Cannot open semaphore ", objection);
        return;
    }
    m_semaphore = ::sem_open(m_name.c_str(), 0);
    if (m_semaphore == SEM_FAILED) {
        report("Cannot open semaphore ", ClassLog::errnoText(errno));
        return;
    }
    if (isPlausible(*m_semaphore)) return;
    report("Cannot open semaphore ", "not a semaphore");
    close();
}

void SenderSemaphore::post() {
    if (m_semaphore == SEM_FAILED) return;
    if (::sem_post(m_semaphore) != 0) report("Cannot post sem ", ClassLog::errnoText(errno));
}

void SenderSemaphore::close() {
    if (m_semaphore == SEM_FAILED) return;
    if (::sem_close(m_semaphore) != 0) report("Cannot close sem ", ClassLog::errnoText(errno));
    m_semaphore = SEM_FAILED;
}

void SenderSemaphore::report(const char* what, const std::string& why) const {
    m_log.error(what, ClassLog::foreign(m_name), ": ", why);
}
