#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include <mqueue.h>

/// A POSIX message queue open for writing. It neither makes the queue nor reads it.
///
/// Owns its descriptor; used by one thread. A refused call is a Failure of the status System, a
/// queue that does not exist one of NoQueue.
class PostingQueue {
  public:
    explicit PostingQueue(const std::string& name);
    ~PostingQueue();
    PostingQueue(const PostingQueue&) = delete;
    PostingQueue& operator=(const PostingQueue&) = delete;

    const std::string& name() const { return m_name; }
    std::size_t limit() const { return m_limit; }  ///< bytes of one message

    /// Fails with TooLarge when a message of `size` bytes does not fit.
    void checkSize(std::size_t size) const;

    /// Posts `text` if there is room; false when the queue is full.
    bool offer(const std::string& text) const;

    /// Waits until there may be room, or the time is over; without a time as long as it takes.
    void awaitRoom(std::optional<std::chrono::milliseconds> time) const;

  private:
    std::string m_name;
    mqd_t m_descriptor;
    std::size_t m_limit = 0;
};
