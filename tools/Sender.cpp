#include "Sender.h"

#include "CommandLine.h"
#include "Failure.h"
#include "OutgoingEvent.h"
#include "Patience.h"
#include "SignalHold.h"
#include "SyncSemaphore.h"

#include <chrono>
#include <cstdint>
#include <optional>

Sender::Sender(const CommandLine& options)
    : m_options(options), m_queue(options.queue), m_pace(options.rate) {}

void Sender::send(OutgoingEvent& event) {
    for (std::int64_t count = 0; count < m_options.repeat; ++count) {
        m_pace.waitForTurn();
        if (m_options.syncSeconds) {
            sendAndWait(event, *m_options.syncSeconds);
        } else {
            post(event.text(), nullptr);
        }
    }
}

/// Each event has a semaphore of its own: a late answer never counts for the next event.
/// The locals go in reverse order, so that held signals strike after the semaphore is unlinked.
void Sender::sendAndWait(OutgoingEvent& event, double seconds) {
    const SignalHold signals;
    const SyncSemaphore semaphore;
    const Patience patience(seconds, signals);
    event.setSemaphore(semaphore.name());
    post(event.text(), &patience);
    while (!semaphore.wait(patience.nextSlice("no answer"))) {
    }
}

/// @param patience how long to wait for room; nullptr: as long as it takes
void Sender::post(const std::string& text, const Patience* patience) {
    m_queue.checkSize(text.size());
    while (!m_queue.offer(text)) {
        if (m_options.noWait) throw Failure(Status::QueueFull, m_queue.name() + ": full");
        std::optional<std::chrono::milliseconds> slice;
        if (patience != nullptr) slice = patience->nextSlice(m_queue.name() + ": no room");
        m_queue.awaitRoom(slice);
    }
}
