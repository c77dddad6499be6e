#include <awslite/Errors.h>

#include <aws/firehose/FirehoseErrors.h>
#include <aws/s3/S3Errors.h>

#include <cstdlib>
#include <memory>

#include <jansson.h>

namespace Awslite {

namespace {

using Aws::Client::CoreErrors;
using Aws::Firehose::FirehoseErrors;
using Aws::Http::HttpResponseCode;
using Aws::S3::S3Errors;

struct JsonFree {
    void operator()(json_t* value) const { json_decref(value); }
};

struct KnownError {
    const char* name;
    int type;
    bool retryable;
};

/// The names of all services; each is known with "Exception" at its end too.
constexpr KnownError kCoreErrors[] = {
    {"AccessDenied", static_cast<int>(CoreErrors::ACCESS_DENIED), false},
    {"IncompleteSignature", static_cast<int>(CoreErrors::INCOMPLETE_SIGNATURE), false},
    {"InternalFailure", static_cast<int>(CoreErrors::INTERNAL_FAILURE), true},
    {"InternalServerError", static_cast<int>(CoreErrors::INTERNAL_FAILURE), true},
    {"InvalidAccessKeyId", static_cast<int>(CoreErrors::INVALID_ACCESS_KEY_ID), false},
    {"InvalidAction", static_cast<int>(CoreErrors::INVALID_ACTION), false},
    {"InvalidClientTokenId", static_cast<int>(CoreErrors::INVALID_CLIENT_TOKEN_ID), false},
    {"InvalidParameterCombination", static_cast<int>(CoreErrors::INVALID_PARAMETER_COMBINATION),
     false},
    {"InvalidParameterValue", static_cast<int>(CoreErrors::INVALID_PARAMETER_VALUE), false},
    {"InvalidQueryParameter", static_cast<int>(CoreErrors::INVALID_QUERY_PARAMETER), false},
    {"InvalidSignature", static_cast<int>(CoreErrors::INVALID_SIGNATURE), false},
    {"MalformedQueryString", static_cast<int>(CoreErrors::MALFORMED_QUERY_STRING), false},
    {"MissingAction", static_cast<int>(CoreErrors::MISSING_ACTION), false},
    {"MissingAuthenticationToken", static_cast<int>(CoreErrors::MISSING_AUTHENTICATION_TOKEN),
     false},
    {"MissingParameter", static_cast<int>(CoreErrors::MISSING_PARAMETER), false},
    {"OptInRequired", static_cast<int>(CoreErrors::OPT_IN_REQUIRED), false},
    {"RequestExpired", static_cast<int>(CoreErrors::REQUEST_EXPIRED), true},
    {"RequestThrottled", static_cast<int>(CoreErrors::THROTTLING), true},
    {"RequestTimeTooSkewed", static_cast<int>(CoreErrors::REQUEST_TIME_TOO_SKEWED), true},
    {"RequestTimeout", static_cast<int>(CoreErrors::REQUEST_TIMEOUT), true},
    {"ResourceNotFound", static_cast<int>(CoreErrors::RESOURCE_NOT_FOUND), false},
    {"ServiceUnavailable", static_cast<int>(CoreErrors::SERVICE_UNAVAILABLE), true},
    {"ServiceUnavailableError", static_cast<int>(CoreErrors::SERVICE_UNAVAILABLE), true},
    {"SignatureDoesNotMatch", static_cast<int>(CoreErrors::SIGNATURE_DOES_NOT_MATCH), false},
    {"SlowDown", static_cast<int>(CoreErrors::SLOW_DOWN), true},
    {"Throttled", static_cast<int>(CoreErrors::THROTTLING), true},
    {"Throttling", static_cast<int>(CoreErrors::THROTTLING), true},
    {"UnrecognizedClient", static_cast<int>(CoreErrors::UNRECOGNIZED_CLIENT), false},
    {"Validation", static_cast<int>(CoreErrors::VALIDATION), false},
    {"ValidationError", static_cast<int>(CoreErrors::VALIDATION), false},
};

constexpr KnownError kFirehoseErrors[] = {
    {"ConcurrentModificationException", static_cast<int>(FirehoseErrors::CONCURRENT_MODIFICATION),
     false},
    {"InvalidArgumentException", static_cast<int>(FirehoseErrors::INVALID_ARGUMENT), false},
    {"InvalidKMSResourceException", static_cast<int>(FirehoseErrors::INVALID_K_M_S_RESOURCE),
     false},
    {"InvalidSourceException", static_cast<int>(FirehoseErrors::INVALID_SOURCE), false},
    {"LimitExceededException", static_cast<int>(FirehoseErrors::LIMIT_EXCEEDED), true},
    {"ResourceInUseException", static_cast<int>(FirehoseErrors::RESOURCE_IN_USE), false},
};

constexpr KnownError kS3Errors[] = {
    {"BucketAlreadyExists", static_cast<int>(S3Errors::BUCKET_ALREADY_EXISTS), false},
    {"BucketAlreadyOwnedByYou", static_cast<int>(S3Errors::BUCKET_ALREADY_OWNED_BY_YOU), false},
    {"InvalidObjectState", static_cast<int>(S3Errors::INVALID_OBJECT_STATE), false},
    {"NoSuchBucket", static_cast<int>(S3Errors::NO_SUCH_BUCKET), false},
    {"NoSuchKey", static_cast<int>(S3Errors::NO_SUCH_KEY), false},
    {"NoSuchUpload", static_cast<int>(S3Errors::NO_SUCH_UPLOAD), false},
    {"ObjectAlreadyInActiveTierError", static_cast<int>(S3Errors::OBJECT_ALREADY_IN_ACTIVE_TIER),
     false},
    {"ObjectNotInActiveTierError", static_cast<int>(S3Errors::OBJECT_NOT_IN_ACTIVE_TIER), false},
};

template <size_t N>
const KnownError* find(const KnownError (&table)[N], const std::string& name) {
    for (const KnownError& known : table) {
        if (name == known.name) return &known;
    }
    return nullptr;
}

const KnownError* findCore(std::string name) {
    static const std::string suffix = "Exception";
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        name.erase(name.size() - suffix.size());
    }
    return find(kCoreErrors, name);
}

bool isRetryable(int status) {
    switch (static_cast<HttpResponseCode>(status)) {
        case HttpResponseCode::REQUEST_TIMEOUT:
        case HttpResponseCode::AUTHENTICATION_TIMEOUT:
        case HttpResponseCode::TOO_MANY_REQUESTS:
        case HttpResponseCode::LOGIN_TIMEOUT:
            return true;
        default:
            return status >= 500;
    }
}

CoreErrors guessByStatus(int status) {
    if (status == 401 || status == 403) return CoreErrors::ACCESS_DENIED;
    return status == 404 ? CoreErrors::RESOURCE_NOT_FOUND : CoreErrors::UNKNOWN;
}

CoreError withStatus(CoreError error, int status) {
    error.SetResponseCode(static_cast<HttpResponseCode>(status));
    return error;
}

CoreError unnamed(int status, const std::string& message) {
    return withStatus(CoreError(guessByStatus(status), "", message, isRetryable(status)), status);
}

/// The same for each protocol: the call did not get through, or the refusal is bare.
bool isPlainFailure(const HttpAnswer& answer, CoreError& error) {
    if (!answer.failure.empty()) {
        error = CoreError(CoreErrors::NETWORK_CONNECTION, "", answer.failure, true);
        return true;
    }
    if (answer.bodyBytes > 0) return false;
    error = unnamed(answer.status, "No response body.");
    return true;
}

/// "com.amazonaws.firehose#Name" and "Name:http://..." are both called Name.
std::string bareName(const std::string& type) {
    const size_t pound = type.find('#');
    return pound != std::string::npos ? type.substr(pound + 1) : type.substr(0, type.find(':'));
}

template <size_t N>
CoreError named(const KnownError (&serviceErrors)[N], const std::string& type,
                const std::string& message, int status) {
    const std::string name = bareName(type);
    const KnownError* known = find(serviceErrors, name);
    if (known == nullptr) known = findCore(name);
    if (known != nullptr) {
        return withStatus(
            CoreError(static_cast<CoreErrors>(known->type), name, message, known->retryable),
            status);
    }
    return withStatus(CoreError(CoreErrors::UNKNOWN, type,
                                "Unable to parse ExceptionName: " + type + " Message: " + message,
                                isRetryable(status)),
                      status);
}

std::string memberText(const json_t* object, const char* name) {
    const char* text = json_string_value(json_object_get(object, name));
    return text == nullptr ? "" : text;
}

std::string utf8(unsigned long point) {
    const auto tail = [point](int shift) {
        return static_cast<char>(0x80 | (point >> shift & 63));
    };
    if (point < 0x80) return {static_cast<char>(point)};
    if (point < 0x800) return {static_cast<char>(0xC0 | point >> 6), tail(0)};
    if (point < 0x10000) return {static_cast<char>(0xE0 | point >> 12), tail(6), tail(0)};
    return {static_cast<char>(0xF0 | point >> 18), tail(12), tail(6), tail(0)};
}

/// The text of "#65", "#x41", "amp" and the like; false for anything else.
bool decodeEntity(const std::string& entity, std::string& text) {
    static constexpr struct {
        const char* name;
        const char* text;
    } named[] = {{"amp", "&"}, {"lt", "<"}, {"gt", ">"}, {"quot", "\""}, {"apos", "'"}};
    for (const auto& one : named) {
        if (entity != one.name) continue;
        text = one.text;
        return true;
    }
    if (entity.size() < 2 || entity[0] != '#') return false;
    const bool hex = entity[1] == 'x';
    const char* digits = entity.c_str() + (hex ? 2 : 1);
    char* end = nullptr;
    const unsigned long point = std::strtoul(digits, &end, hex ? 16 : 10);
    if (end == digits || *end != '\0' || point == 0 || point > 0x10FFFF) return false;
    text = utf8(point);
    return true;
}

std::string decodeEntities(const std::string& raw) {
    static constexpr size_t longestEntity = 10;
    std::string text;
    size_t at = 0;
    while (at < raw.size()) {
        const size_t end = raw[at] == '&' ? raw.find(';', at) : std::string::npos;
        std::string decoded;
        if (end != std::string::npos && end - at <= longestEntity &&
            decodeEntity(raw.substr(at + 1, end - at - 1), decoded)) {
            text += decoded;
            at = end + 1;
        } else {
            text += raw[at++];
        }
    }
    return text;
}

}  // namespace

CoreError jsonError(const HttpAnswer& answer) {
    CoreError error;
    if (isPlainFailure(answer, error)) return error;
    json_error_t ignored;
    const std::unique_ptr<json_t, JsonFree> document(
        json_loadb(answer.body.data(), answer.body.size(), 0, &ignored));
    if (document == nullptr) return unnamed(answer.status, "Failed to parse error payload");
    std::string message = memberText(document.get(), "message");
    if (message.empty()) message = memberText(document.get(), "Message");
    std::string type = answer.errorType;
    if (type.empty()) type = memberText(document.get(), "__type");
    if (type.empty()) return unnamed(answer.status, message);
    return named(kFirehoseErrors, type, message, answer.status);
}

CoreError xmlError(const HttpAnswer& answer, const std::string& document) {
    CoreError error;
    if (isPlainFailure(answer, error)) return error;
    const std::string code = xmlElementText(document, "Code");
    if (code.empty()) return unnamed(answer.status, "");
    return named(kS3Errors, code, xmlElementText(document, "Message"), answer.status);
}

CoreError signingError() {
    return CoreError(CoreErrors::CLIENT_SIGNING_FAILURE, "", "SDK failed to sign the request",
                     false);
}

std::string xmlElementText(const std::string& document, const std::string& name) {
    static constexpr char blanks[] = " \t\r\n";
    const std::string open = '<' + name + '>';
    const size_t start = document.find(open);
    if (start == std::string::npos) return "";
    const size_t first = document.find_first_not_of(blanks, start + open.size());
    const size_t end = document.find("</" + name, start + open.size());
    if (end == std::string::npos || first >= end) return "";
    const size_t last = document.find_last_not_of(blanks, end - 1);
    return decodeEntities(document.substr(first, last - first + 1));
}

}  // namespace Awslite
