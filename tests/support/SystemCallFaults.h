#pragma once

#include <atomic>
#include <vector>

/// What the calls of message queues, semaphores and sleeping do while a test says so: they fail
/// with an error number, hold, or are short. Everything else goes to the C library.
struct SystemCallFaults {
    static std::atomic<int> getAttributesError;
    static std::atomic<int> closeQueueError;  ///< the queue is closed all the same
    static std::atomic<int> closeSemaphoreError;
    static std::atomic<int> receiveError;
    static std::atomic<int> receiveFailures;  ///< how many receive calls still fail
    static std::atomic<int> receives;         ///< how many messages were waited for
    /// Receive calls find a message: they wait for one first, also those that do not wait else.
    static std::atomic<bool> waitForMessages;
    static std::atomic<bool> holdSleeps;
    static std::atomic<int> heldSleeps;             ///< sleeps held at this moment
    static std::atomic<bool> shortenSleeps;         ///< to a millisecond
    static std::atomic<unsigned int> longestSleep;  ///< microseconds asked for
    static std::atomic<int> sleeps;                 ///< how many were asked for
    static std::atomic<int> sleepsBelowAMillisecond;
    static std::atomic<int> heapTrims;  ///< how often free memory went back to the system

    /// The sleeps asked for since they were forgotten, microseconds each.
    static std::vector<unsigned int> sleepsAsked();
    static void forgetSleeps();

    static void clear();
};
