#include "SkewRetryStrategy.h"

#include <aws/core/client/AWSError.h>
#include <aws/core/client/CoreErrors.h>

using Aws::Client::AWSError;
using Aws::Client::CoreErrors;

namespace {

/// S3 names the reason; the services that speak JSON call the signature invalid, whatever is wrong
/// with it. Such an error may be tried again only when the SDK has found the skew in the answer's
/// date and corrected it: that is in the error, too.
bool isAboutTheClock(CoreErrors type) {
    switch (type) {
        case CoreErrors::REQUEST_TIME_TOO_SKEWED:
        case CoreErrors::REQUEST_EXPIRED:
        case CoreErrors::INVALID_SIGNATURE:
        case CoreErrors::SIGNATURE_DOES_NOT_MATCH:
            return true;
        default:
            return false;
    }
}

}  // namespace

SkewRetryStrategy::SkewRetryStrategy(std::chrono::milliseconds refusalLimit)
    : DefaultRetryStrategy(1),
      m_made(std::chrono::steady_clock::now()),
      m_refusalLimit(refusalLimit) {}

bool SkewRetryStrategy::ShouldRetry(const AWSError<CoreErrors>& error,
                                    long attemptedRetries) const {
    const auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - m_made);
    return isAboutTheClock(error.GetErrorType()) && taken < m_refusalLimit &&
           DefaultRetryStrategy::ShouldRetry(error, attemptedRetries);
}

long SkewRetryStrategy::CalculateDelayBeforeNextRetry(const AWSError<CoreErrors>& /*error*/,
                                                      long /*attemptedRetries*/) const {
    return 0;
}
