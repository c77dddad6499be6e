#pragma once

#include "WaitingEvents.h"

#include <cstddef>
#include <mutex>

/// What `WaitingEvents` holds beside the queue.
struct WaitingEventsPeer {
    static std::size_t setAside(const WaitingEvents& waiting) { return waiting.m_setAside.size(); }

    /// Stored events that are not freed yet.
    static std::size_t storedInMemory(const WaitingEvents& waiting) {
        const std::lock_guard<std::mutex> lock(waiting.m_queueMutex);
        return waiting.m_stored.size();
    }
};
