#pragma once

#include <functional>
#include <string>

struct sqlite3;

/// What the connections of the process know together of the database files that they are on: who
/// has which file open, which files were found damaged, and which cannot have a write-ahead log.
///
/// It opens no file and runs no statement. Class-wide state under a mutex of its own, a leaf; any
/// thread. Files are named by their absolute path without links, as SQLite names them.
class SqlFiles {
  public:
    /// Notes that `connection`, on `handle`, has `file` open.
    /// @param close closes it, on another thread perhaps, while nothing runs on it; empty: only its
    /// owner may close it
    static void add(const void* connection, const std::string& file, sqlite3* handle,
                    std::function<void()> close);
    static void remove(const void* connection);

    /// Closes all connections on `file`. Not one is closed while one of them has a statement or a
    /// transaction, or may only be closed by its owner. Called with the lock held that all use of
    /// the others is under.
    /// @return whether none is open any more
    static bool closeAll(const std::string& file);

    static void noteDamage(const std::string& file);
    static void forgetDamage(const std::string& file);
    /// Without a lock as long as no file is damaged.
    static bool isDamaged(const std::string& file);

    static void noteThatWalIsRefused(const std::string& file);
    static bool refusesWal(const std::string& file);
    /// Forgets damage and refusals.
    static void forgetAll();
};
