#include "Sender.h"

#include "CommandLine.h"
#include "Failure.h"
#include "OutgoingEvent.h"
#include "Patience.h"
#include "SignalHold.h"

#include <chrono>
#include <cstdint>

namespace {

kivevent::Queue makeQueue(const CommandLine& options) {
    return options.queue ? kivevent::Queue(*options.queue) : kivevent::Queue();
}

}  // namespace

Sender::Sender(const CommandLine& options)
    : m_options(options), m_queue(makeQueue(options)), m_pace(options.rate) {
    m_limit = m_queue.limit();
}

void Sender::checkSize(std::size_t size) const {
    if (size <= m_limit) return;
    throw Failure(Status::TooLarge, "message too large: " + std::to_string(size) +
                                        " bytes, the queue takes " + std::to_string(m_limit));
}

void Sender::send(OutgoingEvent& event) {
    for (std::int64_t count = 0; count < m_options.repeat; ++count) {
        m_pace.waitForTurn();
        if (m_options.syncSeconds) {
            sendAndWait(event, *m_options.syncSeconds);
        } else {
            post(event.text(), Patience(m_options.timeout, Status::NoRoom, nullptr), nullptr);
        }
    }
}

/// Each event has a receipt of its own: a late answer never counts for the next event.
/// The locals go in reverse order, so that held signals strike after the semaphore is unlinked.
void Sender::sendAndWait(OutgoingEvent& event, double seconds) {
    const SignalHold signals;
    kivevent::Receipt receipt;
    const Patience patience(seconds, Status::SyncTimeOut, &signals);
    event.dropSemaphore();
    post(event.text(), patience, &receipt);
    while (!receipt.wait(patience.nextSlice("no answer"))) {
    }
}

void Sender::post(const std::string& text, const Patience& patience,
                  const kivevent::Receipt* receipt) {
    for (;;) {
        auto slice = std::chrono::milliseconds::zero();
        if (!m_options.noWait) slice = patience.nextSlice(m_queue.name() + ": no room");
        const kivevent_code code = m_queue.tryPost(text, slice, receipt);
        if (code == KIVEVENT_OK) return;
        if (code != KIVEVENT_TIMEOUT) throw kivevent::Error(code);
    }
}
