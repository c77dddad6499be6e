#pragma once

#include <aws/core/auth/AWSCredentials.h>

#include <chrono>

namespace Aws {
namespace Auth {

/// Where a client takes its credentials from, once a request, on the thread of the request.
class AWSCredentialsProvider {
  public:
    AWSCredentialsProvider() = default;
    AWSCredentialsProvider(const AWSCredentialsProvider&) = delete;
    AWSCredentialsProvider& operator=(const AWSCredentialsProvider&) = delete;
    virtual ~AWSCredentialsProvider();

    virtual AWSCredentials GetAWSCredentials() = 0;

  protected:
    /// Whether `reloadFrequencyMs` have passed since this said yes last; it says yes at first.
    virtual bool IsTimeToRefresh(long reloadFrequencyMs);

  private:
    std::chrono::steady_clock::time_point m_lastLoaded;
    bool m_loaded = false;
};

}  // namespace Auth
}  // namespace Aws
