#include "Patience.h"

#include "SignalHold.h"

#include <algorithm>

#include <stdio.h>

namespace {

using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

constexpr milliseconds kLongestSlice{100};

}  // namespace

Patience::Patience(double seconds, Status status, const SignalHold* signals)
    : m_seconds(seconds),
      m_deadline(SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                          std::chrono::duration<double>(seconds))),
      m_status(status),
      m_signals(signals) {}

milliseconds Patience::nextSlice(const std::string& complaint) const {
    if (m_signals != nullptr && m_signals->pending()) throw Failure(Status::System, "interrupted");
    const auto now = SteadyClock::now();
    if (now >= m_deadline) throw Failure(m_status, complaint + secondsText());
    return std::min(kLongestSlice, std::chrono::ceil<milliseconds>(m_deadline - now));
}

std::string Patience::secondsText() const {
    char text[40];
    snprintf(text, sizeof text, " within %g s", m_seconds);
    return m_status == Status::NoRoom ? text + std::string(" (is kivApp dead or busy?)") : text;
}
