#include "SkewRetryStrategy.h"

#include <chrono>

#include <aws/core/client/AWSError.h>
#include <aws/core/client/CoreErrors.h>

#include <gtest/gtest.h>

namespace {

using Aws::Client::CoreErrors;
using Error = Aws::Client::AWSError<CoreErrors>;

constexpr CoreErrors kAboutTheClock[] = {CoreErrors::REQUEST_TIME_TOO_SKEWED,
                                         CoreErrors::REQUEST_EXPIRED, CoreErrors::INVALID_SIGNATURE,
                                         CoreErrors::SIGNATURE_DOES_NOT_MATCH};

/// A call that was refused for the set's wrong clock is made once more, at once.
TEST(SkewRetryStrategyTest, RepeatsACallThatWasRefusedForTheClock) {
    const SkewRetryStrategy strategy;
    for (const CoreErrors type : kAboutTheClock) {
        const Error skewed(type, "name", "message", true);
        EXPECT_TRUE(strategy.ShouldRetry(skewed, 0)) << static_cast<int>(type);
        EXPECT_EQ(strategy.CalculateDelayBeforeNextRetry(skewed, 0), 0);
    }
}

/// It is repeated once only.
TEST(SkewRetryStrategyTest, RepeatsItOnceOnly) {
    const SkewRetryStrategy strategy;
    for (const CoreErrors type : kAboutTheClock) {
        for (const long attempted : {1L, 2L, 10L}) {
            EXPECT_FALSE(strategy.ShouldRetry(Error(type, "name", "message", true), attempted));
        }
    }
}

/// A refusal that comes as late as the limit, or later, is not answered by another attempt.
TEST(SkewRetryStrategyTest, LeavesARefusalThatComesTooLate) {
    const SkewRetryStrategy late(std::chrono::milliseconds(0));
    const SkewRetryStrategy early(std::chrono::hours(1));
    for (const CoreErrors type : kAboutTheClock) {
        const Error skewed(type, "name", "message", true);
        EXPECT_FALSE(late.ShouldRetry(skewed, 0));
        EXPECT_TRUE(early.ShouldRetry(skewed, 0));
    }
}

/// A signature that is wrong for another reason is not tried again: the SDK marks as worth another
/// attempt only what a corrected clock may heal.
TEST(SkewRetryStrategyTest, DoesNotRepeatAWrongSignature) {
    const SkewRetryStrategy strategy;
    for (const CoreErrors type : kAboutTheClock) {
        EXPECT_FALSE(strategy.ShouldRetry(Error(type, "name", "message", false), 0));
    }
}

/// No other failure is repeated, whatever the SDK thinks of it: that is for the callers.
TEST(SkewRetryStrategyTest, LeavesAllOtherFailuresToTheCallers) {
    const SkewRetryStrategy strategy;
    for (const CoreErrors type :
         {CoreErrors::NETWORK_CONNECTION, CoreErrors::INTERNAL_FAILURE, CoreErrors::THROTTLING,
          CoreErrors::SERVICE_UNAVAILABLE, CoreErrors::SLOW_DOWN, CoreErrors::REQUEST_TIMEOUT,
          CoreErrors::ACCESS_DENIED, CoreErrors::UNKNOWN}) {
        EXPECT_FALSE(strategy.ShouldRetry(Error(type, "name", "message", true), 0))
            << static_cast<int>(type);
    }
}

}  // namespace
