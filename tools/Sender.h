#pragma once

#include "Pace.h"
#include "kivevent.hpp"

#include <cstddef>
#include <string>

struct CommandLine;
class OutgoingEvent;
class Patience;

/// Sends events on one queue, at the pace and with the waiting that the command line asks for.
///
/// `options` must outlive it. Used by one thread. What cannot be sent is a Failure.
class Sender {
  public:
    /// Fails where there is no queue.
    explicit Sender(const CommandLine& options);

    std::size_t limit() const { return m_limit; }  ///< bytes of one message

    /// Fails with TooLarge when a message of `size` bytes does not fit.
    void checkSize(std::size_t size) const;

    /// Sends the event as often as was asked, and waits for the answers where that was asked.
    void send(OutgoingEvent& event);

  private:
    void sendAndWait(OutgoingEvent& event, double seconds);
    void post(const std::string& text, const Patience& patience, const kivevent::Receipt* receipt);

    const CommandLine& m_options;
    kivevent::Queue m_queue;
    std::size_t m_limit = 0;
    Pace m_pace;
};
