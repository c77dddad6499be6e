#include <aws/core/client/DefaultRetryStrategy.h>

#include <aws/core/client/AWSError.h>

#include <algorithm>

namespace Aws {
namespace Client {

RetryStrategy::~RetryStrategy() = default;

bool DefaultRetryStrategy::ShouldRetry(const AWSError<CoreErrors>& error,
                                       long attemptedRetries) const {
    return attemptedRetries < m_maxRetries && error.ShouldRetry();
}

long DefaultRetryStrategy::CalculateDelayBeforeNextRetry(const AWSError<CoreErrors>& /*error*/,
                                                         long attemptedRetries) const {
    if (attemptedRetries <= 0) return 0;
    return (1L << std::min(attemptedRetries, 16L)) * m_scaleFactor;
}

}  // namespace Client
}  // namespace Aws
