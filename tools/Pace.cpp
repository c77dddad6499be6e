#include "Pace.h"

#include <algorithm>
#include <thread>

namespace {

using SteadyClock = std::chrono::steady_clock;

/// A late wake-up by less than this does not slow the rate down.
constexpr std::chrono::milliseconds kSlack{20};

}  // namespace

Pace::Pace(const std::optional<double>& rate) {
    if (rate) m_interval = std::chrono::duration<double>(1.0 / *rate);
}

void Pace::waitForTurn() {
    std::this_thread::sleep_until(m_next);
    m_next = std::max(m_next, SteadyClock::now() - kSlack) +
             std::chrono::duration_cast<SteadyClock::duration>(m_interval);
}
