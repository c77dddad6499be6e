#include "AwsWrapperImpl.h"

#include "Config.h"
#include "Credentials.h"
#include "DbgOut.h"
#include "Descriptor.h"
#include "JsonObject.h"
#include "TimeMgrImpl.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>
#include <vector>

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <aws/core/Aws.h>
#include <aws/core/auth/AWSCredentials.h>
#include <aws/core/auth/AWSCredentialsProvider.h>
#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/client/DefaultRetryStrategy.h>
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
#endif

std::string AwsWrapperImpl::m_TestModeFile;
unsigned int AwsWrapperImpl::m_uploadLimitSeconds = 300;

namespace {

constexpr char kTag[] = "kivAWSWrapper: ";
constexpr char kAllocationTag[] = "kivApp";
constexpr char kLogPrefix[] = "aws_sdk_";
constexpr long kTimeoutMs = 30000;  ///< to connect, and without any progress
constexpr std::int64_t kBytesPerSecond = 50000000;

std::atomic<bool> verbose{false};
std::atomic<int> uploadChild{-1};  ///< process id; -1: none. Read by the signal handler
static_assert(std::atomic<int>::is_always_lock_free, "read in a signal handler");

template <typename... Parts>
void logLine(const Parts&... parts) {
    if (verbose) ((coutdbg << kTag) << ... << parts) << std::endl;
}

template <typename... Parts>
void logError(const Parts&... parts) {
    ((cerrdbg << kTag) << ... << parts) << std::endl;
}

/// A line on standard error for the signal handler, which must neither allocate nor lock.
class SignalSafeLine {
  public:
    SignalSafeLine() {
        timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        add("[");
        add(static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000);
        add("](");
        add(static_cast<long long>(::getpid()));
        add(",");
        add(static_cast<long long>(::syscall(SYS_gettid)));
        add(") ");
        add(kTag);
    }

    void add(const char* text) {
        while (*text != '\0') addCharacter(*text++);
    }

    void add(long long number) {
        if (number < 0) addCharacter('-');
        char digits[24];
        int count = 0;
        do {
            const int digit = static_cast<int>(number % 10);
            digits[count++] = static_cast<char>('0' + (digit < 0 ? -digit : digit));
            number /= 10;
        } while (number != 0);
        while (count > 0) addCharacter(digits[--count]);
    }

    void write() {
        addCharacter('\n');
        const ssize_t written = ::write(STDERR_FILENO, m_text, m_length);
        static_cast<void>(written);  // nobody is left to tell
    }

  private:
    void addCharacter(char character) {
        if (m_length < sizeof m_text) m_text[m_length++] = character;
    }

    char m_text[160];
    std::size_t m_length = 0;
};

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

void unblockAlarmByDefault() {
    ::signal(SIGALRM, SIG_DFL);
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
}

/// The store, the queue and the sockets of the daemon are no business of the child.
void closeInheritedDescriptors() {
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0) == 0) return;
#endif
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = STDERR_FILENO + 1; fd < (limit < 0 ? 1024 : limit); ++fd) ::close(fd);
}

/// @return how many bytes were read; 0 at the end, negative, with errno, on failure
ssize_t readBlock(const Descriptor& file, std::vector<char>& buffer) {
    ssize_t count = 0;
    do {
        count = ::read(file.get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    return count;
}

/// Reads the file into memory. @return its size in bytes; -1, with an error line, on failure
long long readFile(const std::string& path, std::iostream& content) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        logError("could not open file ", path);
        return -1;
    }
    std::vector<char> buffer(65536);
    long long size = 0;
    for (ssize_t count = 0; (count = readBlock(file, buffer)) != 0; size += count) {
        if (count < 0) {
            logError("could not read file ", path, ": ", ::strerror(errno));
            return -1;
        }
        if (!content.write(buffer.data(), count)) {
            logError("could not hold file ", path, ": out of memory");
            return -1;
        }
    }
    return size;
}

bool writeWhole(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) logError("Cannot write test mode file ", path, ": ", ::strerror(errno));
    return static_cast<bool>(out);
}

std::string fileElement(const std::string& objectName, const std::string& bucket,
                        const std::string& localPath) {
    JsonObject element;
    element.Pack("{ s:s, s:s, s:s }", "id", objectName.c_str(), "bucketname", bucket.c_str(),
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
    Aws::Client::ClientConfiguration configuration;
    Aws::Auth::AWSCredentials credentials;
    ClockCopy clock;
};

/// One attempt, within the time limits and the rate that all clients share.
Aws::Client::ClientConfiguration AwsWrapperImpl::Sdk::configurationFor(
    const char* service, const std::string& host, const std::string& caPath) const {
    Aws::Client::ClientConfiguration configuration;
    configuration.region = region;
    configuration.scheme = Aws::Http::Scheme::HTTPS;
    configuration.connectTimeoutMs = kTimeoutMs;
    configuration.requestTimeoutMs = kTimeoutMs;
    configuration.readRateLimiter = rateLimiter;
    configuration.writeRateLimiter = rateLimiter;
    configuration.retryStrategy =
        Aws::MakeShared<Aws::Client::DefaultRetryStrategy>(allocationTag, 0);
    configuration.endpointOverride = endpointUrl(host).c_str();
    if (!caPath.empty()) {
        logLine("Set AWS ClientConfiguration caPath for ", service, " to ", caPath);
        configuration.caPath = caPath.c_str();
        configuration.caFile = ::getenv("CURL_CA_BUNDLE");  // set, or there were no path
    }
    return configuration;
}

AwsWrapperImpl::AwsWrapperImpl() : m_sdk(std::make_unique<Sdk>()) {
    m_sdk->options.loggingOptions.logLevel =
        verbose ? Aws::Utils::Logging::LogLevel::Trace : Aws::Utils::Logging::LogLevel::Off;
    m_sdk->options.loggingOptions.defaultLogPrefix = kLogPrefix;
    logLine("Initializing aws");
    // No metadata service is asked here, and bodies go out plain with their Content-MD5.
    ::setenv("AWS_EC2_METADATA_DISABLED", "true", 0);
    ::setenv("AWS_REQUEST_CHECKSUM_CALCULATION", "when_required", 0);
    Aws::InitAPI(m_sdk->options);
    dateRequestsBy(kivAppNow);
    m_sdk->startTimestamp =
        Aws::Utils::DateTime::CalculateLocalTimestampAsString("%Y%m%dt%H%M%Sz").c_str();
    m_sdk->rateLimiter = Aws::MakeShared<Aws::Utils::RateLimits::DefaultRateLimiter<>>(
        m_sdk->allocationTag, kBytesPerSecond);
    m_bucketName = Config()->GetS3Bucket();
}

AwsWrapperImpl::~AwsWrapperImpl() {
    logLine("Closing aws");
    Aws::ShutdownAPI(m_sdk->options);
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

void AwsWrapperImpl::SetVerbose(bool on) {
    verbose = on;
}

bool AwsWrapperImpl::GetVerbose() {
    return verbose;
}

/// Appends `text`, parsed, to the array `list` of the test-mode file; text that is not one JSON
/// value adds nothing. @return whether the file could be read and written
bool AwsWrapperImpl::appendToTestFile(const std::string& path, const char* list,
                                      const std::string& text) {
    if (!std::ifstream(path)) return false;
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
        if (!recorded) logError("UploadToKinesisFirehose failed ");
        return recorded;
    }
    logLine("UploadToKinesisFirehose: ", record);
    const Config config;
    const Aws::Firehose::FirehoseClient client(
        Aws::MakeShared<Credentials>(m_sdk->allocationTag),
        m_sdk->configurationFor("Firehose", config->GetFirehoseEndpoint(), GetCaPath()));
    Aws::Firehose::Model::Record firehoseRecord;
    firehoseRecord.SetData(bytesOf(record));
    Aws::Firehose::Model::PutRecordRequest request;
    request.SetDeliveryStreamName(config->GetFirehoseStream().c_str());
    request.SetRecord(firehoseRecord);
    const auto outcome = client.PutRecord(request);
    if (!outcome.IsSuccess()) {
        logError("Failed sending packet to Firehose AWS");
        logError("Error = ", outcome.GetError().GetMessage().c_str());
    }
    return outcome.IsSuccess();
}

bool AwsWrapperImpl::UploadFile(std::string objectName, std::string localPath) {
    const Upload upload = prepareUpload(objectName, localPath);
    std::cout.flush();  // or the child would write what waits in the buffer once more
    const pid_t child = ::fork();
    if (child < 0) {
        logError("Fork failed: ", ::strerror(errno));
        return false;
    }
    if (child == 0) endChild(runChild(upload));
    return waitForChild(child);
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
    upload.configuration = m_sdk->configurationFor("S3", Config()->GetS3Endpoint(), GetCaPath());
    upload.credentials = Credentials().GetAWSCredentials();
    return upload;
}

bool AwsWrapperImpl::waitForChild(int child) {
    uploadChild = child;
    logLine("Wait for child ", child);
    limitChild();
    int status = 0;
    pid_t ended = 0;
    do {
        ended =
            ::waitpid(child, &status, 0);  // goes on after the alarm: the killed child is reaped
    } while (ended < 0 && errno == EINTR);
    const int failure = errno;
    uploadChild = -1;  // first: its process id may already be another's
    ::alarm(0);
    if (ended != child) {
        logError("Error waiting for child ", child, ": ", ::strerror(failure));
        return false;
    }
    logLine("Child returns ", status);
    if (!WIFEXITED(status)) {
        logError("Child did not exit normally: status=", status);
        return false;
    }
    return WEXITSTATUS(status) != 0;
}

void AwsWrapperImpl::limitChild() {
    struct sigaction action = {};
    action.sa_handler = killTimedOutChild;
    ::sigemptyset(&action.sa_mask);
    ::sigaddset(&action.sa_mask, SIGALRM);
    ::sigaction(SIGALRM, &action, nullptr);
    ::alarm(m_uploadLimitSeconds);
}

/// The handler of SIGALRM. The signal is blocked in every thread but the main one, so that it
/// interrupts nothing but that thread's `pause`.
void AwsWrapperImpl::killTimedOutChild(int) {
    const int savedErrno = errno;
    const int child = uploadChild;
    SignalSafeLine line;
    line.add("Child Timeout expired! : kill pid");
    line.add(static_cast<long long>(child));
    line.write();
    if (child >= 0) ::kill(child, SIGKILL);
    errno = savedErrno;
}

/// The child's work. It is a copy of the daemon with this one thread: what another thread had
/// locked stays locked for ever, so nothing here asks the daemon's objects.
bool AwsWrapperImpl::runChild(const Upload& upload) {
    unblockAlarmByDefault();
    closeInheritedDescriptors();
    try {
        if (!upload.testModeFile.empty()) {
            return appendToTestFile(
                upload.testModeFile, "files",
                fileElement(upload.objectName, upload.bucket, upload.localPath));
        }
        dateRequestsBy(upload.clock);
        return putObject(upload);
    } catch (const std::exception& error) {
        logError("Sending file ", upload.localPath, " failed: ", error.what());
        return false;
    }
}

/// Leaves without destructors and exit handlers. 1 means uploaded, so that a child that fails
/// early, with status 0, is never taken for a success.
void AwsWrapperImpl::endChild(bool success) {
    logLine("Child process exits with ", success);
    ::_exit(success ? 1 : 0);
}

bool AwsWrapperImpl::putObject(const Upload& upload) {
    const auto body = Aws::MakeShared<std::stringstream>(kAllocationTag);
    const long long size = readFile(upload.localPath, *body);
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
    if (!outcome.IsSuccess()) {
        logError("Failed sending file to S3 AWS");
        logError("Error = ", outcome.GetError().GetMessage().c_str());
    }
    return outcome.IsSuccess();
}

bool AwsWrapperImpl::DownloadFile(std::string objectName, std::string localPath) {
    const bool downloaded = getObject(objectName, localPath);
    if (!downloaded) {
        ::unlink(localPath.c_str());
        return false;
    }
    logLine("File downloaded from S3 to location ", localPath);
    return true;
}

/// The file is sure to be complete only when this has returned.
bool AwsWrapperImpl::getObject(const std::string& objectName, const std::string& localPath) {
    if (!std::ofstream(localPath, std::ios::binary | std::ios::trunc)) {
        logError("File download failed from s3 with error ", "cannot create ", localPath, ": ",
                 ::strerror(errno));
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
    const auto client =
        makeS3Client(Aws::MakeShared<Credentials>(m_sdk->allocationTag),
                     m_sdk->configurationFor("S3", Config()->GetS3Endpoint(), GetCaPath()));
    const auto outcome = client.GetObject(request);
    if (!outcome.IsSuccess()) {
        logError("File download failed from s3 with error ",
                 outcome.GetError().GetMessage().c_str());
    }
    return outcome.IsSuccess();
}
