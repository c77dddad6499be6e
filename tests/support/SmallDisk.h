#pragma once

#include <fstream>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

/// As long as it lives, a file system of its own in memory on a directory: small, so that a test
/// can fill it. It takes the right to mount; other processes do not see it.
class SmallDisk {
  public:
    /// @param options of tmpfs, such as "size=512k,nr_inodes=8"
    SmallDisk(const std::string& directory, const std::string& options) : m_directory(directory) {
        ::mkdir(directory.c_str(), 0755);
        if (::unshare(CLONE_NEWNS) != 0) return;
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return;
        m_mounted = ::mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~SmallDisk() {
        if (m_mounted) ::umount2(m_directory.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool isThere() const { return m_mounted; }
    std::string file(const std::string& name) const { return m_directory + "/" + name; }
    /// Uses up all room with one file.
    void fill() const {
        std::ofstream filler(file("filler"), std::ios::binary | std::ios::app);
        const std::string piece(1024, 'f');
        while (filler.write(piece.data(), 1024).flush()) continue;
    }
    /// Uses up all names.
    void fillNames() const {
        for (int i = 0; std::ofstream(file("name" + std::to_string(i))).is_open(); ++i) continue;
    }
    void free() const { ::unlink(file("filler").c_str()); }
    bool makeReadOnly(bool readOnly) const {
        unsigned long flags = MS_REMOUNT;
        if (readOnly) flags |= MS_RDONLY;
        return ::mount("none", m_directory.c_str(), nullptr, flags, nullptr) == 0;
    }

  private:
    const std::string m_directory;
    bool m_mounted = false;
};
