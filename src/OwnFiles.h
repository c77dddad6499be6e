#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

struct stat;

/// The daemon's own files, which nobody may have uploaded, and deleted afterwards, by announcing
/// them: the store, the configuration, the token, the version, the terms of use, the device files,
/// the file of the test mode; and the temporary files by which `AtomicFile` replaces them.
///
/// It knows only what it is told at the start; it opens nothing. Class-wide state under a mutex of
/// its own; usable from any thread. No errors: what cannot be looked at is known by its path alone.
class OwnFiles {
  public:
    /// A file, whatever its names.
    struct Identity {
        dev_t device;
        ino_t inode;

        /// Whether it is the file of these facts.
        bool is(const struct stat& facts) const;
    };

    /// @param path need not exist
    static void add(const std::string& path);
    /// Adds a database file and what SQLite and the store keep beside it.
    static void addStore(const std::string& path);
    /// Whether `path` leads to one of them: by its name, or by any other name or link for it.
    static bool contains(const std::string& path);
    /// Whether the file of these facts, those of an open descriptor say, is one of them.
    static bool contains(const struct stat& facts);
    /// Those that are there now: for a child process, which must not take the lock.
    static std::vector<Identity> identities();

  private:
    friend struct OwnFilesPeer;

    static void forgetAll();
};
