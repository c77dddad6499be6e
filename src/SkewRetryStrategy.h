#pragma once

#include <aws/core/client/DefaultRetryStrategy.h>

/// Which failed cloud calls are made once more: only those that the service refused because the
/// set's clock is wrong, and those only once. The cloud's own SDK dates requests by the system
/// clock; it takes the right time from such a refusal, but needs a second attempt to use it. All
/// other failures are the callers' to repeat. The client in awslite/, which dates requests by the
/// application clock, never asks.
///
/// Stateless, owned by the configuration of one client. Any thread.
class SkewRetryStrategy : public Aws::Client::DefaultRetryStrategy {
  public:
    SkewRetryStrategy();

    bool ShouldRetry(const Aws::Client::AWSError<Aws::Client::CoreErrors>& error,
                     long attemptedRetries) const override;
    /// At once: it is not the service that needs the time.
    long CalculateDelayBeforeNextRetry(const Aws::Client::AWSError<Aws::Client::CoreErrors>& error,
                                       long attemptedRetries) const override;
};
