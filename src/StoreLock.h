#pragma once

#include <string>

#include "Descriptor.h"

/// One daemon a store: a lock (flock) on the file "<store>.lock", in which the process that holds
/// it leaves its number.
///
/// It does not look at the store itself, and keeps nobody from it who does not ask. Made at the
/// start by `CKivApp`, which keeps it until the process ends; the kernel releases it then, however
/// that comes. The file stays. A child that runs a command does not have it, and the upload child
/// closes it first of all. For one thread. Errors are results; nothing is thrown.
class StoreLock {
  public:
    enum class State {
        Held,    ///< by this object
        Others,  ///< another process holds it; `text` says which
        None     ///< there can be no such file; `text` says why
    };

    /// Takes the lock. A process that was just killed, or a child of it, may hold it for a moment
    /// yet: it waits for it up to 2 s.
    /// @param store need not exist
    explicit StoreLock(const std::string& store);

    State state() const { return m_state; }
    /// "process 123", or what failed; "" while it is held
    const std::string& text() const { return m_text; }

    /// The file for a store, beside where links lead.
    static std::string nameFor(const std::string& store);

  private:
    void open(const std::string& path);
    void fail(const char* action, const std::string& path);
    std::string holder() const;
    void leaveNumber() const;

    Descriptor m_file;
    State m_state = State::None;
    std::string m_text;
};
