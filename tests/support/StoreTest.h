#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "DB.h"
#include "SqlFiles.h"
#include "support/DBPeer.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TempDir.h"

/// A second look at a database file: plain SQLite, nothing of the store's own code.
class PlainDatabase {
  public:
    explicit PlainDatabase(const std::string& path) {
        sqlite3* connection = nullptr;
        const int result = sqlite3_open(path.c_str(), &connection);
        m_connection.reset(connection);
        if (result != SQLITE_OK) throw std::runtime_error("cannot open " + path);
    }

    void run(const std::string& sql) { run(m_connection.get(), sql); }

    static void run(sqlite3* connection, const std::string& sql) {
        char* text = nullptr;
        if (sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, &text) == SQLITE_OK) return;
        const std::string message = text != nullptr ? text : "?";
        sqlite3_free(text);
        throw std::runtime_error(message);
    }

    /// The rows, columns joined with "|", "NULL" for NULL.
    std::vector<std::string> rows(const std::string& sql) {
        std::vector<std::string> found;
        char* text = nullptr;
        const int result = sqlite3_exec(m_connection.get(), sql.c_str(), collect, &found, &text);
        const std::string message = text != nullptr ? text : "?";
        sqlite3_free(text);
        if (result != SQLITE_OK) throw std::runtime_error(message);
        return found;
    }

    std::string value(const std::string& sql) {
        const auto found = rows(sql);
        return found.empty() ? "(no row)" : found.front();
    }

  private:
    struct Close {
        void operator()(sqlite3* connection) const { sqlite3_close(connection); }
    };

    static int collect(void* found, int columns, char** values, char**) {
        std::string row;
        for (int i = 0; i < columns; ++i) {
            if (i > 0) row += "|";
            row += values[i] != nullptr ? values[i] : "NULL";
        }
        static_cast<std::vector<std::string>*>(found)->push_back(row);
        return 0;
    }

    std::unique_ptr<sqlite3, Close> m_connection;
};

/// A store in a directory of its own.
class StoreTest : public KivTest {
  protected:
    using Texts = std::vector<std::string>;

    /// Opens the store, silently.
    void openStore() { db->open(path, false); }
    /// Runs `sql` on the store's own connection.
    void onStore(const std::string& sql) { PlainDatabase::run(DBPeer::connection(*db), sql); }
    /// Runs `sql` on a connection of its own.
    void aside(const std::string& sql) { PlainDatabase(path).run(sql); }
    Texts rows(const std::string& sql) { return PlainDatabase(path).rows(sql); }
    std::string value(const std::string& sql) { return PlainDatabase(path).value(sql); }

    /// `data` texts of all events in stored order.
    Texts storedData() {
        return rows("SELECT data FROM Events ORDER BY bootCount,standbyCount,kernelTime");
    }

    /// Gives each per-cycle table a cycle to trim.
    void addForgottenCycles() {
        aside(
            "INSERT INTO TimeOffsets VALUES(7,0,0,1,0),(8,0,0,1,0);"
            "INSERT INTO OpTimes VALUES(7,0,1),(8,0,1)");
    }
    /// From now on the store has a rollback journal, as where there can be no log.
    void useRollbackJournal() {
        onStore("PRAGMA journal_mode=DELETE");
        SqlFiles::noteThatWalIsRefused(path);
    }
    /// Makes a trigger; the store's own connection runs it, which its settings forbid otherwise.
    void makeTrigger(const std::string& sql) {
        DBPeer::allowTriggers(*db);
        aside(sql);
    }

    /// From now on every COMMIT on the store's connection that follows a change of `table` fails,
    /// and leaves its transaction open.
    void breakCommitsAfter(const std::string& change) {
        DBPeer::allowTriggers(*db);
        onStore(
            "PRAGMA foreign_keys=ON;"
            "CREATE TABLE Parent(id INTEGER PRIMARY KEY);"
            "CREATE TABLE Child(id INTEGER REFERENCES Parent(id) "
            "DEFERRABLE INITIALLY DEFERRED);"
            "CREATE TRIGGER OrphanMaker AFTER " +
            change + " BEGIN INSERT INTO Child VALUES(1); END;");
    }

    TempDir dir;
    std::string path = dir.file("Db");
    std::unique_ptr<DB> db = std::make_unique<DB>();
};
