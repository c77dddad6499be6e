#pragma once

#include <cstdint>
#include <mutex>

#include "RetryPause.h"

/// A pause that is over at once.
struct RetryPausePeer {
    /// As if so many milliseconds had passed.
    static void pass(RetryPause& pause, std::int64_t ms) {
        const std::lock_guard<std::mutex> lock(pause.m_mutex);
        pause.m_endKernelMs -= ms;
    }
};
