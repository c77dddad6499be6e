#include "RegularFile.h"

#include "Descriptor.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Without O_NONBLOCK the opening of a pipe would wait for its writer.
Descriptor openWithoutWaiting(const std::string& path) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool isRegular(const Descriptor& file) {
    struct stat facts {};
    return ::fstat(file.get(), &facts) == 0 && S_ISREG(facts.st_mode);
}

/// Up to one byte more than a file may have, which tells that it has too many. The size that the
/// file system gives is not asked: the kernel's own files have none.
bool readUpToTheLimit(const Descriptor& file, std::string& text) {
    char piece[4096];
    while (text.size() <= RegularFile::longest) {
        const ssize_t got = ::read(file.get(), piece, sizeof piece);
        if (got == 0) return true;
        if (got > 0) {
            text.append(piece, static_cast<std::size_t>(got));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return false;
}

}  // namespace

RegularFile::RegularFile(const std::string& path) {
    const Descriptor file = openWithoutWaiting(path);
    if (!file.isOpen()) {
        if (errno == ENOENT || errno == ENOTDIR) m_state = State::Missing;
        return;
    }
    if (isRegular(file) && readUpToTheLimit(file, m_text)) {
        m_state = State::Read;
    } else {
        m_text.clear();
    }
}
