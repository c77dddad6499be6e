#include "DirectoryListing.h"

#include "UploadLog.h"

#include <memory>
#include <vector>

#include <cerrno>

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory openDirectory(const std::string& dir) {
    Directory directory(::opendir(dir.c_str()));
    if (directory == nullptr) {
        UploadLog::log.error("Cannot open directory ", ClassLog::foreign(dir), ": ",
                             ClassLog::errnoText(errno));
    }
    return directory;
}

/// A link is not a directory: following one could leave the tree, or never end.
bool isDirectory(const dirent& entry, const std::string& fullName) {
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat facts = {};
    return ::lstat(fullName.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

/// Writes the file's line. @return its size in bytes, 0 when that is not known
long long listFile(const std::string& fullName, std::ostream& out) {
    char sizeText[24] = "";
    struct stat facts = {};
    if (::stat(fullName.c_str(), &facts) == 0) {
        ::snprintf(sizeText, sizeof sizeText, "%ld", static_cast<long>(facts.st_size));
    }
    out << fullName << '\t' << sizeText << '\n';
    return static_cast<long long>(facts.st_size);
}

/// Lists what lies directly in `dir`. @return the names of the directories to go into
std::vector<std::string> listEntries(const std::string& dir, std::ostream& out) {
    std::vector<std::string> subdirectories;
    const Directory directory = openDirectory(dir);
    if (directory == nullptr) return subdirectories;
    long long total = 0;
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string name = entry->d_name;
        const std::string fullName = std::string(dir).append("/").append(name);
        if (!isDirectory(*entry, fullName)) {
            total += listFile(fullName, out);
        } else if (name.front() != '.') {
            subdirectories.push_back(fullName);
        }
    }
    out << "total dir " << dir << '\t' << total << '\n';
    return subdirectories;
}

}  // namespace

void DirectoryListing::listDirectory(const std::string& dir, std::ostream& out) {
    // The directory is closed before its subdirectories are opened: a deep tree must not use up
    // the process's descriptors.
    for (const std::string& subdirectory : listEntries(dir, out)) listDirectory(subdirectory, out);
}
