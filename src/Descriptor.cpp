#include "Descriptor.h"

#include <utility>

#include <cerrno>
#include <cstddef>

#include <pthread.h>
#include <unistd.h>

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this == &other) return *this;
    close();
    m_fd = other.release();
    return *this;
}

int Descriptor::release() {
    return std::exchange(m_fd, kNone);
}

bool Descriptor::close() {
    if (!isOpen()) return true;
    int cancellation = PTHREAD_CANCEL_ENABLE;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    // An interrupted close has closed: trying again could hit another thread's new descriptor.
    const bool closed = ::close(release()) == 0 || errno == EINTR;
    ::pthread_setcancelstate(cancellation, nullptr);
    return closed;
}

bool Descriptor::writeAll(const std::string& text) const {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(m_fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}
