#pragma once

#include <string>
#include <vector>

#include <mqueue.h>
#include <sys/types.h>

class ClassLog;

/// The receiving end of a POSIX message queue: opens the queue, or makes it, and at its end unlinks
/// its name and closes it.
///
/// It does not know what the messages say. It lives on the stack of the thread that receives, and
/// is used on no other; that thread can be cancelled in `receiveNext` only. Failures are results
/// and lines under the tag of its owner.
class ReceivingQueue {
  public:
    /// @param log the owner's lines; must outlive the queue
    ReceivingQueue(std::string name, const ClassLog& log);
    ~ReceivingQueue();
    ReceivingQueue(const ReceivingQueue&) = delete;
    ReceivingQueue& operator=(const ReceivingQueue&) = delete;

    bool isOpen() const { return m_queue != static_cast<mqd_t>(-1); }
    /// Asks how large a message can be and makes room for one; once, before the first is received.
    /// @return false, with its line, when the size cannot be had
    bool makeRoom();

    /// Takes a message that is there already, without waiting.
    /// @return its size in bytes, 0 for an empty message; -1 when there is none
    ssize_t receiveWaiting();
    /// Waits for a message. After an error, which gets its line (an interruption does not), it
    /// sleeps for 200 ms. @return as `receiveWaiting`; -1 after an error
    ssize_t receiveNext();
    /// The message received last, up to its first NUL.
    const char* text() const { return m_buffer.data(); }

  private:
    void open();
    void unlinkName() const;
    void closeDescriptor() const;
    void reportFailed(const char* call) const;  ///< with the reason in errno
    ssize_t endText(ssize_t size);              ///< puts the NUL after a received message

    std::string m_name;
    const ClassLog& m_log;
    mqd_t m_queue = static_cast<mqd_t>(-1);
    std::vector<char> m_buffer;  ///< the largest message and a NUL
};
