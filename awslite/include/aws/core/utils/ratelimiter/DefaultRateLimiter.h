#pragma once

#include <aws/core/utils/ratelimiter/RateLimiterInterface.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace Aws {
namespace Utils {
namespace RateLimits {

/// Lets the budget of one DUR through at once and then `maxRate` a DUR: an account that fills
/// with time, never above `maxRate`, and that may be overdrawn; whoever finds it overdrawn waits
/// until it is even. RENORMALIZE_RATE_CHANGES scales the account with a changed rate.
///
/// One limiter may serve several clients and threads.
template <typename CLOCK = std::chrono::steady_clock, typename DUR = std::chrono::seconds,
          bool RENORMALIZE_RATE_CHANGES = true>
class DefaultRateLimiter : public RateLimiterInterface {
  public:
    using InternalTimePointType = std::chrono::time_point<CLOCK>;
    using ElapsedTimeFunctionType = std::function<InternalTimePointType()>;

    explicit DefaultRateLimiter(int64_t maxRate,
                                ElapsedTimeFunctionType elapsedTimeFunction = CLOCK::now)
        : m_now(std::move(elapsedTimeFunction)),
          m_rate(std::max<int64_t>(maxRate, 1)),
          m_account(m_rate),
          m_updated(m_now()) {}

    DelayType ApplyCost(int64_t cost) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        fill();
        const DelayType delay = m_account < 0 ? timeFor(-m_account) : DelayType(0);
        m_account -= cost;
        return delay;
    }

    void ApplyAndPayForCost(int64_t cost) override {
        const DelayType delay = ApplyCost(cost);
        if (delay.count() > 0) std::this_thread::sleep_for(delay);
    }

    void SetRate(int64_t rate, bool resetAccumulator = false) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        rate = std::max<int64_t>(rate, 1);
        fill();
        if (resetAccumulator) {
            m_account = rate;
        } else if (RENORMALIZE_RATE_CHANGES) {
            m_account =
                static_cast<int64_t>(static_cast<double>(m_account) * static_cast<double>(rate) /
                                     static_cast<double>(m_rate));
        }
        m_fraction = 0;
        m_rate = rate;
    }

  private:
    using Tick = typename InternalTimePointType::duration;
    static constexpr int64_t kTicksPerPeriod = std::chrono::duration_cast<Tick>(DUR(1)).count();
    static_assert(kTicksPerPeriod > 0, "the clock is too coarse for the period");

    /// Pays in what the time since the last call has earned. Whole periods and the rest are
    /// counted apart, so that a long pause does not overflow.
    void fill() {
        const InternalTimePointType now = m_now();
        const int64_t ticks = std::max<int64_t>((now - m_updated).count(), 0);
        m_updated = now;
        const int64_t periodsToFull = (m_rate - m_account) / m_rate + 1;
        const int64_t periods = std::min(ticks / kTicksPerPeriod, periodsToFull);
        const int64_t rest = ticks % kTicksPerPeriod * m_rate + m_fraction;
        m_account += periods * m_rate + rest / kTicksPerPeriod;
        m_fraction = rest % kTicksPerPeriod;
        if (m_account < m_rate) return;
        m_account = m_rate;
        m_fraction = 0;
    }

    DelayType timeFor(int64_t bytes) const {
        const int64_t millisPerPeriod = std::chrono::duration_cast<DelayType>(DUR(1)).count();
        return DelayType(bytes / m_rate * millisPerPeriod +
                         bytes % m_rate * millisPerPeriod / m_rate);
    }

    const ElapsedTimeFunctionType m_now;

    std::mutex m_mutex;  ///< guards everything below
    int64_t m_rate;
    int64_t m_account;       ///< bytes that may still go; negative when overdrawn
    int64_t m_fraction = 0;  ///< earned parts of a byte, in 1/kTicksPerPeriod
    InternalTimePointType m_updated;
};

}  // namespace RateLimits
}  // namespace Utils
}  // namespace Aws
