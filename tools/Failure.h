#pragma once

#include "kivevent.hpp"

#include <stdexcept>
#include <string>

/// The exit statuses of kivsend, as --help lists them.
enum class Status : int {
    Sent = 0,
    Usage = 1,
    BadJson = 2,
    NoQueue = 3,
    TooLarge = 4,
    QueueFull = 5,
    SyncTimeOut = 6,
    System = 7,
    NoRoom = 8,
    Denied = 9,
    Unstorable = 10,
};

/// What kept one event, or the whole run, from being sent: the text for the user and the exit
/// status. It writes nothing itself.
class Failure : public std::runtime_error {
  public:
    Failure(Status status, const std::string& text);
    /// What the library of the queue says.
    explicit Failure(const kivevent::Error& error);

    /// A refused system call: `what`, a colon and the text of the errno value `error`.
    static Failure ofSystem(const std::string& what, int error);

    Status status() const { return m_status; }

    /// Whether only this one event is lost; the other failures end the run.
    bool concernsOneEvent() const;

  private:
    Status m_status;
};
