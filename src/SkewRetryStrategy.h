#pragma once

#include <chrono>

#include <aws/core/client/DefaultRetryStrategy.h>

/// Which failed cloud calls are made once more: only those that the service refused because the
/// set's clock is wrong, and those only once. The cloud's own SDK dates requests by the system
/// clock; it takes the right time from such a refusal, but needs a second attempt to use it. All
/// other failures are the callers' to repeat. The client in awslite/, which dates requests by the
/// application clock, never asks.
///
/// Made for one call and owned by the configuration of its client; it never changes. Any thread.
class SkewRetryStrategy : public Aws::Client::DefaultRetryStrategy {
  public:
    /// A refusal that comes `refusalLimit` or more after this is not answered by another attempt:
    /// both would keep the caller too long.
    explicit SkewRetryStrategy(
        std::chrono::milliseconds refusalLimit = std::chrono::milliseconds::max());

    bool ShouldRetry(const Aws::Client::AWSError<Aws::Client::CoreErrors>& error,
                     long attemptedRetries) const override;
    /// At once: it is not the service that needs the time.
    long CalculateDelayBeforeNextRetry(const Aws::Client::AWSError<Aws::Client::CoreErrors>& error,
                                       long attemptedRetries) const override;

  private:
    std::chrono::steady_clock::time_point m_made;
    std::chrono::milliseconds m_refusalLimit;
};
