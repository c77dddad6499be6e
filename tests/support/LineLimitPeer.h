#pragma once

#include <cstdint>

#include "LineLimit.h"

/// What was written, as if it were longer ago.
struct LineLimitPeer {
    static void pass(LineLimit& limit, std::int64_t ms) {
        for (auto& entry : limit.m_written) entry.second -= ms;
    }
};
