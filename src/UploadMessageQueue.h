#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>

/// The first-in-first-out queue that feeds the upload thread; equal messages that wait are one.
class UploadMessageQueue {
  public:
    struct Message {
        int id;
        long param;
    };

    /// Appends the message unless an equal one waits. @return whether it was appended.
    bool push(const Message& message);
    /// Waits for the front message and takes it off.
    Message pop();

  private:
    friend struct UploadMessageQueuePeer;

    std::mutex m_mutex;  ///< guards m_messages; never held while a job runs
    std::condition_variable m_arrived;
    std::deque<Message> m_messages;
};
