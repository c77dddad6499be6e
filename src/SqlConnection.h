#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ClassLog.h"
#include "SqlStatement.h"

struct sqlite3;

/// One connection to an SQLite file: the only place where one is opened and set up, and where the
/// result codes of all its statements, the prepared ones too, pass.
///
/// It knows no table, and takes no lock: its owner has one thread at a time use it. Statements and
/// transactions of it must be gone before it is closed or destroyed. While it is open it stands in
/// `SqlFiles`, through which whoever replaces the file closes it; its owner then finds it closed
/// and opens it again. Failures are results and error lines; nothing is thrown.
class SqlConnection {
  public:
    /// What a failed statement does besides writing its line.
    enum class OnFailure { Record, ReportOnly };
    /// What a statement does that meets another connection's lock: wait up to 1 s, or fail at once.
    enum class OnLock { Wait, Fail };
    /// What the connection is for.
    enum class Purpose {
        Store,    ///< reads and writes, and makes a missing file
        Cursor,   ///< reads a file that is there; only its owner closes it
        Copy,     ///< fills a new file that counts only once it is synced: keeps no journal on disk
        Salvage,  ///< reads what can be read of a damaged file, its broken schema too
    };
    /// Takes note of a failure, at once and on the same thread; the text is SQLite's message.
    using Recorder = std::function<void(const char* message)>;

    explicit SqlConnection(Recorder recordFailure = {});
    SqlConnection(const SqlConnection&) = delete;
    SqlConnection& operator=(const SqlConnection&) = delete;

    ~SqlConnection();

    /// Closes what is open, then opens the file and sets the connection up: a write-ahead log where
    /// the file can have one, a rollback journal otherwise. What of that cannot be had, because the
    /// file is locked or read-only, is done without.
    /// @return why that failed, and then nothing is open; "" on success
    std::string open(const std::string& path, OnLock onLock, Purpose purpose = Purpose::Store);
    void close();
    /// Whether it was open and somebody else closed it, to replace the file.
    bool wasClosedByOthers() const { return m_closedByOthers; }
    bool isOpen() const { return m_handle != nullptr; }
    /// The file that was to be opened last, also when that failed.
    const std::string& path() const { return m_path; }
    /// The same without links, as `SqlFiles` names it; kept after `close`, "" before the first
    /// successful opening.
    const std::string& file() const { return m_file; }
    /// What a line names this connection by; null when nothing is open.
    const void* address() const { return m_handle.get(); }

    /// Runs `sql`, which may be several statements. A failure gets the line `failureText` and
    /// SQLite's message, and unless told otherwise is recorded.
    /// @return SQLite's result code; SQLITE_MISUSE when nothing is open
    int execute(const std::string& sql, const char* failureText,
                OnFailure onFailure = OnFailure::Record);
    /// The same with a prepared statement of this connection that yields no rows; afterwards it is
    /// ready for new bindings.
    int execute(SqlStatement& statement, const char* failureText,
                OnFailure onFailure = OnFailure::Record);
    /// Prepares `sql`; where that fails the statement is not prepared and `lastError` says why.
    SqlStatement prepare(const std::string& sql) const;
    /// The number that `pragma` answers; 0 without an answer.
    int readPragma(const char* pragma) const;
    /// Writes the line of a failure, and records it unless told otherwise.
    void reportFailure(const char* failureText, const char* message, OnFailure onFailure) const;

    /// SQLite's message of the last failure; "no open database" when nothing is open.
    std::string lastError() const;
    /// SQLite's result code of the last failure; SQLITE_MISUSE when nothing is open.
    int lastErrorCode() const;
    /// Whether the last `execute` met another connection's lock.
    bool metLock() const;
    /// Whether the last `execute` failed for a reason that may pass, as `SqlResult` says; also when
    /// nothing is open.
    bool failedForNow() const;
    /// Whether a statement since `open` found that the file is damaged or is not a database.
    bool foundDamage() const { return m_results.foundDamage(); }
    /// Whether a statement since `open` failed that may work on another connection.
    bool isStuck() const { return m_results.askForAnotherConnection(); }
    /// Makes it count as stuck until the next `open`.
    void askForAnother() { m_results.askForAnother(); }
    bool isInTransaction() const;
    bool isReadOnly() const;
    /// Whether there is a statement or a transaction on it.
    bool isInUse() const;
    /// Writes to the disk, unsynced, what the transaction has changed so far. @return SQLite's code
    int flush();
    /// As long as `goesOn` says so its statements run; afterwards they end with SQLITE_INTERRUPT.
    void runWhile(std::function<bool()> goesOn);
    /// Gives the pages that the connection keeps back to the heap.
    void releaseMemory();

    class Transaction;
    class NoWaiting;

    /// The lines of the event store; all its classes write "kivDB: " and have one switch.
    inline static ClassLog m_log{"kivDB: "};

  private:
    friend struct SqlConnectionPeer;

    struct Close {
        void operator()(sqlite3* handle) const;
    };

    static int printRow(void*, int columns, char** values, char** names);
    /// What keeps a file with a log from being read.
    enum class Obstacle {
        None,
        IndexCannotBeMapped,  ///< the file system has no shared writable mappings
        LogNeedsWriting,      ///< the disk is read-only, and the log's files are not there
    };

    std::string connect(Purpose purpose);
    std::string connect(Purpose purpose, const std::string& name);
    void configure(OnLock onLock, Purpose purpose);
    void restrict(Purpose purpose);
    void keepSafe();
    bool hasWal();
    bool isMappingRefused() const;
    void leaveWal();
    bool isReadable();
    std::string readText(const char* sql);
    int run(const char* sql, char** message);
    void rollBack();

    Recorder m_recordFailure;
    std::string m_path;
    std::string m_file;
    int m_busyTimeoutMs = 0;
    int m_lastResult = 0;  ///< of `execute`
    Obstacle m_obstacle = Obstacle::None;
    bool m_closedByOthers = false;
    std::function<bool()> m_goesOn;
    /// Changed by reading, too: a read may be what finds the damage.
    mutable SqlStatement::Results m_results;
    std::unique_ptr<sqlite3, Close> m_handle;
};

/// A transaction that is rolled back at its end, unless it has ended before. Lives on the stack.
class SqlConnection::Transaction {
  public:
    /// @param beginning the statement that begins it
    /// @param inDoubt called when its commit fails, and when it is rolled back at its end: what was
    /// counted meanwhile does not hold any more. Must not throw.
    /// @param onFailure what failures of its statements do besides writing their lines
    Transaction(SqlConnection& connection, const char* beginning,
                std::function<void()> inDoubt = {}, OnFailure onFailure = OnFailure::Record);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool hasBegun() const { return m_begun; }
    /// Also when SQLite has ended it by itself, as at an error that leaves no way to go on.
    bool hasEnded() const { return !m_connection.isInTransaction(); }
    /// As `SqlConnection::execute`; a failure rolls the transaction back. @return whether it worked
    bool execute(const std::string& sql, const char* failureText);
    bool commit();

  private:
    void doubt() const;

    SqlConnection& m_connection;
    std::function<void()> m_inDoubt;
    const OnFailure m_onFailure;
    bool m_begun;
};

/// As long as it lives no statement of the connection waits for another connection's lock.
class SqlConnection::NoWaiting {
  public:
    explicit NoWaiting(SqlConnection& connection);
    ~NoWaiting();
    NoWaiting(const NoWaiting&) = delete;
    NoWaiting& operator=(const NoWaiting&) = delete;

  private:
    SqlConnection& m_connection;
};
