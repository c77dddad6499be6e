#pragma once

#include <cstdint>
#include <memory>
#include <string>

/// The cloud client: puts one record into the Firehose stream, puts one object into S3 from a
/// child process under a time limit, gets one object from S3. Each call builds its client from the
/// configuration and credentials of that moment and makes one attempt (`SkewRetryStrategy` allows
/// the one exception); the callers retry. What is put counts only when the service names it: by a
/// record id, by an ETag. The process and its limit are `TimedChild`'s.
///
/// Reached through `Singleton<AwsWrapperImpl>`; used on the upload thread only. Failures are
/// results and error lines. In test mode (a file is named) everything that would be sent is
/// written into that JSON file instead, which must exist.
class AwsWrapperImpl {
  public:
    AwsWrapperImpl();
    ~AwsWrapperImpl();
    AwsWrapperImpl(const AwsWrapperImpl&) = delete;
    AwsWrapperImpl& operator=(const AwsWrapperImpl&) = delete;

    /// Puts `record`, byte for byte, as one Firehose record. An attempt takes 120 s at most.
    bool UploadToKinesisFirehose(std::string record);
    /// Puts the file into the current bucket. Forks: blocks until the child ends, or is killed at
    /// the limit of 300 s.
    bool UploadFile(std::string objectName, std::string localPath);
    /// Gets the object from the current bucket into the file; on failure no file is left. An
    /// attempt takes 120 s at most.
    bool DownloadFile(std::string objectName, std::string localPath);

    void SetBucketName(std::string bucketName);
    std::string GetBucketName() const;
    /// The directory of the file named by "CURL_CA_BUNDLE"; "" when that is not set.
    std::string GetCaPath();

    /// Names the test-mode file; "" switches test mode off.
    static void SetTestMode(std::string path);
    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct AwsWrapperImplPeer;

    struct Sdk;     ///< the SDK's options, rate limiter and time stamp
    struct Upload;  ///< everything that the child needs, read before the fork

    static bool mayWriteSdkLog(const char* directory);
    Upload prepareUpload(const std::string& objectName, const std::string& localPath);
    static bool runUpload(const Upload& upload);
    static bool putObject(const Upload& upload);
    bool getObject(const std::string& objectName, const std::string& localPath);
    static bool appendToTestFile(const std::string& path, const char* list,
                                 const std::string& text);

    std::unique_ptr<Sdk> m_sdk;
    std::string m_bucketName;

    static std::string m_TestModeFile;
    static unsigned int m_uploadLimitSeconds;  ///< 300
    static std::int64_t m_bytesPerSecond;      ///< 50000000, of all clients together
};
