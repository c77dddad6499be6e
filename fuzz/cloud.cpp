// What the two cloud services answer: refusals in JSON and in XML, and good answers.
//
// Input: a line "<status> <error type> <ETag>", a line of four dashes, the body.

#include "AwsWrapperImpl.h"
#include "ClassLog.h"
#include "support/Fuzz.h"

#include <aws/core/utils/memory/AWSMemory.h>
#include <aws/core/utils/memory/stl/AWSStringStream.h>
#include <aws/firehose/FirehoseClient.h>
#include <aws/s3/S3Client.h>
#include <awslite/Errors.h>
#include <awslite/HttpCall.h>

#include <jansson.h>

#include <memory>
#include <sstream>
#include <string>

using Awslite::HttpAnswer;
using Awslite::HttpRequest;

static HttpAnswer s_answer;

/// Stands where the linker puts `Awslite::performRequest` (--wrap).
HttpAnswer
performInstead(const HttpRequest& request, const Aws::Client::ClientConfiguration& configuration) asm(
    "__wrap__ZN7Awslite14performRequestERKNS_11HttpRequestERKN3Aws6Client19ClientConfigurationE");

HttpAnswer performInstead(const HttpRequest& request,
                          const Aws::Client::ClientConfiguration& /*configuration*/) {
    fuzz::demand(Awslite::headersAreSound(request), "every header goes out as one line");
    HttpAnswer answer = s_answer;
    answer.bodyBytes = static_cast<std::int64_t>(answer.body.size());
    if (request.answerStream == nullptr) return answer;
    request.answerStream->write(answer.body.data(), static_cast<std::streamsize>(answer.bodyBytes));
    answer.body.clear();
    return answer;
}

namespace {

class NoCredentials : public Aws::Auth::AWSCredentialsProvider {
  public:
    Aws::Auth::AWSCredentials GetAWSCredentials() override { return {"AKID", "secret", "token"}; }
};

/// What a line may show of a text from outside.
void checkForeign(const std::string& outside) {
    const std::string shown = ClassLog::foreign(outside);
    fuzz::demand(shown.size() <= 256 * 4 + 40, "a line has its end", shown);
    for (const char character : shown) {
        const auto byte = static_cast<unsigned char>(character);
        fuzz::demand(byte >= 0x20 && byte != 0x7f, "a line has no control characters", shown);
    }
    json_t* const text = json_stringn(shown.data(), shown.size());
    fuzz::demand(text != nullptr, "a line is UTF-8", shown);
    json_decref(text);
}

template <typename Outcome>
void checkFailure(const Outcome& outcome) {
    const auto& error = outcome.GetError();
    checkForeign(error.GetMessage());
    checkForeign(error.GetExceptionName());
    fuzz::demand(
        error.GetMessage().size() <= s_answer.body.size() * 2 + s_answer.errorType.size() + 100,
        "a message is not longer than what was sent", error.GetMessage());
    fuzz::demand(static_cast<int>(error.GetResponseCode()) == s_answer.status,
                 "a refusal keeps its status", error.GetMessage());
}

bool isGood() {
    return s_answer.status >= 200 && s_answer.status <= 299;
}

std::shared_ptr<Aws::Auth::AWSCredentialsProvider> credentials() {
    return Aws::MakeShared<NoCredentials>("fuzz");
}

void checkPutRecord() {
    static const Aws::Firehose::FirehoseClient client(credentials(), {});
    Aws::Firehose::Model::Record record;
    static const unsigned char text[] = "{}\n";
    record.SetData(Aws::Utils::ByteBuffer(text, 3));
    Aws::Firehose::Model::PutRecordRequest request;
    request.SetDeliveryStreamName("stream");
    request.SetRecord(record);
    const auto outcome = client.PutRecord(request);
    fuzz::demand(!outcome.IsSuccess() || isGood(), "only a good status is a success");
    if (!outcome.IsSuccess()) return checkFailure(outcome);
    fuzz::demand(
        s_answer.body.find(outcome.GetResult().GetRecordId().substr(0, 1)) != std::string::npos ||
            outcome.GetResult().GetRecordId().empty(),
        "the record id is the service's");
}

void checkPutObject() {
    static const Aws::S3::S3Client client(
        credentials(), {}, Aws::Client::AWSAuthV4Signer::PayloadSigningPolicy::Never, false);
    Aws::S3::Model::PutObjectRequest request;
    request.SetBucket("bucket");
    request.SetKey("key");
    request.SetBody(Aws::MakeShared<Aws::StringStream>("fuzz", "text"));
    request.SetContentLength(4);
    const auto outcome = client.PutObject(request);
    fuzz::demand(outcome.IsSuccess() == isGood(), "a good status is a success");
    if (!outcome.IsSuccess()) return checkFailure(outcome);
    fuzz::demand(outcome.GetResult().GetETag() == s_answer.etag, "the ETag is the service's");
}

void checkGetObject() {
    static const Aws::S3::S3Client client(
        credentials(), {}, Aws::Client::AWSAuthV4Signer::PayloadSigningPolicy::Never, false);
    Aws::S3::Model::GetObjectRequest request;
    request.SetBucket("bucket");
    request.SetKey("key");
    auto outcome = client.GetObject(request);
    fuzz::demand(outcome.IsSuccess() == isGood(), "a good status is a success");
    if (!outcome.IsSuccess()) return checkFailure(outcome);
    std::ostringstream got;
    got << outcome.GetResult().GetBody().rdbuf();
    fuzz::demand(got.str() == s_answer.body, "an object comes back whole");
}

/// The daemon's own client: what counts as sent.
void checkWrapper() {
    AwsWrapperImpl& wrapper = fuzz::forever<AwsWrapperImpl>();
    fuzz::errorLines();
    const bool sent = wrapper.UploadToKinesisFirehose("{}\n");
    fuzz::demand(!sent || isGood(), "only a good status counts as sent");
    fuzz::demand(!sent || s_answer.body.find("RecordId") != std::string::npos ||
                     s_answer.body.find("\\u") != std::string::npos,
                 "and only what the service names", s_answer.body);
    fuzz::demand(sent == (fuzz::errorLines() == 0), "what is not sent has its line");
}

void checkElements() {
    for (const char* name : {"Code", "Message"}) {
        const std::string text = Awslite::xmlElementText(s_answer.body, name);
        fuzz::demand(text.size() <= s_answer.body.size(), "a text is not longer than its document");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::partsOf(data, size, 2);
    std::istringstream head(parts[0]);
    s_answer = HttpAnswer();
    head >> s_answer.status >> s_answer.errorType >> s_answer.etag;
    s_answer.body = parts[1];
    const fuzz::TimeBound bound(2);
    checkForeign(parts[1]);
    checkElements();
    checkPutRecord();
    checkPutObject();
    checkGetObject();
    checkWrapper();
    return 0;
}
