#include "RegularFile.h"

#include "Descriptor.h"

#include <algorithm>
#include <iterator>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Without O_NONBLOCK the opening of a pipe would wait for its writer.
Descriptor openWithoutWaiting(const std::string& path) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/// Up to one byte more than a file may have, which tells that it has too many. The size that the
/// file system gives is not asked: the kernel's own files have none.
/// @return false, with errno, when the file cannot be read
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
    return true;
}

/// What stays as it is until somebody changes what has that name.
bool isLasting(int error) {
    constexpr int kLasting[] = {ELOOP, ENAMETOOLONG, ENXIO, ENODEV, EOVERFLOW, EINVAL};
    return std::find(std::begin(kLasting), std::end(kLasting), error) != std::end(kLasting);
}

}  // namespace

RegularFile::RegularFile(const std::string& path) {
    read(path);
}

void RegularFile::read(const std::string& path) {
    const Descriptor file = openWithoutWaiting(path);
    if (!file.isOpen()) return failedWith(errno);
    struct stat facts {};
    if (::fstat(file.get(), &facts) != 0) return failedWith(errno);
    if (!S_ISREG(facts.st_mode)) return;
    if (!readUpToTheLimit(file, m_text)) return failedWith(errno);
    if (m_text.size() > longest)
        m_text.clear();
    else
        m_state = State::Read;
}

void RegularFile::failedWith(int error) {
    m_text.clear();
    if (error == ENOENT || error == ENOTDIR) {
        m_state = State::Missing;
    } else if (!isLasting(error)) {
        m_state = State::NotNow;
        m_error = error;
    }
}
