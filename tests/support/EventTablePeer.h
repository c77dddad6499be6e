#pragma once

#include <chrono>

#include <cstdint>

#include "EventTable.h"

/// What tests do to one `EventTable`.
struct EventTablePeer {
    static void setPruneSizes(EventTable& table, std::int32_t threshold, std::int32_t target) {
        table.m_pruneThreshold = threshold;
        table.m_pruneTarget = target;
    }
    /// When another process's lock began to hold batches up.
    static void setBusySince(EventTable& table, std::chrono::steady_clock::time_point since) {
        table.m_busySince = since;
    }
};
