#pragma once

namespace Aws {
namespace Client {

enum class CoreErrors;
template <typename ERROR_TYPE>
class AWSError;

/// When to try a failed call again. The clients of the subset carry it but make one attempt a
/// call whatever it says: retrying is the caller's.
class RetryStrategy {
  public:
    virtual ~RetryStrategy();

    virtual bool ShouldRetry(const AWSError<CoreErrors>& error, long attemptedRetries) const = 0;
    /// In milliseconds.
    virtual long CalculateDelayBeforeNextRetry(const AWSError<CoreErrors>& error,
                                               long attemptedRetries) const = 0;
};

}  // namespace Client
}  // namespace Aws
