#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "NetworkHelper.h"

/// What tests see of, and do to, the class-wide state of `NetworkHelper`.
struct NetworkHelperPeer {
    using Limits = NetworkHelper::Limits;

    static Limits& limits() { return NetworkHelper::m_limits; }

    /// Known network status, last asked at `pollTime` (monotonic ms, low 32 bits).
    static void setStatus(bool available, std::int32_t pollTime) {
        const std::lock_guard<std::mutex> lock(NetworkHelper::m_NetworkStatusLock);
        NetworkHelper::m_NetworkAvailable = available;
        NetworkHelper::m_TimeAtLastNetworkPoll = pollTime;
    }

    static bool available() {
        const std::lock_guard<std::mutex> lock(NetworkHelper::m_NetworkStatusLock);
        return NetworkHelper::m_NetworkAvailable;
    }

    static std::int32_t pollTime() {
        const std::lock_guard<std::mutex> lock(NetworkHelper::m_NetworkStatusLock);
        return NetworkHelper::m_TimeAtLastNetworkPoll;
    }

    static std::int32_t pollIntervalMs(const NetworkHelper& helper) {
        return helper.m_pollIntervalMs;
    }

    /// Whether the callback is still to be called.
    static bool callbackPending(const NetworkHelper& helper) { return helper.m_callbackPending; }

    /// The status for a callback of `IsNetworkAvailable`, around which the lock is held.
    static bool availableInCallback() { return NetworkHelper::m_NetworkAvailable; }
    static std::int32_t pollTimeInCallback() { return NetworkHelper::m_TimeAtLastNetworkPoll; }

    static void setMac(const std::string& mac) {
        const std::lock_guard<std::mutex> lock(NetworkHelper::m_MacLock);
        NetworkHelper::m_MacAddress = mac;
    }

    /// As at the start of the program.
    static void forget() {
        static const Limits original = NetworkHelper::m_limits;
        NetworkHelper::m_limits = original;
        NetworkHelper::SetVerbose(false);
        setStatus(false, 0);
        setMac("");
    }
};
