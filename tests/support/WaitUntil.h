#pragma once

#include <chrono>
#include <thread>

/// Polls `condition` until it holds or `limit` has passed; returns whether it held.
template <typename Condition>
bool WaitUntil(Condition condition,
               std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
