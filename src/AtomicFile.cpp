#include "AtomicFile.h"

#include "ClassLog.h"
#include "Descriptor.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int kMaxLinks = 40;          // as the kernel's own limit
constexpr mode_t kNewFileMode = 0644;  // less what the umask takes

std::mutex replaceMutex;  // guards the names of the temporary files

/// "cannot <action> <path>: <reason of errno>"
std::string failure(const char* action, const fs::path& path) {
    const int reason = errno;
    return std::string("cannot ") + action + " " + path.string() + ": " +
           ClassLog::errnoText(reason);
}

/// Where the file really is: the end of a chain of links, which need not exist.
fs::path behindLinks(fs::path path) {
    std::error_code error;
    for (int links = 0; links < kMaxLinks && fs::is_symlink(path, error); ++links) {
        const fs::path target = fs::read_symlink(path, error);
        if (error) break;
        path = path.parent_path() / target;
    }
    return path;
}

fs::path directoryOf(const fs::path& target) {
    return target.has_parent_path() ? target.parent_path() : fs::path(".");
}

fs::path besideTarget(const fs::path& target) {
    return directoryOf(target) / ("." + target.filename().string() + ".new");
}

/// What cannot be synced at all (a device, some directories) is as safe as it gets.
bool syncToDisk(int fd) {
    return ::fsync(fd) == 0 || errno == EINVAL || errno == ENOTSUP;
}

/// Gives the new file the owner and the mode of the one that it replaces.
bool takeOverAttributes(int fd, const struct stat* old) {
    if (old == nullptr) return true;
    if (::fchown(fd, old->st_uid, old->st_gid) != 0) {
        // Only root may give files away; readers go by the mode.
    }
    return ::fchmod(fd, old->st_mode & 07777) == 0;
}

std::string fillTemporary(Descriptor& file, const fs::path& temporary, const struct stat* old,
                          const std::string& text) {
    if (!takeOverAttributes(file.get(), old)) return failure("set the mode of", temporary);
    if (!file.writeAll(text)) return failure("write", temporary);
    if (!syncToDisk(file.get())) return failure("sync", temporary);
    if (!file.close()) return failure("close", temporary);
    return "";
}

std::string syncDirectory(const fs::path& directory) {
    const Descriptor entry(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!entry.isOpen()) return failure("open the directory", directory);
    if (!syncToDisk(entry.get())) return failure("sync the directory", directory);
    return "";
}

int openInPlace(const fs::path& path) {
    // Without O_NONBLOCK a named pipe would hold the caller for ever. O_CREAT only where it is
    // needed: in a sticky directory it is refused for other users' files.
    constexpr int flags = O_WRONLY | O_CLOEXEC | O_NONBLOCK;
    const int fd = ::open(path.c_str(), flags);
    if (fd >= 0 || errno != ENOENT) return fd;
    return ::open(path.c_str(), flags | O_CREAT, kNewFileMode);
}

bool writeAt(const Descriptor& file, off_t place, const std::string& text) {
    return ::lseek(file.get(), place, SEEK_SET) == place && file.writeAll(text);
}

/// First what needs room: the end that goes beyond the old text. Without room the old one stays.
bool overwrite(const Descriptor& file, off_t oldSize, const std::string& text) {
    const auto kept = std::min(static_cast<std::size_t>(oldSize), text.size());
    if (kept < text.size() && !writeAt(file, oldSize, text.substr(kept))) {
        const int reason = errno;
        if (::ftruncate(file.get(), oldSize) != 0) {
            // It stays longer, as it would have become.
        }
        errno = reason;
        return false;
    }
    return writeAt(file, 0, text.substr(0, kept)) &&
           ::ftruncate(file.get(), static_cast<off_t>(text.size())) == 0;
}

std::string writeInPlace(const fs::path& path, const std::string& text) {
    Descriptor file(openInPlace(path));
    if (!file.isOpen()) return failure("open", path);
    struct stat facts {};
    if (::fstat(file.get(), &facts) != 0) return failure("look at", path);
    const bool written =
        S_ISREG(facts.st_mode) ? overwrite(file, facts.st_size, text) : file.writeAll(text);
    if (!written) return failure("write", path);
    if (!syncToDisk(file.get())) return failure("sync", path);
    if (!file.close()) return failure("close", path);
    return "";
}

/// The text that replaces another may be less public than 0644 until its mode is set.
int makeTemporary(const fs::path& temporary, const struct stat* old) {
    ::unlink(temporary.c_str());  // left by a power cut
    return ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  old != nullptr ? 0600 : kNewFileMode);
}

/// Whether the directory takes no new names from us. Any other error, no room above all, would
/// meet the writing in place as well, after the old text is gone.
bool refusesNewFiles(int error) {
    return error == EROFS || error == EACCES || error == EPERM;
}

/// Whether only the temporary's own name is the trouble, or there is no directory, which opening
/// the file itself says best.
bool isTroubleOfTheName(int error) {
    return error == ENAMETOOLONG || error == ENOENT;
}

/// Whether the name cannot be given to another file: it is a mount point, or somebody else's in a
/// sticky directory.
bool refusesReplacement(int error) {
    return error == EBUSY || refusesNewFiles(error);
}

}  // namespace

std::string AtomicFile::temporaryFor(const std::string& path) {
    return besideTarget(behindLinks(path)).string();
}

std::string AtomicFile::replace(const std::string& path, const std::string& text) {
    const std::lock_guard<std::mutex> lock(replaceMutex);
    const fs::path target = behindLinks(path);
    const fs::path directory = directoryOf(target);
    const fs::path temporary = besideTarget(target);

    struct stat old {};
    const bool exists = ::stat(target.c_str(), &old) == 0;
    const bool missing = !exists && errno == ENOENT;
    if (!exists && !missing) return failure("open", target);
    const bool replaceable = target.has_filename() && (missing || S_ISREG(old.st_mode));
    if (!replaceable) return writeInPlace(target, text);
    const struct stat* const replaced = exists ? &old : nullptr;
    Descriptor file(makeTemporary(temporary, replaced));
    if (!file.isOpen()) {
        const bool nothingToLose = missing && isTroubleOfTheName(errno);
        if (refusesNewFiles(errno) || nothingToLose) return writeInPlace(target, text);
        return failure("make", temporary);
    }
    std::string problem = fillTemporary(file, temporary, replaced, text);
    if (!problem.empty()) {
        ::unlink(temporary.c_str());
        return problem;
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        const bool refused = refusesReplacement(errno);
        problem = failure("rename", temporary);
        ::unlink(temporary.c_str());
        return refused ? writeInPlace(target, text) : problem;
    }
    return syncDirectory(directory);
}
