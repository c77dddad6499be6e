#include "FilesUpload.h"

#include "AwsWrapperImpl.h"
#include "Config.h"
#include "DatabaseReports.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "UploadConditions.h"
#include "UploadLog.h"
#include "UploadSchedule.h"

#include <fstream>
#include <set>
#include <string>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::int64_t kRetrySeconds = 60;  ///< after a failure
/// Kernel milliseconds stay below this (3 years of uptime), UTC milliseconds above it (since 1973).
constexpr std::int64_t kFirstUtcMs = 100000000000;

const ClassLog& s_log = UploadLog::log;

/// Asked what it is first: opening a pipe would wait for a writer.
bool isReadableFile(const std::string& path) {
    struct stat facts = {};
    if (::stat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    return static_cast<bool>(std::ifstream(path));
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
    const Config config;
    if (!UploadConditions::areMet(config, m_reports)) return 0;
    if (UploadConditions::nowSeconds() == 0) return 0;
    Pass pass;
    while (handleNext(pass)) {
    }
    return pass.handledAny ? 1 : 0;
}

/// Handles the file whose last failure is oldest. @return whether the pass goes on
bool FilesUpload::handleNext(Pass& pass) {
    const std::unique_ptr<DB::PendingUpload> file = m_store.getFirstUpload();
    if (file == nullptr) return false;
    if (!pass.seen.insert(file->id).second) {
        m_schedule.requestFilesUpload(UploadSchedule::kRetryMs);
        return false;
    }
    const std::int64_t wait = secondsUntilRetry(*file);
    if (wait > 0) {
        m_schedule.requestFilesUpload(UploadSchedule::delayOfSeconds(wait));
        return false;
    }
    handle(*file, pass);
    return true;
}

void FilesUpload::handle(const DB::PendingUpload& file, Pass& pass) {
    s_log.info("Trying upload of \"", file.url, "\" ", file.id, " (retries=", file.retries, ")");
    if (!isReadableFile(file.url)) {
        m_store.removeUpload(file.id);
        s_log.info("File \"", file.url, "\" is invalid, removing ", file.id, " from DB");
        pass.handledAny = true;
    } else if (upload(file)) {
        pass.handledAny = true;
    } else {
        m_store.retryUpload(file.id);
    }
}

/// @return whether the file is in the cloud, and its record gone. A bucket that one file names
/// stays in force for the later ones that name none.
bool FilesUpload::upload(const DB::PendingUpload& file) {
    const JsonObject metadata = file.info.empty() ? JsonObject() : JsonObject::parse(file.info);
    std::string objectName = file.id;
    if (metadata.isNull()) {
        objectName = DatabaseReports::componentFolder() + "/" + file.id;
    } else {
        std::string defaultBucket = Config()->GetS3Bucket();
        m_cloud.SetBucketName(metadata.optString("bucketname", defaultBucket));
    }
    if (!m_cloud.UploadFile(objectName, file.url)) return false;
    m_store.removeUpload(file.id);
    if (!metadata.isNull() && ::unlink(file.url.c_str()) != 0) {
        s_log.error("Cannot delete ", file.url, ": ", ClassLog::errnoText(errno));
    }
    return true;
}
