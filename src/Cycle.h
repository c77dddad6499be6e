#pragma once

#include <cstdint>

/// One running time of the set: its boot count and its standby count, as the tables keep them.
/// Counts are signed 32-bit numbers there on every host, as on a set: from 2^31 on they are
/// negative. A plain value.
struct Cycle {
    constexpr Cycle() = default;
    /// Wider counts are cut to 32 bits.
    constexpr Cycle(long long boot, long long standby)
        : bootCount(static_cast<std::int32_t>(boot)),
          standbyCount(static_cast<std::int32_t>(standby)) {}

    std::int32_t bootCount = 0;
    std::int32_t standbyCount = 0;
};

bool operator==(const Cycle& a, const Cycle& b);
bool operator!=(const Cycle& a, const Cycle& b);
/// In the order of the counts as numbers, the boot count first.
bool operator<(const Cycle& a, const Cycle& b);
