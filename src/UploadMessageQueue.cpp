#include "UploadMessageQueue.h"

#include <algorithm>

bool UploadMessageQueue::push(const Message& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto isSame = [&](const Message& waiting) {
        return waiting.id == message.id && waiting.param == message.param;
    };
    if (std::any_of(m_messages.begin(), m_messages.end(), isSame)) return false;
    m_messages.push_back(message);
    m_arrived.notify_one();
    return true;
}

UploadMessageQueue::Message UploadMessageQueue::pop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_arrived.wait(lock, [this] { return !m_messages.empty(); });
    const Message front = m_messages.front();
    m_messages.pop_front();
    return front;
}
