#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "FilesTable.h"

class ClassLog;

/// The announced files in memory that the store could not take at once, on their way to it.
///
/// They have the bounds of the store's own table: beyond 256 files or 256 KiB the oldest is
/// dropped, with a line. A name waits once. It does not decide when the store is asked, and does
/// not touch it itself. Owned by the gateway; what waits at its end is lost, as are its events.
///
/// Threads: any. Its mutex is a leaf; the store is asked without it. Errors: what the store's
/// function throws passes, and leaves everything as it was.
class WaitingFiles {
  public:
    using File = FilesTable::Announcement;
    using Outcome = FilesTable::Outcome;
    /// Registers a file in the store.
    using Register = std::function<Outcome(const File& file)>;

    /// `log` is the owner's, and must outlive it.
    explicit WaitingFiles(const ClassLog& log) : m_log(log) {}
    WaitingFiles(const WaitingFiles&) = delete;
    WaitingFiles& operator=(const WaitingFiles&) = delete;

    /// Adds a file after the others, unless its name waits already. One that the table would refuse
    /// must not come here.
    void add(File file);
    bool isEmpty() const;
    /// Has `registerFile` take the files in order, until one has to wait on. One that is refused
    /// gets a line. One line tells that the store begins to fail, and one that it works again.
    /// @return whether it took any; then their upload is to be asked for
    bool registerAll(const Register& registerFile);

  private:
    bool copyFront(File& file) const;
    void remove(const std::string& id);
    void setFailing(bool failing);

    const ClassLog& m_log;
    bool m_failing = false;  ///< the registering thread's alone
    mutable std::mutex m_mutex;
    std::deque<File> m_files;  ///< guarded by m_mutex
    std::size_t m_bytes = 0;   ///< of m_files; guarded by m_mutex
};
