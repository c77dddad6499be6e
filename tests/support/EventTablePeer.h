#pragma once

#include <cstdint>

#include "EventTable.h"

/// What tests do to one `EventTable`.
struct EventTablePeer {
    static void setPruneSizes(EventTable& table, std::int32_t threshold, std::int32_t target) {
        table.m_pruneThreshold = threshold;
        table.m_pruneTarget = target;
    }
};
