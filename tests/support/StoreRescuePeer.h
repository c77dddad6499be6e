#pragma once

#include <chrono>
#include <mutex>

#include "StoreRescue.h"

/// What tests do to the memory of `StoreRescue`.
struct StoreRescuePeer {
    static void forgetAttempts() {
        auto& history = StoreRescue::history();
        const std::lock_guard<std::mutex> lock(history.mutex);
        history.times.clear();
    }
    /// As if every attempt so far lay that long ago.
    static void letTimePass(std::chrono::steady_clock::duration time) {
        auto& history = StoreRescue::history();
        const std::lock_guard<std::mutex> lock(history.mutex);
        for (auto& [file, times] : history.times) {
            if (times.tried) *times.tried -= time;
            if (times.replaced) *times.replaced -= time;
        }
    }
};
