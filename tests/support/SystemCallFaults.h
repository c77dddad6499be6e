#pragma once

#include <atomic>

/// What the calls of message queues, semaphores and sleeping do while a test says so: they fail
/// with an error number, or hold. Everything else goes to the C library.
struct SystemCallFaults {
    static std::atomic<int> getAttributesError;
    static std::atomic<int> closeQueueError;  ///< the queue is closed all the same
    static std::atomic<int> closeSemaphoreError;
    static std::atomic<int> receiveError;
    static std::atomic<int> receiveFailures;  ///< how many receive calls still fail
    static std::atomic<bool> holdSleeps;
    static std::atomic<int> heldSleeps;             ///< sleeps held at this moment
    static std::atomic<unsigned int> longestSleep;  ///< microseconds asked for

    static void clear();
};
