#include "StatusDocument.h"

#include "BuildInfo.h"
#include "ClassLog.h"
#include "Descriptor.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "Status.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr std::int64_t kPauseMs = 1000;
constexpr mode_t kMode = 0644;  // there is no secret in it

ClassLog s_log("kivStatus: ");

// In the order of the enumerations of `Status`.
constexpr const char* kCounts[] = {"received",          "not-an-event", "refused-by-consent",
                                   "refused-by-filter", "stored",       "not-storable",
                                   "dropped",           "pruned",       "events-sent",
                                   "records-sent",      "files-sent"};
constexpr const char* kFacts[] = {
    "clock-source", "network",         "user-consent",       "config-time",
    "last-record",  "last-file",       "next-events",        "next-files",
    "next-refresh", "next-time-check", "next-initialization"};
constexpr const char* kTargets[] = {"config", "tou", "time", "geo", "stream", "objects", "store"};
constexpr const char* kPaths[] = {"globalinfo", "bootinfo", "config", "database", "toudir"};
static_assert(std::size(kCounts) == Status::CountEnd && std::size(kFacts) == Status::FactEnd &&
              std::size(kTargets) == Status::TargetEnd && std::size(kPaths) == Status::PathEnd);

void setNumber(JsonObject& object, const char* key, std::int64_t value) {
    object.set(key, JsonObject::createInteger(value));
}

JsonObject answersOf(Status::Target whom) {
    const Status::Answers answers = Status::answers(whom);
    JsonObject object = JsonObject::createObject();
    setNumber(object, "requests", answers.requests);
    setNumber(object, "failures", answers.failures);
    setNumber(object, "last-success", answers.lastSuccess);
    setNumber(object, "last-failure", answers.lastFailure);
    setNumber(object, "fails", answers.fails ? 1 : 0);
    setNumber(object, "unreachable", answers.unreachable ? 1 : 0);
    object.set("error", ClassLog::foreign(answers.error));
    return object;
}

/// Others do not share the daemon's working directory.
std::string absolute(const std::string& path) {
    if (path.empty() || path.front() == '/') return path;
    char* folder = ::getcwd(nullptr, 0);
    if (folder == nullptr) return path;
    std::string whole = std::string(folder) + "/" + path;
    std::free(folder);
    return whole;
}

/// The moment of the first call: the daemon's start, near enough.
std::int64_t startMs() {
    static const std::int64_t start = KernelTime::getTimeMonotonicAsInt64();
    return start;
}

bool isInMemory(const std::string& folder) {
    struct statfs facts = {};
    if (::statfs(folder.c_str(), &facts) != 0) return true;  // opening will tell
    const auto type = static_cast<std::uint32_t>(facts.f_type);
    return type == TMPFS_MAGIC || type == RAMFS_MAGIC;
}

std::string failure(const char* action, const std::string& path) {
    const int reason = errno;
    return std::string("cannot ") + action + " " + path + ": " + ClassLog::errnoText(reason);
}

std::string fromEnvironment() {
    const char* path = std::getenv("KIV_STATUS_FILE");
    return path == nullptr ? "" : path;
}

}  // namespace

StatusDocument::StatusDocument() : m_path(fromEnvironment()) {
    startMs();
}

void StatusDocument::write() {
    if (m_path.empty()) return;
    const std::uint64_t changes = Status::changes();
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    if (changes == m_written || now < m_earliestNext) return;
    m_written = changes;
    m_earliestNext = now + kPauseMs;
    const std::string reason = replace();
    if (!reason.empty() && reason != m_failure) s_log.error("No status document: ", reason);
    m_failure = reason;
}

/// @return why that failed; "" when it is there
std::string StatusDocument::replace() const {
    const std::size_t slash = m_path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : m_path.substr(0, slash + 1);
    if (!isInMemory(folder)) return folder + " is not on a file system in memory";
    const std::string temporary = m_path + ".new";
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW;
    Descriptor file(::open(temporary.c_str(), flags, kMode));
    if (!file.isOpen()) return failure("open", temporary);
    if (!file.writeAll(text()) || !file.close()) return failure("write", temporary);
    if (std::rename(temporary.c_str(), m_path.c_str()) != 0) return failure("replace", m_path);
    return "";
}

std::string StatusDocument::text() {
    JsonObject counts = JsonObject::createObject();
    for (int i = 0; i < Status::CountEnd; ++i) {
        const auto count = Status::counted(static_cast<Status::Count>(i));
        setNumber(counts, kCounts[i], static_cast<std::int64_t>(count));
    }
    JsonObject facts = JsonObject::createObject();
    for (int i = 0; i < Status::FactEnd; ++i) {
        setNumber(facts, kFacts[i], Status::fact(static_cast<Status::Fact>(i)));
    }
    JsonObject targets = JsonObject::createObject();
    for (int i = 0; i < Status::TargetEnd; ++i) {
        targets.set(kTargets[i], answersOf(static_cast<Status::Target>(i)));
    }
    JsonObject paths = JsonObject::createObject();
    for (int i = 0; i < Status::PathEnd; ++i) {
        paths.set(kPaths[i], absolute(Status::path(static_cast<Status::Path>(i))));
    }
    JsonObject document = JsonObject::createObject();
    setNumber(document, "pid", ::getpid());
    document.set("version", BuildInfo::revisionText());
    setNumber(document, "started", startMs());
    document.set("counts", counts);
    document.set("facts", facts);
    document.set("targets", targets);
    document.set("paths", paths);
    return document.dumpAsString() + "\n";
}
