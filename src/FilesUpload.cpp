#include "FilesUpload.h"

#include "AwsWrapperImpl.h"
#include "Config.h"
#include "DatabaseReports.h"
#include "Descriptor.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "Status.h"
#include "UploadLog.h"
#include "UploadSchedule.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <utility>

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr long kRetryMs = UploadSchedule::kRetryMs;  ///< after a failure
constexpr std::int64_t kRetrySeconds = kRetryMs / 1000;
/// Kernel milliseconds stay below this (3 years of uptime), UTC milliseconds above it (since 1973).
constexpr std::int64_t kFirstUtcMs = 100000000000;

const ClassLog& s_log = UploadLog::log;

enum class Kind { Readable, Invalid, Own };

OwnFiles::Identity identityOf(const struct stat& facts) {
    return {facts.st_dev, facts.st_ino};
}

/// An announced file as its turn comes. Held open while it is sent: no other file can have its
/// device and inode until then.
struct Announced {
    Descriptor file;
    Kind kind;
    OwnFiles::Identity identity;  ///< of a readable one
};

/// Opened without waiting, as a pipe would for its writer; asked what it is where no other file can
/// take its place any more. A link may lead elsewhere than when it was announced.
Announced openAnnounced(const std::string& path) {
    Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat facts = {};
    const bool readable =
        file.isOpen() && ::fstat(file.get(), &facts) == 0 && S_ISREG(facts.st_mode);
    if (!readable) return {Descriptor(), Kind::Invalid, {}};
    const Kind kind = OwnFiles::contains(facts) ? Kind::Own : Kind::Readable;
    return {std::move(file), kind, identityOf(facts)};
}

/// Deletes the file that was sent, and no other: its path may lead to another one by now, the
/// daemon's own among them. Looked at and deleted by the same folder, which may be renamed between.
void deleteSent(const std::string& path, const OwnFiles::Identity& sent) {
    const std::string::size_type slash = path.rfind('/');
    const std::string folderName = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
    const Descriptor folder(::open(folderName.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat facts = {};
    if (folder.isOpen() && ::fstatat(folder.get(), name.c_str(), &facts, 0) == 0 &&
        (!sent.is(facts) || OwnFiles::contains(facts))) {
        s_log.error("Another file has taken its place: Not deleted: ", ClassLog::foreign(path));
        return;
    }
    if (!folder.isOpen() || ::unlinkat(folder.get(), name.c_str(), 0) != 0) {
        s_log.error("Cannot delete ", ClassLog::foreign(path), ": ", ClassLog::errnoText(errno));
    }
}

/// How long a file that failed still has to wait; 0 when it is due. The last failure is dated in
/// kernel time, of an earlier cycle perhaps: one that seems to lie ahead is due.
std::int64_t secondsUntilRetry(const DB::PendingUpload& file) {
    if (file.retries <= 0) return 0;
    const std::int64_t now = file.lastfail < kFirstUtcMs
                                 ? KernelTime::getTimeMonotonicAsInt64() / 1000
                                 : UploadConditions::nowSeconds();
    const std::int64_t distance = now - file.lastfail / 1000;
    return distance >= 0 && distance < kRetrySeconds ? kRetrySeconds - distance : 0;
}

}  // namespace

/// What one run over the announced files has done.
struct FilesUpload::Pass {
    std::set<std::string> seen;  ///< names
    bool handledAny = false;     ///< uploaded or dropped
};

int FilesUpload::run() {
    s_log.info("uploadFiles request");
    if (!mayStart() || !serviceMayBeAsked()) return 0;
    forgetOldAttempts();
    Pass pass;
    while (handleNext(pass)) {
    }
    return pass.handledAny ? 1 : 0;
}

bool FilesUpload::mayStart() {
    const UploadConditions::Verdict verdict = m_conditions.check(Config());
    if (verdict == UploadConditions::Verdict::AskAgain) m_schedule.requestFilesUpload();
    if (verdict == UploadConditions::Verdict::AskLater) {
        m_schedule.requestFilesUpload(kRetryMs);
    }
    return verdict == UploadConditions::Verdict::Met && UploadConditions::nowSeconds() != 0;
}

bool FilesUpload::serviceMayBeAsked() {
    const long pause = m_serviceFails.left();
    if (pause > 0) m_schedule.requestFilesUpload(pause);
    return pause == 0;
}

/// Also what is done whose record went another way: the same name may be announced again.
void FilesUpload::forgetOldAttempts() {
    for (auto attempt = m_attempts.begin(); attempt != m_attempts.end();) {
        const bool old = attempt->second.done ? m_store.isUploadGone(attempt->first)
                                              : attempt->second.beforeNext.isOver();
        attempt = old ? m_attempts.erase(attempt) : std::next(attempt);
    }
}

/// Handles the file whose last failure is oldest. @return whether the pass goes on
bool FilesUpload::handleNext(Pass& pass) {
    const std::unique_ptr<DB::PendingUpload> file = m_store.getFirstUpload();
    if (file == nullptr) {
        // None, or none that could be read.
        if (DB::m_dbError || !m_store.works()) m_schedule.requestFilesUpload(kRetryMs);
        return false;
    }
    if (!pass.seen.insert(file->id).second) {
        m_schedule.requestFilesUpload(kRetryMs);
        return false;
    }
    const long delay = delayBefore(*file);
    if (delay > 0) {
        m_schedule.requestFilesUpload(delay);
        return false;
    }
    handle(*file, pass);
    return serviceMayBeAsked();
}

/// Milliseconds that the file has to wait, by its record and by what is remembered of it.
long FilesUpload::delayBefore(const DB::PendingUpload& file) const {
    const long byRecord = UploadSchedule::delayOfSeconds(secondsUntilRetry(file));
    const auto known = m_attempts.find(file.id);
    return known == m_attempts.end() ? byRecord
                                     : std::max(byRecord, known->second.beforeNext.left());
}

bool FilesUpload::isDone(const DB::PendingUpload& file) const {
    const auto known = m_attempts.find(file.id);
    return known != m_attempts.end() && known->second.done && known->second.url == file.url;
}

void FilesUpload::handle(const DB::PendingUpload& file, Pass& pass) {
    if (isDone(file)) {
        if (remove(file)) pass.handledAny = true;
        return;
    }
    s_log.info("Trying upload of \"", file.url, "\" ", file.id, " (retries=", file.retries, ")");
    const Announced announced = openAnnounced(file.url);
    const Kind kind = announced.kind;
    remember(file, false);  // should it throw
    if (kind == Kind::Readable && !upload(file, announced.identity)) {
        recordAttempt(file, false);
        recordFailure();
        return;
    }
    pass.handledAny = true;
    if (kind == Kind::Readable) return;
    remove(file);
    if (kind == Kind::Own) {
        s_log.error("File is the daemon's own: Ignore the file ", ClassLog::foreign(file.url));
    } else {
        s_log.info("File \"", file.url, "\" is invalid, removing ", file.id, " from DB");
    }
}

/// Why it failed is known to the child process alone. One that fails may have itself to blame.
void FilesUpload::recordFailure() {
    if (!m_oneFailed.isOver()) m_serviceFails.begin();
    m_oneFailed.begin();
}

/// @return whether the record is gone
bool FilesUpload::remove(const DB::PendingUpload& file) {
    if (!m_store.removeUpload(file.id)) {
        recordAttempt(file, true);
        return false;
    }
    m_attempts.erase(file.id);
    return true;
}

/// Counts it in the store too, which puts the file after the others, should that work.
void FilesUpload::recordAttempt(const DB::PendingUpload& file, bool done) {
    m_store.retryUpload(file.id);
    remember(file, done);
    m_schedule.requestFilesUpload(kRetryMs);
}

/// Within a minute it is not tried again.
void FilesUpload::remember(const DB::PendingUpload& file, bool done) {
    Attempt attempt{file.url, done, Pause(std::chrono::milliseconds(kRetryMs))};
    attempt.beforeNext.begin();
    m_attempts.insert_or_assign(file.id, attempt);
}

/// @return whether the file is in the cloud. A bucket that one file names stays in force for the
/// later ones that name none.
bool FilesUpload::upload(const DB::PendingUpload& file, const OwnFiles::Identity& identity) {
    const JsonObject metadata = file.info.empty() ? JsonObject() : JsonObject::parse(file.info);
    std::string objectName = file.id;
    if (metadata.isNull()) {
        objectName = DatabaseReports::componentFolder() + "/" + file.id;
    } else {
        std::string defaultBucket = Config()->GetS3Bucket();
        m_cloud.SetBucketName(metadata.optString("bucketname", defaultBucket));
    }
    if (!m_cloud.UploadFile(objectName, file.url)) return false;
    Status::count(Status::FilesSent);
    Status::setMoment(Status::LastFile);
    remove(file);
    if (!metadata.isNull()) deleteSent(file.url, identity);
    return true;
}
