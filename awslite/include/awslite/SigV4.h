#pragma once

#include <aws/core/auth/AWSCredentials.h>
#include <aws/core/utils/Array.h>
#include <awslite/HttpCall.h>

#include <chrono>
#include <optional>
#include <string>

namespace Awslite {

/// AWS signature version 4 in the header "authorization".
///
/// libcurl's own (CURLOPT_AWS_SIGV4) is not used: in the versions on our sets it neither signs the
/// caller's headers (content-md5, x-amz-target, the token) nor knows unsigned payloads.
class SigV4 {
  public:
    /// S3 signs the path as it goes out, the other services encode it once more.
    SigV4(std::string service, std::string region);

    /// Adds "x-amz-date", "x-amz-content-sha256", "x-amz-security-token" (with a session only)
    /// and "authorization". `payloadHash` is the body's SHA-256 in hexadecimal or
    /// "UNSIGNED-PAYLOAD". All other headers must be there already, "host" too.
    void sign(HttpRequest& request, const Aws::Auth::AWSCredentials& credentials,
              const std::string& payloadHash, std::chrono::system_clock::time_point now) const;

    /// The text whose hash is signed; the payload's hash is the header's.
    std::string canonicalRequest(const HttpRequest& request) const;

    /// The key of one day ("20301231"), region and service.
    static Aws::Utils::ByteBuffer signingKey(const std::string& secret, const std::string& day,
                                             const std::string& region, const std::string& service);

    /// ISO 8601 basic format in UTC: "20301231T235959Z".
    static std::string timestamp(std::chrono::system_clock::time_point moment);

  private:
    std::string m_service;
    std::string m_region;
};

/// Signs for the present of the request clock, unless the credentials are empty. False when a
/// header could not be sent as it is (a line break in a key).
bool signRequest(HttpRequest& request, const SigV4& signer,
                 const Aws::Auth::AWSCredentials& credentials, bool signPayload);

/// What the function given to `Aws::SetRequestClock` says; none without one.
std::optional<std::chrono::system_clock::time_point> requestClock();
/// The same, else the system clock.
std::chrono::system_clock::time_point requestNow();

}  // namespace Awslite
