#pragma once

#include "support/ScriptedHttpServer.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include <aws/core/auth/AWSCredentialsProvider.h>
#include <aws/core/awslite.h>
#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/client/DefaultRetryStrategy.h>
#include <aws/core/utils/memory/AWSMemory.h>
#include <aws/core/utils/memory/stl/AWSStringStream.h>
#include <aws/firehose/FirehoseClient.h>
#include <aws/s3/S3Client.h>

/// What the tests of the cloud client have in common.
namespace awslite_test {

/// Gives the same credentials each time.
class FixedCredentials : public Aws::Auth::AWSCredentialsProvider {
  public:
    explicit FixedCredentials(Aws::Auth::AWSCredentials credentials)
        : m_credentials(std::move(credentials)) {}
    Aws::Auth::AWSCredentials GetAWSCredentials() override { return m_credentials; }

  private:
    Aws::Auth::AWSCredentials m_credentials;
};

inline std::shared_ptr<Aws::Auth::AWSCredentialsProvider> credentials(
    const std::string& token = "") {
    return Aws::MakeShared<FixedCredentials>(
        "test", Aws::Auth::AWSCredentials("AKIDTEST", "secret/Key+1", token));
}

/// Dates the requests during its life.
class RequestClockAt {
  public:
    explicit RequestClockAt(std::int64_t utcSeconds) {
        Aws::SetRequestClock([utcSeconds] {
            return std::chrono::system_clock::time_point(std::chrono::seconds(utcSeconds));
        });
    }
    ~RequestClockAt() { Aws::SetRequestClock(nullptr); }
    RequestClockAt(const RequestClockAt&) = delete;
    RequestClockAt& operator=(const RequestClockAt&) = delete;
};

inline Aws::Client::ClientConfiguration configurationFor(const std::string& endpoint) {
    Aws::Client::ClientConfiguration configuration;
    configuration.region = "eu-west-1";
    configuration.endpointOverride = endpoint;
    configuration.caFile = ScriptedHttpServer::caFile();
    configuration.connectTimeoutMs = 10000;
    configuration.requestTimeoutMs = 10000;
    return configuration;
}

inline Aws::Firehose::FirehoseClient firehose(const Aws::Client::ClientConfiguration& configuration,
                                              const std::string& token = "") {
    return Aws::Firehose::FirehoseClient(credentials(token), configuration);
}

inline Aws::S3::S3Client s3(const Aws::Client::ClientConfiguration& configuration,
                            const std::string& token = "") {
    return Aws::S3::S3Client(credentials(token), configuration,
                             Aws::Client::AWSAuthV4Signer::PayloadSigningPolicy::Never, false);
}

inline Aws::Firehose::Model::PutRecordRequest recordRequest(const std::string& text = "{}\n") {
    Aws::Firehose::Model::Record record;
    record.SetData(
        Aws::Utils::ByteBuffer(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
    Aws::Firehose::Model::PutRecordRequest request;
    request.SetDeliveryStreamName("kiv-stream");
    request.SetRecord(record);
    return request;
}

inline Aws::S3::Model::PutObjectRequest putRequest(const std::string& body,
                                                   const std::string& key = "key") {
    Aws::S3::Model::PutObjectRequest request;
    request.SetBucket("bucket");
    request.SetKey(key);
    request.SetBody(Aws::MakeShared<Aws::StringStream>("test", body));
    request.SetContentLength(static_cast<long long>(body.size()));
    return request;
}

inline Aws::S3::Model::GetObjectRequest getRequest(const std::string& key = "key") {
    Aws::S3::Model::GetObjectRequest request;
    request.SetBucket("bucket");
    request.SetKey(key);
    return request;
}

inline ScriptedHttpServer::Response answer(int status, const std::string& body) {
    ScriptedHttpServer::Response response;
    response.status = status;
    response.body = body;
    return response;
}

inline ScriptedHttpServer::Script always(const ScriptedHttpServer::Response& response) {
    return [response](const ScriptedHttpServer::Request&) { return response; };
}

template <typename Error>
int codeOf(const Error& error) {
    return static_cast<int>(error.GetResponseCode());
}

}  // namespace awslite_test
