#pragma once

#include <aws/core/client/RetryStrategy.h>

namespace Aws {
namespace Client {

/// Retries what may be retried, `maxRetries` times; the delay is 0 at first, then `scaleFactor`
/// ms doubled with each attempt.
class DefaultRetryStrategy : public RetryStrategy {
  public:
    explicit DefaultRetryStrategy(long maxRetries = 10, long scaleFactor = 25)
        : m_maxRetries(maxRetries), m_scaleFactor(scaleFactor) {}

    bool ShouldRetry(const AWSError<CoreErrors>& error, long attemptedRetries) const override;
    long CalculateDelayBeforeNextRetry(const AWSError<CoreErrors>& error,
                                       long attemptedRetries) const override;

  private:
    long m_maxRetries;
    long m_scaleFactor;
};

}  // namespace Client
}  // namespace Aws
