#include "PostingQueue.h"

#include "Failure.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>

namespace {

mqd_t openForWriting(const std::string& name) {
    const mqd_t descriptor = mq_open(name.c_str(), O_WRONLY | O_NONBLOCK);
    if (descriptor != -1) return descriptor;
    if (errno == ENOENT) {
        throw Failure(Status::NoQueue, name + ": no such queue (is kivApp running?)");
    }
    throw Failure::ofSystem(name, errno);
}

}  // namespace

PostingQueue::PostingQueue(const std::string& name)
    : m_name(name), m_descriptor(openForWriting(name)) {
    mq_attr attributes{};
    if (mq_getattr(m_descriptor, &attributes) != 0) {
        const int error = errno;
        mq_close(m_descriptor);  // no destructor runs after a constructor that throws
        throw Failure::ofSystem(name, error);
    }
    m_limit = static_cast<std::size_t>(attributes.mq_msgsize);
}

PostingQueue::~PostingQueue() {
    mq_close(m_descriptor);
}

void PostingQueue::checkSize(std::size_t size) const {
    if (size <= m_limit) return;
    throw Failure(Status::TooLarge, "message too large: " + std::to_string(size) +
                                        " bytes, the queue takes " + std::to_string(m_limit));
}

bool PostingQueue::offer(const std::string& text) const {
    if (mq_send(m_descriptor, text.data(), text.size(), 0) == 0) return true;
    if (errno != EAGAIN) throw Failure::ofSystem(m_name, errno);
    return false;
}

/// A Linux queue descriptor can be polled.
void PostingQueue::awaitRoom(std::optional<std::chrono::milliseconds> time) const {
    pollfd room{m_descriptor, POLLOUT, 0};
    if (poll(&room, 1, time ? static_cast<int>(time->count()) : -1) < 0 && errno != EINTR) {
        throw Failure::ofSystem(m_name, errno);
    }
}
