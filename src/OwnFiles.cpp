#include "OwnFiles.h"

#include "AtomicFile.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

struct Registry {
    std::mutex mutex;                // guards paths
    std::vector<std::string> paths;  // absolute
};

Registry& registry() {
    static Registry own;
    return own;
}

/// The path from the root without links, as far as it exists.
fs::path plain(const std::string& path) {
    std::error_code error;
    fs::path result = fs::weakly_canonical(fs::absolute(path, error), error);
    return error ? fs::path(path).lexically_normal() : result;
}

bool isSameFile(const struct stat& facts, const std::string& own) {
    struct stat of {};
    return ::stat(own.c_str(), &of) == 0 && of.st_dev == facts.st_dev && of.st_ino == facts.st_ino;
}

/// Whether any of them, or of their temporary files, is as `is` says.
template <typename Predicate>
bool anyOwn(Predicate is) {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    const auto& paths = registry().paths;
    return std::any_of(paths.begin(), paths.end(), [&is](const std::string& own) {
        return is(own) || is(AtomicFile::temporaryFor(own));
    });
}

}  // namespace

void OwnFiles::add(const std::string& path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    const std::lock_guard<std::mutex> lock(registry().mutex);
    registry().paths.push_back(error ? path : absolute.string());
}

void OwnFiles::addStore(const std::string& path) {
    for (const char* beside :
         {"", "-wal", "-shm", "-journal", ".damaged", ".new", ".rescued", ".lock"})
        add(path + beside);
}

bool OwnFiles::contains(const std::string& path) {
    const fs::path wanted = plain(path);
    struct stat facts {};
    const bool exists = ::stat(path.c_str(), &facts) == 0;
    return anyOwn([&](const std::string& own) {
        return (exists && isSameFile(facts, own)) || plain(own) == wanted;
    });
}

bool OwnFiles::contains(const struct stat& facts) {
    return anyOwn([&facts](const std::string& own) { return isSameFile(facts, own); });
}

std::vector<OwnFiles::Identity> OwnFiles::identities() {
    std::vector<Identity> found;
    anyOwn([&found](const std::string& own) {
        struct stat facts {};
        if (::stat(own.c_str(), &facts) == 0) found.push_back({facts.st_dev, facts.st_ino});
        return false;
    });
    return found;
}

bool OwnFiles::Identity::is(const struct stat& facts) const {
    return facts.st_dev == device && facts.st_ino == inode;
}

void OwnFiles::forgetAll() {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    registry().paths.clear();
}
