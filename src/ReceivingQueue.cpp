#include "ReceivingQueue.h"

#include "ClassLog.h"
#include "WorkerThread.h"

#include <chrono>
#include <utility>

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include <fcntl.h>

namespace {

constexpr mode_t kNewQueueMode = 0660;
constexpr std::chrono::milliseconds kRestAfterAnError(200);

}  // namespace

ReceivingQueue::ReceivingQueue(std::string name, const ClassLog& log)
    : m_name(std::move(name)), m_log(log) {
    open();
}

ReceivingQueue::~ReceivingQueue() {
    if (!isOpen()) return;
    unlinkName();
    closeDescriptor();
}

void ReceivingQueue::open() {
    m_queue = ::mq_open(m_name.c_str(), O_RDONLY);
    if (isOpen()) {
        m_log.info("mqueue already exists, reusing it...");
        return;
    }
    m_queue = ::mq_open(m_name.c_str(), O_RDONLY | O_CREAT, kNewQueueMode, nullptr);
    if (!isOpen()) reportFailed("mq_open");
}

void ReceivingQueue::unlinkName() const {
    m_log.info("Unlink mqueue ", m_name);
    if (::mq_unlink(m_name.c_str()) != 0) reportFailed("mq_unlink");
}

void ReceivingQueue::closeDescriptor() const {
    m_log.info("Close mqueue ", m_queue);
    if (::mq_close(m_queue) != 0) reportFailed("mq_close");
}

void ReceivingQueue::reportFailed(const char* call) const {
    std::perror((std::string(m_log.tag()) + call + " failed ").c_str());
}

bool ReceivingQueue::makeRoom() {
    mq_attr attributes{};
    if (::mq_getattr(m_queue, &attributes) != 0) {
        reportFailed("mq_getattr");
        return false;
    }
    if (m_log.isVerbose()) {
        std::printf("%s queue attributes are: flags:0x%x  maxmsg: %d  msgsize: %d  curmsgs: %d\n",
                    m_log.tag(), static_cast<unsigned int>(attributes.mq_flags),
                    static_cast<int>(attributes.mq_maxmsg), static_cast<int>(attributes.mq_msgsize),
                    static_cast<int>(attributes.mq_curmsgs));
    }
    m_buffer.resize(static_cast<std::size_t>(attributes.mq_msgsize) + 1);
    return true;
}

ssize_t ReceivingQueue::receiveWaiting() {
    const timespec longAgo{};
    return endText(
        ::mq_timedreceive(m_queue, m_buffer.data(), m_buffer.size() - 1, nullptr, &longAgo));
}

ssize_t ReceivingQueue::receiveNext() {
    ssize_t size = -1;
    int error = 0;
    {
        const WorkerThread::CancelPoint here;
        size = ::mq_receive(m_queue, m_buffer.data(), m_buffer.size() - 1, nullptr);
        error = errno;
    }
    if (size >= 0 || error == EINTR) return endText(size);
    m_log.error("mq_receive failed : ", ClassLog::errnoText(error));
    WorkerThread::sleep(kRestAfterAnError);
    return size;
}

ssize_t ReceivingQueue::endText(ssize_t size) {
    if (size >= 0) m_buffer[static_cast<std::size_t>(size)] = '\0';
    return size;
}
