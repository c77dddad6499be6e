#include "AwsWrapperImpl.h"

#include "AppClock.h"
#include "CloudLog.h"
#include "Config.h"
#include "Credentials.h"
#include "Descriptor.h"
#include "JsonObject.h"
#include "OwnFiles.h"
#include "RegularFile.h"
#include "SkewRetryStrategy.h"
#include "Status.h"
#include "TimedChild.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <fstream>
#include <functional>
#include <sstream>
#include <type_traits>
#include <utility>
#include <vector>

#include <cerrno>

#include <fcntl.h>
#include <libgen.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <aws/core/Aws.h>
#include <aws/core/auth/AWSCredentials.h>
#include <aws/core/auth/AWSCredentialsProvider.h>
#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/utils/Array.h>
#include <aws/core/utils/DateTime.h>
#include <aws/core/utils/HashingUtils.h>
#include <aws/core/utils/Outcome.h>
#include <aws/core/utils/memory/AWSMemory.h>
#include <aws/core/utils/ratelimiter/DefaultRateLimiter.h>
#include <aws/firehose/FirehoseClient.h>
#include <aws/firehose/model/PutRecordRequest.h>
#include <aws/firehose/model/Record.h>
#include <aws/s3/S3Client.h>
#include <aws/s3/model/GetObjectRequest.h>
#include <aws/s3/model/PutObjectRequest.h>
#ifdef KIV_AWSLITE
#include <aws/core/awslite.h>
#else
#include <aws/core/utils/logging/AWSLogging.h>
#include <aws/core/utils/logging/LogSystemInterface.h>
#endif

std::string AwsWrapperImpl::m_TestModeFile;
unsigned int AwsWrapperImpl::m_uploadLimitSeconds = 300;
std::int64_t AwsWrapperImpl::m_bytesPerSecond = 50000000;

namespace {

ClassLog& s_log = CloudLog::log;

constexpr char kAllocationTag[] = "kivApp";
constexpr char kLogPrefix[] = "aws_sdk_";
constexpr long kTimeoutMs = 30000;  ///< to connect, and without any progress
/// In all, of a call that keeps the upload thread. One in a child has the child's limit.
constexpr long kCallTimeoutMs = 120000;
constexpr std::chrono::seconds kRefusalLimit(10);  ///< of such a call, if it is made once more

/// The configured endpoint may be a host or a URL; the client wants a URL.
std::string endpointUrl(std::string host) {
    const std::size_t scheme = host.find("://");
    if (scheme != std::string::npos) host.erase(0, scheme + 3);
    while (!host.empty() && host.back() == '/') host.pop_back();
    return "https://" + host;
}

Aws::Utils::ByteBuffer bytesOf(const std::string& text) {
    return Aws::Utils::ByteBuffer(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

/// Credentials that were read before the fork: the child must not ask the configuration, whose
/// locks another thread may have held at that moment.
class CredentialsCopy : public Aws::Auth::AWSCredentialsProvider {
  public:
    explicit CredentialsCopy(Aws::Auth::AWSCredentials credentials)
        : m_credentials(std::move(credentials)) {}

    Aws::Auth::AWSCredentials GetAWSCredentials() override { return m_credentials; }

  private:
    Aws::Auth::AWSCredentials m_credentials;
};

/// The application clock as it was before the fork, carried on without its lock.
class ClockCopy {
  public:
    ClockCopy() : m_now(kivAppNow()), m_taken(std::chrono::steady_clock::now()) {}

    std::chrono::system_clock::time_point operator()() const {
        return m_now + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                           std::chrono::steady_clock::now() - m_taken);
    }

  private:
    std::chrono::system_clock::time_point m_now;
    std::chrono::steady_clock::time_point m_taken;
};

void dateRequestsBy(std::function<std::chrono::system_clock::time_point()> clock) {
#ifdef KIV_AWSLITE
    Aws::SetRequestClock(std::move(clock));
#else
    static_cast<void>(clock);  // that client corrects the skew by what the server says
#endif
}

/// For a child: the thread that writes the SDK's log stayed in the daemon, and may have held the
/// log's lock at the fork. Nothing would write the child's lines anyway.
void leaveSdkLog() {
#ifndef KIV_AWSLITE  // which writes none
    Aws::Utils::Logging::PushLogger(nullptr);
#endif
}

/// Whether this version of the SDK can limit a call as a whole; some know a stalled one only.
template <typename Configuration, typename = void>
struct LimitsCalls : std::false_type {};
template <typename Configuration>
struct LimitsCalls<Configuration,
                   std::void_t<decltype(std::declval<Configuration>().httpRequestTimeoutMs)>>
    : std::true_type {};

/// Limits a call that keeps the upload thread.
template <typename Configuration>
void limitCall(Configuration& configuration) {
    configuration.retryStrategy = Aws::MakeShared<SkewRetryStrategy>(kAllocationTag, kRefusalLimit);
    if constexpr (LimitsCalls<Configuration>::value) {
        configuration.httpRequestTimeoutMs = kCallTimeoutMs;
    }
}

/// A portal that redirects a request is not given it: the request shows the session token, and the
/// portal's connection is often a plain one. In older versions of the SDK the policy is a switch.
template <typename Configuration>
void followNoRedirect(Configuration& configuration) {
    using Policy = decltype(configuration.followRedirects);
    if constexpr (std::is_same_v<Policy, bool>) {
        configuration.followRedirects = false;
    } else {
        configuration.followRedirects = Policy::NEVER;
    }
}

/// What a service says of a failure is text from outside.
template <typename Outcome>
std::string reasonOf(const Outcome& outcome) {
    if (outcome.IsSuccess()) return "";
    return ClassLog::foreign(outcome.GetError().GetMessage().c_str());
}

/// @return how many bytes were read; 0 at the end, negative, with errno, on failure
ssize_t readBlock(const Descriptor& file, std::vector<char>& buffer) {
    ssize_t count = 0;
    do {
        count = ::read(file.get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    return count;
}

/// Why the opened file must not be sent, in words; null when it may be. A pipe or a device that has
/// taken the file's place has no end, or no beginning; a link may lead to one of `own` by now.
const char* whyNotToSend(const Descriptor& file, const std::vector<OwnFiles::Identity>& own) {
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0) return nullptr;  // reading will tell
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return "not a regular file";
    const bool isOwn = std::any_of(own.begin(), own.end(),
                                   [&](const OwnFiles::Identity& one) { return one.is(status); });
    return isOwn ? "the daemon's own" : nullptr;
}

/// Reads the file into memory, unless it is one of `own`. @return its size in bytes; -1, with an
/// error line, on failure
long long readFile(const std::string& path, const std::vector<OwnFiles::Identity>& own,
                   std::iostream& content) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const std::string name = ClassLog::foreign(path);
    if (!file.isOpen()) {
        s_log.error("could not open file ", name);
        return -1;
    }
    if (const char* reason = whyNotToSend(file, own)) {
        s_log.error("could not read file ", name, ": ", reason);
        return -1;
    }
    std::vector<char> buffer(65536);
    long long size = 0;
    for (ssize_t count = 0; (count = readBlock(file, buffer)) != 0; size += count) {
        if (count < 0) {
            s_log.error("could not read file ", name, ": ", ClassLog::errnoText(errno));
            return -1;
        }
        if (!content.write(buffer.data(), count)) {
            s_log.error("could not hold file ", name, ": out of memory");
            return -1;
        }
    }
    return size;
}

bool writeWhole(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) s_log.error("Cannot write test mode file ", path, ": ", ClassLog::errnoText(errno));
    return static_cast<bool>(out);
}

std::string fileElement(const std::string& objectName, const std::string& bucket,
                        const std::string& localPath) {
    JsonObject element;
    element.Pack("{ s:s, s:s, s:s }",           //
                 "id", objectName.c_str(),      //
                 "bucketname", bucket.c_str(),  //
                 "filename", localPath.c_str());
    return element.dumpAsString();
}

Aws::S3::S3Client makeS3Client(const std::shared_ptr<Aws::Auth::AWSCredentialsProvider>& provider,
                               const Aws::Client::ClientConfiguration& configuration) {
    return Aws::S3::S3Client(provider, configuration,
                             Aws::Client::AWSAuthV4Signer::PayloadSigningPolicy::Never, false);
}

}  // namespace

struct AwsWrapperImpl::Sdk {
    const char* allocationTag = kAllocationTag;
    int count = 10;
    const char* region = "eu-west-1";
    Aws::SDKOptions options;
    std::shared_ptr<Aws::Utils::RateLimits::DefaultRateLimiter<>> rateLimiter;
    std::string startTimestamp;  ///< local time

    Aws::Client::ClientConfiguration configurationFor(const char* service, const std::string& host,
                                                      const std::string& caPath) const;
};

struct AwsWrapperImpl::Upload {
    std::string objectName;
    std::string localPath;
    std::string bucket;
    std::string testModeFile;
    std::vector<OwnFiles::Identity> own;  ///< files to which the path may lead by now
    Aws::Client::ClientConfiguration configuration;
    Aws::Auth::AWSCredentials credentials;
    ClockCopy clock;
};

/// Within the time limits and the rate that all clients share.
Aws::Client::ClientConfiguration AwsWrapperImpl::Sdk::configurationFor(
    const char* service, const std::string& host, const std::string& caPath) const {
    Aws::Client::ClientConfiguration configuration;
    configuration.region = region;
    configuration.scheme = Aws::Http::Scheme::HTTPS;
    configuration.connectTimeoutMs = kTimeoutMs;
    configuration.requestTimeoutMs = kTimeoutMs;
    configuration.readRateLimiter = rateLimiter;
    configuration.writeRateLimiter = rateLimiter;
    configuration.retryStrategy = Aws::MakeShared<SkewRetryStrategy>(allocationTag);
    configuration.endpointOverride = endpointUrl(host).c_str();
    followNoRedirect(configuration);
    if (!caPath.empty()) {
        s_log.info("Set AWS ClientConfiguration caPath for ", service, " to ", caPath);
        configuration.caPath = caPath.c_str();
        configuration.caFile = ::getenv("CURL_CA_BUNDLE");  // set: the path was made from it
    }
    return configuration;
}

AwsWrapperImpl::AwsWrapperImpl() : m_sdk(std::make_unique<Sdk>()) {
    m_sdk->options.loggingOptions.logLevel = s_log.isVerbose() && mayWriteSdkLog(".")
                                                 ? Aws::Utils::Logging::LogLevel::Trace
                                                 : Aws::Utils::Logging::LogLevel::Off;
    m_sdk->options.loggingOptions.defaultLogPrefix = kLogPrefix;
    s_log.info("Initializing aws");
    // No metadata service is asked here, and bodies go out plain with their Content-MD5.
    ::setenv("AWS_EC2_METADATA_DISABLED", "true", 0);
    ::setenv("AWS_REQUEST_CHECKSUM_CALCULATION", "when_required", 0);
    Aws::InitAPI(m_sdk->options);
    dateRequestsBy(kivAppNow);
    m_sdk->startTimestamp =
        Aws::Utils::DateTime::CalculateLocalTimestampAsString("%Y%m%dt%H%M%Sz").c_str();
    m_sdk->rateLimiter = Aws::MakeShared<Aws::Utils::RateLimits::DefaultRateLimiter<>>(
        m_sdk->allocationTag, m_bytesPerSecond);
    m_bucketName = Config()->GetS3Bucket();
}

AwsWrapperImpl::~AwsWrapperImpl() {
    s_log.info("Closing aws");
    Aws::ShutdownAPI(m_sdk->options);
}

/// The SDK's log, in the working directory, shows the session token as it is: it is written only
/// where nobody but the daemon can read it.
bool AwsWrapperImpl::mayWriteSdkLog(const char* directory) {
    struct stat status = {};
    const bool isPrivate = ::stat(directory, &status) == 0 && status.st_uid == ::geteuid() &&
                           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
#ifndef KIV_AWSLITE  // which writes none
    if (!isPrivate) s_log.info("No aws_sdk_ log: others may enter the working directory");
#endif
    return isPrivate;
}

void AwsWrapperImpl::SetBucketName(std::string bucketName) {
    m_bucketName = std::move(bucketName);
}

std::string AwsWrapperImpl::GetBucketName() const {
    return m_bucketName;
}

std::string AwsWrapperImpl::GetCaPath() {
    const char* bundle = ::getenv("CURL_CA_BUNDLE");
    if (bundle == nullptr) return "";
    std::string copy = bundle;
    return ::dirname(copy.data());
}

void AwsWrapperImpl::SetTestMode(std::string path) {
    m_TestModeFile = std::move(path);
}

void AwsWrapperImpl::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool AwsWrapperImpl::GetVerbose() {
    return s_log.isVerbose();
}

/// Appends `text`, parsed, to the array `list` of the test-mode file; text that is not one JSON
/// value adds nothing. @return whether the file could be read and written
bool AwsWrapperImpl::appendToTestFile(const std::string& path, const char* list,
                                      const std::string& text) {
    if (!RegularFile(path).isRead()) return false;  // a pipe would hold the writer for good
    JsonObject file = JsonObject::loadFile(path);
    if (!file.isObject()) file = JsonObject::createObject();
    JsonObject elements = file.getObject(list);
    if (!elements.isArray()) {
        elements = JsonObject::createArray();
        file.set(list, elements);
    }
    const JsonObject element = JsonObject::parse(text);
    if (!element.isNull()) elements.append(element);
    return writeWhole(path, file.dumpAsString());
}

bool AwsWrapperImpl::UploadToKinesisFirehose(std::string record) {
    if (!m_TestModeFile.empty()) {
        const bool recorded = appendToTestFile(m_TestModeFile, "eventlog", record);
        if (!recorded) s_log.error("UploadToKinesisFirehose failed ");
        return recorded;
    }
    s_log.info("UploadToKinesisFirehose: ", record);
    const Config config;
    auto configuration =
        m_sdk->configurationFor("Firehose", config->GetFirehoseEndpoint(), GetCaPath());
    limitCall(configuration);
    const Aws::Firehose::FirehoseClient client(Aws::MakeShared<Credentials>(m_sdk->allocationTag),
                                               configuration);
    Aws::Firehose::Model::Record firehoseRecord;
    firehoseRecord.SetData(bytesOf(record));
    Aws::Firehose::Model::PutRecordRequest request;
    request.SetDeliveryStreamName(config->GetFirehoseStream().c_str());
    request.SetRecord(firehoseRecord);
    Status::asked(Status::Stream);
    const auto outcome = client.PutRecord(request);
    const bool named = outcome.IsSuccess() && !outcome.GetResult().GetRecordId().empty();
    if (named) {
        Status::succeeded(Status::Stream);
        return true;
    }
    Status::failed(Status::Stream,
                   outcome.IsSuccess() ? "the answer has no record id" : reasonOf(outcome));
    s_log.error("Failed sending packet to Firehose AWS");
    s_log.error("Error = ", reasonOf(outcome));
    if (outcome.IsSuccess()) {
        s_log.error("The answer has no record id: the packet counts as not sent");
    }
    return false;
}

bool AwsWrapperImpl::UploadFile(std::string objectName, std::string localPath) {
    const Upload upload = prepareUpload(objectName, localPath);
    Status::asked(Status::Objects);
    if (TimedChild::run([&upload] { return runUpload(upload); }, m_uploadLimitSeconds)) {
        Status::succeeded(Status::Objects);
        return true;
    }
    Status::failed(Status::Objects, "the daemon's lines on standard error say why");
    return false;
}

/// Everything that takes a lock is read here, before the fork.
AwsWrapperImpl::Upload AwsWrapperImpl::prepareUpload(const std::string& objectName,
                                                     const std::string& localPath) {
    Upload upload;
    upload.objectName = objectName;
    upload.localPath = localPath;
    upload.bucket = m_bucketName;
    upload.testModeFile = m_TestModeFile;
    if (!upload.testModeFile.empty()) return upload;
    upload.own = OwnFiles::identities();
    upload.configuration = m_sdk->configurationFor("S3", Config()->GetS3Endpoint(), GetCaPath());
    upload.credentials = Credentials().GetAWSCredentials();
    return upload;
}

/// The child's work, which asks none of the daemon's objects.
bool AwsWrapperImpl::runUpload(const Upload& upload) {
    try {
        if (!upload.testModeFile.empty()) {
            return appendToTestFile(
                upload.testModeFile, "files",
                fileElement(upload.objectName, upload.bucket, upload.localPath));
        }
        leaveSdkLog();
        dateRequestsBy(upload.clock);
        return putObject(upload);
    } catch (const std::exception& error) {
        s_log.error("Sending file ", ClassLog::foreign(upload.localPath),
                    " failed: ", error.what());
        return false;
    }
}

bool AwsWrapperImpl::putObject(const Upload& upload) {
    const auto body = Aws::MakeShared<std::stringstream>(kAllocationTag);
    const long long size = readFile(upload.localPath, upload.own, *body);
    if (size < 0) return false;
    Aws::S3::Model::PutObjectRequest request;
    request.SetBucket(upload.bucket.c_str());
    request.SetKey(upload.objectName.c_str());
    request.SetBody(body);
    request.SetContentLength(size);
    request.SetContentMD5(
        Aws::Utils::HashingUtils::Base64Encode(Aws::Utils::HashingUtils::CalculateMD5(*body)));
    request.SetContentType("text/plain");
    const auto client = makeS3Client(
        Aws::MakeShared<CredentialsCopy>(kAllocationTag, upload.credentials), upload.configuration);
    const auto outcome = client.PutObject(request);
    const bool named = outcome.IsSuccess() && !outcome.GetResult().GetETag().empty();
    if (named) return true;
    s_log.error("Failed sending file to S3 AWS");
    s_log.error("Error = ", reasonOf(outcome));
    if (outcome.IsSuccess()) s_log.error("The answer has no ETag: the file counts as not sent");
    return false;
}

bool AwsWrapperImpl::DownloadFile(std::string objectName, std::string localPath) {
    const bool downloaded = getObject(objectName, localPath);
    if (!downloaded) {
        ::unlink(localPath.c_str());
        return false;
    }
    s_log.info("File downloaded from S3 to location ", localPath);
    return true;
}

/// The file is sure to be complete only when this has returned.
bool AwsWrapperImpl::getObject(const std::string& objectName, const std::string& localPath) {
    if (!std::ofstream(localPath, std::ios::binary | std::ios::trunc)) {
        s_log.error("File download failed from s3 with error ", "cannot create ",
                    ClassLog::foreign(localPath), ": ", ClassLog::errnoText(errno));
        return false;
    }
    Aws::S3::Model::GetObjectRequest request;
    request.SetBucket(m_bucketName.c_str());
    request.SetKey(objectName.c_str());
    request.SetResponseStreamFactory([localPath] {
        // Readable too: an error document is read back from it.
        return Aws::New<std::fstream>(
            kAllocationTag, localPath,
            std::ios::in | std::ios::out | std::ios::binary | std::ios::trunc);
    });
    auto configuration = m_sdk->configurationFor("S3", Config()->GetS3Endpoint(), GetCaPath());
    limitCall(configuration);
    const auto client =
        makeS3Client(Aws::MakeShared<Credentials>(m_sdk->allocationTag), configuration);
    const auto outcome = client.GetObject(request);
    if (!outcome.IsSuccess()) {
        s_log.error("File download failed from s3 with error ", reasonOf(outcome));
    }
    return outcome.IsSuccess();
}
