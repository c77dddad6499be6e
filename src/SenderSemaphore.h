#pragma once

#include <string>

#include <semaphore.h>

class ClassLog;

/// The named POSIX semaphore on which the sender of a message waits.
///
/// Its name comes from another process, and what stands under that name may be anything: the C
/// library maps an empty file and dies at the first access, and dies of one that holds garbage. So
/// the file is looked at before it is opened (a regular file, not a link, of the size of a
/// semaphore), and its fields before it is posted. It does not help against a process that makes
/// the file shorter in that very moment.
///
/// Lives on the stack of the thread that posts. Failures are lines under the tag of its owner.
class SenderSemaphore {
  public:
    /// Opens it. @param log the owner's lines; must outlive the semaphore
    SenderSemaphore(std::string name, const ClassLog& log);
    ~SenderSemaphore();
    SenderSemaphore(const SenderSemaphore&) = delete;
    SenderSemaphore& operator=(const SenderSemaphore&) = delete;

    /// Nothing where it could not be opened.
    void post();

  private:
    void open();
    void close();
    void report(const char* what, const std::string& why) const;

    std::string m_name;
    const ClassLog& m_log;
    sem_t* m_semaphore = SEM_FAILED;
};
