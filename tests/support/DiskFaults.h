#pragma once

#include <string>
#include <vector>

#include <sys/resource.h>

/// Watches, as long as it lives and on the thread that made it, the calls that make the
/// replacement of a file safe, and fails them on demand. One at a time on a thread.
class DiskWatch {
  public:
    DiskWatch();
    ~DiskWatch();
    DiskWatch(const DiskWatch&) = delete;
    DiskWatch& operator=(const DiskWatch&) = delete;

    std::vector<std::string> calls;  ///< "sync file", "rename", "sync directory" in their order
    int fileSyncError = 0;           ///< errno of a file's fsync; 0: works
    int directorySyncError = 0;
    int renameError = 0;
    int endAt =
        0;  ///< the process ends in the place of so many-th of these, link and unlink; 0: never
    int endStatus = 0;      ///< its exit status then
    int failingRename = 0;  ///< the number of the one that `renameError` is for; 0: all
    int linkError = 0;

    /// What one whole replacement asks for.
    static const std::vector<std::string>& safeReplacement();
};

/// As long as it lives no file of the process can grow beyond so many bytes: writing fails with
/// EFBIG.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes);
    ~FullDisk();
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    rlimit m_before{};
    void (*m_onExcess)(int);
};
