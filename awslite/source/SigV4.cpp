#include <awslite/SigV4.h>

#include <aws/core/utils/DateTime.h>
#include <aws/core/utils/HashingUtils.h>

#include <utility>

namespace Awslite {

namespace {

using Aws::Utils::ByteBuffer;
using Aws::Utils::HashingUtils;

constexpr const char* kAlgorithm = "AWS4-HMAC-SHA256";

ByteBuffer bytesOf(const std::string& text) {
    return ByteBuffer(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

ByteBuffer hmac(const ByteBuffer& key, const std::string& text) {
    return HashingUtils::CalculateSHA256HMAC(bytesOf(text), key);
}

std::string sha256Hex(const std::string& text) {
    return HashingUtils::HexEncode(HashingUtils::CalculateSHA256(text));
}

/// Proxies may change the ones that are left out.
bool isSigned(const std::string& header) {
    return header != "accept" && header != "user-agent" && header != "authorization" &&
           header != "expect";
}

/// The value without the blanks around it; each run of blanks inside becomes one blank.
std::string canonicalValue(const std::string& value) {
    std::string canonical;
    bool gap = false;
    for (const char c : value) {
        if (c == ' ' || c == '\t') {
            gap = true;
            continue;
        }
        if (gap && !canonical.empty()) canonical += ' ';
        gap = false;
        canonical += c;
    }
    return canonical;
}

std::string signedNames(const HttpRequest& request) {
    std::string names;
    for (const auto& header : request.headers) {
        if (!isSigned(header.first)) continue;
        if (!names.empty()) names += ';';
        names += header.first;
    }
    return names;
}

std::string payloadHashOf(const HttpRequest& request) {
    if (request.bodyStream == nullptr) return sha256Hex(request.body);
    return HashingUtils::HexEncode(HashingUtils::CalculateSHA256(*request.bodyStream));
}

}  // namespace

SigV4::SigV4(std::string service, std::string region)
    : m_service(std::move(service)), m_region(std::move(region)) {}

std::string SigV4::timestamp(std::chrono::system_clock::time_point moment) {
    return Aws::Utils::DateTime(moment).ToGmtString("%Y%m%dT%H%M%SZ");
}

ByteBuffer SigV4::signingKey(const std::string& secret, const std::string& day,
                             const std::string& region, const std::string& service) {
    const ByteBuffer dayKey = hmac(bytesOf("AWS4" + secret), day);
    return hmac(hmac(hmac(dayKey, region), service), "aws4_request");
}

std::string SigV4::canonicalRequest(const HttpRequest& request) const {
    std::string text = request.method + '\n';
    text += m_service == "s3" ? request.path : encodePath(request.path);
    text += "\n\n";  // no query
    for (const auto& [name, value] : request.headers) {
        if (isSigned(name)) text += name + ':' + canonicalValue(value) + '\n';
    }
    text += '\n' + signedNames(request) + '\n';
    return text + request.headers.at("x-amz-content-sha256");
}

void SigV4::sign(HttpRequest& request, const Aws::Auth::AWSCredentials& credentials,
                 const std::string& payloadHash, std::chrono::system_clock::time_point now) const {
    const std::string time = timestamp(now);
    const std::string day = time.substr(0, 8);
    request.headers["x-amz-date"] = time;
    request.headers["x-amz-content-sha256"] = payloadHash;
    if (!credentials.GetSessionToken().empty()) {
        request.headers["x-amz-security-token"] = credentials.GetSessionToken();
    }
    const std::string scope = day + '/' + m_region + '/' + m_service + "/aws4_request";
    const std::string toSign = std::string(kAlgorithm) + '\n' + time + '\n' + scope + '\n' +
                               sha256Hex(canonicalRequest(request));
    const ByteBuffer key = signingKey(credentials.GetAWSSecretKey(), day, m_region, m_service);
    request.headers["authorization"] = std::string(kAlgorithm) +
                                       " Credential=" + credentials.GetAWSAccessKeyId() + '/' +
                                       scope + ", SignedHeaders=" + signedNames(request) +
                                       ", Signature=" + HashingUtils::HexEncode(hmac(key, toSign));
}

bool signRequest(HttpRequest& request, const SigV4& signer,
                 const Aws::Auth::AWSCredentials& credentials, bool signPayload) {
    if (!credentials.IsEmpty()) {
        const std::string hash = signPayload ? payloadHashOf(request) : "UNSIGNED-PAYLOAD";
        signer.sign(request, credentials, hash, requestNow());
    }
    return headersAreSound(request);
}

}  // namespace Awslite
