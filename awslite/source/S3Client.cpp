#include <aws/s3/S3Client.h>

#include <awslite/Errors.h>
#include <awslite/SigV4.h>

#include <aws/core/utils/memory/stl/AWSStringStream.h>

#include <utility>

namespace Aws {
namespace S3 {

namespace {

using Awslite::HttpAnswer;
using Awslite::HttpRequest;
using Client::ClientConfiguration;
using Model::GetObjectOutcome;
using Model::GetObjectResult;
using Model::PutObjectOutcome;
using Model::PutObjectResult;
using Policy = Client::AWSAuthV4Signer::PayloadSigningPolicy;

constexpr size_t kMaxDocumentBytes = 1U << 16;

/// A bucket and a key that name an object; without them a call would mean something else.
template <typename Request>
bool lacksField(const Request& request, S3Error& error) {
    if (!request.GetBucket().empty() && !request.GetKey().empty()) return false;
    error = S3Error(
        S3Errors::MISSING_PARAMETER, "MISSING_PARAMETER",
        String("Missing required field [") + (request.GetBucket().empty() ? "Bucket" : "Key") + "]",
        false);
    return true;
}

bool canBeHostName(const String& bucket) {
    return bucket.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") == String::npos &&
           bucket.front() != '-' && bucket.back() != '-';
}

template <typename Request>
HttpRequest compose(const char* method, const Request& request,
                    const ClientConfiguration& configuration, bool virtualAddressing) {
    HttpRequest http;
    http.method = method;
    Awslite::addressRequest(http, configuration, "s3." + configuration.region + ".amazonaws.com");
    if (virtualAddressing && canBeHostName(request.GetBucket())) {
        http.host = request.GetBucket() + '.' + http.host;
    } else {
        http.path += '/' + Awslite::encodePath(request.GetBucket());
    }
    http.path += '/' + Awslite::encodePath(request.GetKey());
    http.headers["host"] = http.host;
    return http;
}

long long lengthOf(IOStream& body) {
    body.clear();
    body.seekg(0, std::ios::end);
    return static_cast<long long>(body.tellg());
}

/// False when the length of the body cannot be told.
bool addBody(HttpRequest& http, const Model::PutObjectRequest& request) {
    http.bodyStream = request.GetBody().get();
    http.bodySize = request.GetContentLength();
    if (http.bodySize < 0) {
        http.bodySize = http.bodyStream == nullptr ? 0 : lengthOf(*http.bodyStream);
    }
    if (http.bodySize < 0 || (http.bodyStream == nullptr && http.bodySize > 0)) return false;
    http.expectContinue = true;
    http.headers["content-length"] = std::to_string(http.bodySize);
    if (!request.GetContentMD5().empty()) http.headers["content-md5"] = request.GetContentMD5();
    if (!request.GetContentType().empty()) http.headers["content-type"] = request.GetContentType();
    return true;
}

/// Over a transport that protects it the payload may go unsigned.
bool signsPayload(const HttpRequest& http, Policy policy) {
    return policy != Policy::Never || http.scheme != "https";
}

/// The document of a refusal, at most 64 KiB of it; "" when the stream cannot be read.
String readBack(IOStream& stream) {
    String document(kMaxDocumentBytes, '\0');
    stream.clear();
    stream.seekg(0, std::ios::beg);
    stream.read(&document[0], static_cast<std::streamsize>(document.size()));
    document.resize(static_cast<size_t>(stream.gcount()));
    return document;
}

/// Null when the factory gives no stream. The stream does not throw: its failures are told in the
/// outcome.
std::unique_ptr<IOStream> makeStream(const IOStreamFactory& factory) {
    std::unique_ptr<IOStream> stream;
    if (factory) {
        stream.reset(factory());
    } else {
        stream = std::make_unique<StringStream>();
    }
    if (stream != nullptr) stream->exceptions(std::ios::goodbit);
    return stream;
}

/// Puts the reading end at the beginning, for the one who takes the result.
void rewind(IOStream& stream) {
    stream.seekg(0, std::ios::beg);
    stream.clear();
}

}  // namespace

S3Client::S3Client(const std::shared_ptr<Auth::AWSCredentialsProvider>& credentialsProvider,
                   const ClientConfiguration& clientConfiguration, Policy signPayloads,
                   bool useVirtualAddressing)
    : m_credentialsProvider(credentialsProvider),
      m_configuration(clientConfiguration),
      m_signPayloads(signPayloads),
      m_useVirtualAddressing(useVirtualAddressing) {}

PutObjectOutcome S3Client::PutObject(const Model::PutObjectRequest& request) const {
    S3Error error;
    if (lacksField(request, error)) return PutObjectOutcome(error);
    HttpRequest http = compose("PUT", request, m_configuration, m_useVirtualAddressing);
    if (!addBody(http, request)) {
        return PutObjectOutcome(S3Error(S3Errors::MISSING_PARAMETER, "MISSING_PARAMETER",
                                        "The length of the body is not known", false));
    }
    const Awslite::SigV4 signer("s3", m_configuration.region);
    if (!Awslite::signRequest(http, signer, m_credentialsProvider->GetAWSCredentials(),
                              signsPayload(http, m_signPayloads))) {
        return PutObjectOutcome(S3Error(Awslite::signingError()));
    }
    const HttpAnswer answer = Awslite::performRequest(http, m_configuration);
    if (!answer.succeeded()) return PutObjectOutcome(Awslite::xmlError(answer, answer.body));
    PutObjectResult result;
    result.SetETag(answer.etag);
    return PutObjectOutcome(std::move(result));
}

GetObjectOutcome S3Client::GetObject(const Model::GetObjectRequest& request) const {
    S3Error error;
    if (lacksField(request, error)) return GetObjectOutcome(error);
    HttpRequest http = compose("GET", request, m_configuration, m_useVirtualAddressing);
    const Awslite::SigV4 signer("s3", m_configuration.region);
    if (!Awslite::signRequest(http, signer, m_credentialsProvider->GetAWSCredentials(),
                              signsPayload(http, m_signPayloads))) {
        return GetObjectOutcome(S3Error(Awslite::signingError()));
    }
    std::unique_ptr<IOStream> stream = makeStream(request.GetResponseStreamFactory());
    if (stream == nullptr) {
        return GetObjectOutcome(S3Error(S3Errors::MISSING_PARAMETER, "MISSING_PARAMETER",
                                        "The response stream factory gave no stream", false));
    }
    http.answerStream = stream.get();
    const HttpAnswer answer = Awslite::performRequest(http, m_configuration);
    if (!answer.succeeded()) return GetObjectOutcome(Awslite::xmlError(answer, readBack(*stream)));
    rewind(*stream);
    return GetObjectOutcome(GetObjectResult(std::move(stream)));
}

}  // namespace S3
}  // namespace Aws
