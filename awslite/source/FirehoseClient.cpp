#include <aws/firehose/FirehoseClient.h>

#include <aws/core/utils/HashingUtils.h>

#include <awslite/Errors.h>
#include <awslite/SigV4.h>

#include <cstdlib>
#include <memory>

#include <jansson.h>

namespace Aws {
namespace Firehose {

namespace {

using Model::PutRecordOutcome;
using Model::PutRecordRequest;
using Model::PutRecordResult;

struct JsonFree {
    void operator()(json_t* value) const { json_decref(value); }
    void operator()(char* text) const { std::free(text); }  // NOLINT: made by jansson's malloc
};
using Json = std::unique_ptr<json_t, JsonFree>;

Awslite::HttpRequest compose(const PutRecordRequest& request,
                             const Client::ClientConfiguration& configuration) {
    Awslite::HttpRequest http;
    http.method = "POST";
    Awslite::addressRequest(http, configuration,
                            "firehose." + configuration.region + ".amazonaws.com");
    http.path += '/';
    http.body = request.SerializePayload();
    http.bodySize = static_cast<std::int64_t>(http.body.size());
    http.headers = {{"host", http.host},
                    {"content-type", "application/x-amz-json-1.1"},
                    {"content-length", std::to_string(http.bodySize)},
                    {"x-amz-target", "Firehose_20150804.PutRecord"}};
    return http;
}

PutRecordOutcome readAnswer(const Awslite::HttpAnswer& answer) {
    PutRecordResult result;
    if (answer.body.empty()) return PutRecordOutcome(std::move(result));
    json_error_t problem;
    const Json document(json_loadb(answer.body.data(), answer.body.size(), 0, &problem));
    if (document == nullptr) {
        Awslite::CoreError error(Client::CoreErrors::UNKNOWN, "Json Parser Error", problem.text,
                                 false);
        error.SetResponseCode(static_cast<Http::HttpResponseCode>(answer.status));
        return PutRecordOutcome(FirehoseError(error));
    }
    const char* recordId = json_string_value(json_object_get(document.get(), "RecordId"));
    if (recordId != nullptr) result.SetRecordId(recordId);
    return PutRecordOutcome(std::move(result));
}

}  // namespace

String Model::PutRecordRequest::SerializePayload() const {
    const Json name(json_stringn(m_deliveryStreamName.data(), m_deliveryStreamName.size()));
    if (name == nullptr) return String();
    const std::unique_ptr<char, JsonFree> quoted(json_dumps(name.get(), JSON_ENCODE_ANY));
    if (quoted == nullptr) return String();
    return String("{\"DeliveryStreamName\":") + quoted.get() + ",\"Record\":{\"Data\":\"" +
           Utils::HashingUtils::Base64Encode(m_record.GetData()) + "\"}}";
}

FirehoseClient::FirehoseClient(
    const std::shared_ptr<Auth::AWSCredentialsProvider>& credentialsProvider,
    const Client::ClientConfiguration& clientConfiguration)
    : m_credentialsProvider(credentialsProvider), m_configuration(clientConfiguration) {}

PutRecordOutcome FirehoseClient::PutRecord(const PutRecordRequest& request) const {
    Awslite::HttpRequest http = compose(request, m_configuration);
    const Awslite::SigV4 signer("firehose", m_configuration.region);
    if (!Awslite::signRequest(http, signer, m_credentialsProvider->GetAWSCredentials(), true)) {
        return PutRecordOutcome(FirehoseError(Awslite::signingError()));
    }
    const Awslite::HttpAnswer answer = Awslite::performRequest(http, m_configuration);
    if (!answer.succeeded()) return PutRecordOutcome(FirehoseError(Awslite::jsonError(answer)));
    return readAnswer(answer);
}

}  // namespace Firehose
}  // namespace Aws
