#pragma once

#include <aws/core/utils/memory/stl/AWSString.h>

#include <utility>

namespace Aws {
namespace Auth {

/// An access key, its secret and the token of a temporary session ("" for a lasting key).
class AWSCredentials {
  public:
    AWSCredentials() = default;
    AWSCredentials(String accessKeyId, String secretKey, String sessionToken = String())
        : m_accessKeyId(std::move(accessKeyId)),
          m_secretKey(std::move(secretKey)),
          m_sessionToken(std::move(sessionToken)) {}

    const String& GetAWSAccessKeyId() const { return m_accessKeyId; }
    const String& GetAWSSecretKey() const { return m_secretKey; }
    const String& GetSessionToken() const { return m_sessionToken; }
    /// Without a key or a secret a request goes out unsigned.
    bool IsEmpty() const { return m_accessKeyId.empty() || m_secretKey.empty(); }

  private:
    String m_accessKeyId;
    String m_secretKey;
    String m_sessionToken;
};

}  // namespace Auth
}  // namespace Aws
