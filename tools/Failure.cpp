#include "Failure.h"

#include <string.h>

namespace {

Status statusOf(kivevent_code code) {
    switch (code) {
        case KIVEVENT_INVALID:
            return Status::Usage;
        case KIVEVENT_NOT_JSON:
        case KIVEVENT_NOT_UTF8:
        case KIVEVENT_NUL:
        case KIVEVENT_NOT_OBJECT:
        case KIVEVENT_NO_TYPE:
            return Status::BadJson;
        case KIVEVENT_NO_DAEMON:
            return Status::NoQueue;
        case KIVEVENT_TOO_LARGE:
            return Status::TooLarge;
        case KIVEVENT_FULL:
            return Status::QueueFull;
        case KIVEVENT_NOT_HANDLED:
            return Status::SyncTimeOut;
        case KIVEVENT_TIMEOUT:
            return Status::NoRoom;
        case KIVEVENT_DENIED:
            return Status::Denied;
        case KIVEVENT_QUOTE:
            return Status::Unstorable;
        default:
            return Status::System;
    }
}

}  // namespace

Failure::Failure(Status status, const std::string& text)
    : std::runtime_error(text), m_status(status) {}

Failure::Failure(const kivevent::Error& error) : Failure(statusOf(error.code()), error.what()) {}

Failure Failure::ofSystem(const std::string& what, int error) {
    return Failure(Status::System, what + ": " + strerror(error));
}

bool Failure::concernsOneEvent() const {
    return m_status == Status::BadJson || m_status == Status::TooLarge ||
           m_status == Status::QueueFull || m_status == Status::Unstorable;
}
