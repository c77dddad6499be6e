#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "Descriptor.h"
#include "LineLimit.h"
#include "WorkerThread.h"

class ClassLog;

/// Watches the time of the television's middleware, which writes UTC milliseconds as a decimal
/// number into a named pipe. A time that jumps against the kernel's is reported to the owner, who
/// judges and takes it: this class neither stores nor sets a time.
///
/// The thread lives from `setWatching(true)` to `setWatching(false)` or the end of the object. It
/// can be cancelled only while it waits in the pipe's open(2) or read(2), never while it handles a
/// message. All operations from any thread but the watcher itself; no lock is held while the report
/// is called. A pipe that cannot be made or opened gets an error line, and is tried again later.
class MiddlewareTime {
  public:
    /// Takes the previous time (0 before the first one) and the new one, in milliseconds as they
    /// were sent. Called on the watcher thread, which is not cancelled meanwhile; may throw
    /// nothing.
    using Report = std::function<void(long long previousTime, long long newTime)>;

    /// @param log of the owner, whose lines these are; must outlive the object
    MiddlewareTime(const ClassLog& log, Report report);
    ~MiddlewareTime();
    MiddlewareTime(const MiddlewareTime&) = delete;
    MiddlewareTime& operator=(const MiddlewareTime&) = delete;

    /// Starts or stops (cancels and joins) the watcher; once done, doing it again changes nothing.
    /// To be called without a lock that the report takes: the stop waits for a report's end.
    void setWatching(bool on);
    /// Starts the watcher where it is asked for and could not be started, without a line.
    /// @return whether none is missing
    bool startMissingThread();

  private:
    friend struct MiddlewareTimePeer;

    /// What the next message is compared with.
    struct Previous {
        long long time = 0;           ///< as the middleware sent it; 0 before the first message
        std::int64_t kernelTime = 0;  ///< of its arrival, or of the pipe's opening; milliseconds
    };

    int start();  ///< 0, or the errno for which there is no watcher
    void stop();
    void endPause(bool stops);
    int checkSystemTimeThread();
    void makePipe() const;
    Descriptor openPipe() const;
    void pauseBeforeReopening();
    void watchPipe(const Descriptor& pipe, std::string& buffer, Previous& previous);
    void handleMessage(const std::string& text, Previous& previous);
    void reportInvalid(const std::string& text);

    static std::string m_pipePath;  ///< set before a watcher is started

    const ClassLog& m_log;
    const Report m_report;
    LineLimit m_invalidLines;  ///< watcher only
    WorkerThread m_thread;
    bool m_isWanted = false;
    std::mutex m_threadMutex;        ///< guards m_thread (start, stop and join) and m_isWanted
    std::mutex m_wakeMutex;          ///< guards m_stops; a leaf
    std::condition_variable m_wake;  ///< signalled when m_stops rises
    bool m_stops = false;            ///< ends the watcher's pause between two openings
};
