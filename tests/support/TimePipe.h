#pragma once

#include <string>

#include <csignal>

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/WaitUntil.h"

/// The middleware's end of a time pipe. While it lives, a writer that its reader leaves is told by
/// EPIPE.
class TimePipe {
  public:
    explicit TimePipe(std::string path) : m_path(std::move(path)) {}
    ~TimePipe() { std::signal(SIGPIPE, m_onBrokenPipe); }
    TimePipe(const TimePipe&) = delete;
    TimePipe& operator=(const TimePipe&) = delete;

    const std::string& path() const { return m_path; }

    /// Opens the pipe for writing as soon as somebody reads it; -1 when nobody ever does.
    int openWriter() const {
        int fd = -1;
        WaitUntil([&] {
            fd = ::open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return fd >= 0;
        });
        return fd;
    }
    /// Whether the pipe is there and nobody reads it.
    bool isUnread() const {
        return ::open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC) < 0 && errno == ENXIO;
    }

    static void send(int fd, const std::string& text) {
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    /// Sends `text` through a writer of its own, and again through another one whenever the reader
    /// has just closed the pipe. What the pipe has taken stays in it until it is read, as long as
    /// the writer is open. @return the writer, or -1
    int sendThroughANewWriter(const std::string& text) const {
        for (;;) {
            const int fd = openWriter();
            if (fd < 0) return -1;
            if (::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
                return fd;
            }
            const int error = errno;
            ::close(fd);
            if (error != EPIPE) return -1;
        }
    }

  private:
    std::string m_path;
    void (*m_onBrokenPipe)(int) = std::signal(SIGPIPE, SIG_IGN);
};
