#pragma once

#include <mutex>
#include <utility>
#include <vector>

#include "UploadMessageQueue.h"

/// What waits in the queue, without waiting for it.
struct UploadMessageQueuePeer {
    using Messages = std::vector<std::pair<int, long>>;  ///< id and parameter

    static Messages waiting(UploadMessageQueue& queue) {
        const std::lock_guard<std::mutex> lock(queue.m_mutex);
        Messages messages;
        for (const auto& message : queue.m_messages)
            messages.emplace_back(message.id, message.param);
        return messages;
    }

    static Messages take(UploadMessageQueue& queue) {
        Messages messages = waiting(queue);
        const std::lock_guard<std::mutex> lock(queue.m_mutex);
        queue.m_messages.clear();
        return messages;
    }
};
