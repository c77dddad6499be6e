#pragma once

#include "Pace.h"
#include "PostingQueue.h"

#include <string>

struct CommandLine;
class OutgoingEvent;
class Patience;

/// Sends events on one queue, at the pace and with the waiting that the command line asks for.
///
/// `options` must outlive it. Used by one thread. What cannot be sent is a Failure.
class Sender {
  public:
    explicit Sender(const CommandLine& options);

    const PostingQueue& queue() const { return m_queue; }

    /// Sends the event as often as was asked, and waits for the answers where that was asked.
    void send(OutgoingEvent& event);

  private:
    void sendAndWait(OutgoingEvent& event, double seconds);
    void post(const std::string& text, const Patience* patience);

    const CommandLine& m_options;
    PostingQueue m_queue;
    Pace m_pace;
};
