#pragma once

#include <string>
#include <vector>

/// One thing that must work for events to arrive: whether it does, in words, and what to do when
/// it does not. A value.
struct Finding {
    enum class Level {
        Ok,
        Waits,  ///< does not work because of something else, which has a finding of its own
        Weak,   ///< works, but not as it should
        Broken
    };

    std::string subject;
    Level level = Level::Ok;
    std::string text;
    std::string mend;  ///< "" where there is nothing to do
};

using Findings = std::vector<Finding>;
