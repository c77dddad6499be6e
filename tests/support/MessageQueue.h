#pragma once

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <string>

/// A name for a message queue or a semaphore that no other test and no other process has.
inline std::string uniqueName(const std::string& stem) {
    static std::atomic<int> count{0};
    return "/kivtest-" + stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
}

/// What happened before a message was sent happened before it was received: the kernel's word for
/// it, in terms that a sanitizer knows. Raised before a message is sent, read after one came.
inline std::atomic<int> messagesSent{0};

/// One end of a message queue.
class Queue {
  public:
    Queue(const std::string& name, int flags, mq_attr* attributes = nullptr)
        : m_queue(::mq_open(name.c_str(), flags, 0600, attributes)) {}
    ~Queue() {
        if (isOpen()) ::mq_close(m_queue);
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    bool isOpen() const { return m_queue != static_cast<mqd_t>(-1); }
    bool send(const std::string& message) const {
        ++messagesSent;
        return ::mq_send(m_queue, message.data(), message.size(), 0) == 0;
    }
    mode_t mode() const {
        struct stat facts {};
        return ::fstat(m_queue, &facts) == 0 ? facts.st_mode & 07777 : 0;
    }
    mq_attr attributes() const {
        mq_attr result{};
        ::mq_getattr(m_queue, &result);
        return result;
    }

  private:
    mqd_t m_queue;
};

/// Makes a queue that is not there yet. @return whether it was made
inline bool makeQueue(const std::string& name, long maxMessages, long messageSize) {
    mq_attr attributes{};
    attributes.mq_maxmsg = maxMessages;
    attributes.mq_msgsize = messageSize;
    return Queue(name, O_RDWR | O_CREAT | O_EXCL, &attributes).isOpen();
}

/// As long as it lives, the files that are created get the whole mode asked for.
class NoModeMask {
  public:
    NoModeMask() : m_before(::umask(0)) {}
    ~NoModeMask() { ::umask(m_before); }
    NoModeMask(const NoModeMask&) = delete;
    NoModeMask& operator=(const NoModeMask&) = delete;

  private:
    mode_t m_before;
};
