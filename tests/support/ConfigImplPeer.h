#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "ConfigImpl.h"

/// Times and locks of the configuration that its interface does not give away.
struct ConfigImplPeer {
    static void setLastAttempt(ConfigImpl& config, std::int32_t utcSeconds) {
        config.m_lastAttempt = utcSeconds;
    }
    static void setUtcTime(ConfigImpl& config, std::int32_t utcSeconds) {
        config.m_values.utcTime = utcSeconds;
    }
    /// The monotonic stamp of the last attempt in milliseconds; -1: none.
    static std::int64_t& lastAttemptKernelMs(ConfigImpl& config) {
        return config.m_lastAttemptKernelMs;
    }
    /// As if the last reading of the stored file lay that long ago.
    static void letTimePass(ConfigImpl& config, std::int64_t milliseconds) {
        config.m_storedKernelMs = config.m_storedKernelMs - milliseconds;
    }
    static bool attemptIsTooRecent(ConfigImpl& config, std::int32_t now) {
        return config.attemptIsTooRecent(now);
    }
    static void scheduleRefresh(long long delayMs, bool force) {
        ConfigImpl::scheduleRefresh(delayMs, force);
    }
    static std::recursive_mutex& lock(ConfigImpl& config) { return config.m_lock; }
};
