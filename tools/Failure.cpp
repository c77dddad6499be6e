#include "Failure.h"

#include <string.h>

Failure::Failure(Status status, const std::string& text)
    : std::runtime_error(text), m_status(status) {}

Failure Failure::ofSystem(const std::string& what, int error) {
    return Failure(Status::System, what + ": " + strerror(error));
}

bool Failure::concernsOneEvent() const {
    return m_status == Status::BadJson || m_status == Status::TooLarge ||
           m_status == Status::QueueFull;
}
