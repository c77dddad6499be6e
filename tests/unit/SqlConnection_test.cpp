#include "SqlConnection.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <cerrno>

#include <sqlite3.h>

#include "support/StoreFaults.h"
#include "support/StoreTest.h"

namespace {

using OnFailure = SqlConnection::OnFailure;
using OnLock = SqlConnection::OnLock;

class SqlConnectionTest : public KivTest {
  protected:
    using Texts = std::vector<std::string>;

    void openIt(OnLock onLock = OnLock::Fail) { ASSERT_EQ(connection.open(path, onLock), ""); }
    int execute(const std::string& sql) { return connection.execute(sql, "failed: "); }
    std::string value(const std::string& sql) { return PlainDatabase(path).value(sql); }

    /// A file with a sound first page, and nothing but rubbish in those of the table T.
    void makeDamagedFile() {
        PlainDatabase(path).run(
            "CREATE TABLE T(a); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n "
            "WHERE i<100) INSERT INTO T SELECT zeroblob(500) FROM n");
        std::string text = dir.read("Db");
        std::fill(text.begin() + 4096, text.end(), '\xee');
        dir.write("Db", text);
    }

    TempDir dir;
    std::string path = dir.file("Db");
    Texts recorded;
    SqlConnection connection{[this](const char* message) { recorded.emplace_back(message); }};
};

// --- opening ---

/// A connection opens or creates its file, and knows it.
TEST_F(SqlConnectionTest, OpensOrCreatesItsFile) {
    EXPECT_FALSE(connection.isOpen());
    EXPECT_EQ(connection.address(), nullptr);
    openIt();
    EXPECT_TRUE(connection.isOpen());
    EXPECT_NE(connection.address(), nullptr);
    EXPECT_EQ(connection.path(), path);
    EXPECT_EQ(execute("CREATE TABLE T(a)"), SQLITE_OK);
    EXPECT_EQ(value("SELECT COUNT(*) FROM T"), "0");
}

/// A failed open says why, leaves nothing open and writes no line.
TEST_F(SqlConnectionTest, AFailedOpenSaysWhyAndLeavesNothingOpen) {
    openIt();
    const std::string missing = dir.file("no/such/Db");
    OutputCapture capture;
    EXPECT_EQ(connection.open(missing, OnLock::Wait), "unable to open database file");
    capture.stop();
    EXPECT_EQ(capture.out() + capture.err(), "");
    EXPECT_FALSE(connection.isOpen());
    EXPECT_EQ(connection.path(), missing);
    EXPECT_EQ(connection.lastError(), "no open database");
    EXPECT_EQ(connection.lastErrorCode(), SQLITE_MISUSE);
    EXPECT_FALSE(connection.isInTransaction());
    EXPECT_TRUE(recorded.empty());
}

/// Opening again closes the connection before.
TEST_F(SqlConnectionTest, OpeningAgainClosesTheOneBefore) {
    openIt();
    execute("CREATE TABLE T(a); BEGIN IMMEDIATE");
    EXPECT_TRUE(connection.isInTransaction());
    EXPECT_EQ(connection.open(dir.file("Other"), OnLock::Fail), "");
    EXPECT_FALSE(connection.isInTransaction());
    EXPECT_FALSE(connection.prepare("SELECT a FROM T").isPrepared());
    EXPECT_NO_THROW(PlainDatabase(path).run("BEGIN IMMEDIATE; ROLLBACK")) << "its lock is gone";
}

/// No connection can attach other files.
TEST_F(SqlConnectionTest, CannotAttachOtherFiles) {
    openIt();
    OutputCapture capture;
    EXPECT_NE(execute("ATTACH '" + dir.file("other") + "' AS other"), SQLITE_OK);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: failed: too many attached databases - max 0\n");
    EXPECT_FALSE(dir.has("other"));
}

/// Statements wait 1 s for another connection's lock, or fail at once, as `open` was told.
TEST_F(SqlConnectionTest, WaitsForLocksAsItWasTold) {
    openIt(OnLock::Wait);
    EXPECT_EQ(connection.readPragma("PRAGMA busy_timeout"), 1000);
    openIt(OnLock::Fail);
    EXPECT_EQ(connection.readPragma("PRAGMA busy_timeout"), 0);
}

/// A connection that is told not to wait for locks waits again afterwards.
TEST_F(SqlConnectionTest, NoWaitingEndsWithItsScope) {
    for (const OnLock onLock : {OnLock::Wait, OnLock::Fail}) {
        openIt(onLock);
        const int before = connection.readPragma("PRAGMA busy_timeout");
        {
            const SqlConnection::NoWaiting noWaiting(connection);
            EXPECT_EQ(connection.readPragma("PRAGMA busy_timeout"), 0);
        }
        EXPECT_EQ(connection.readPragma("PRAGMA busy_timeout"), before);
    }
    connection.close();
    const SqlConnection::NoWaiting nothingToTell(connection);
}

// --- statements ---

/// Of a message that quotes a long or many-lined text the line shows the beginning, on one line; it
/// is recorded whole.
TEST_F(SqlConnectionTest, ALongMessageIsShownCutAndOnOneLine) {
    openIt();
    OutputCapture capture;
    EXPECT_EQ(execute("\"a\nkivDB: forged " + std::string(7000, 'x')), SQLITE_ERROR);
    capture.stop();
    const std::string line = capture.errWithoutPrefixes();
    EXPECT_EQ(line.rfind("kivDB: failed: unrecognized token: \"\"a\\x0AkivDB: forged xxx", 0), 0u);
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_LT(line.size(), 350u);
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_GT(recorded[0].size(), 7000u);
}

/// SQLite's message of a failed statement is freed.
TEST_F(SqlConnectionTest, FreesTheMessageOfAFailedStatement) {
    openIt();
    OutputCapture capture;
    execute("SELECT a FROM Nowhere");
    const sqlite3_int64 before = sqlite3_memory_used();
    for (int i = 0; i < 100; ++i) execute("SELECT a FROM Nowhere");
    EXPECT_LT(sqlite3_memory_used() - before, 1000) << "100 messages take 3000 bytes";
}

/// A failed statement gets its line and is recorded with SQLite's message, unless told otherwise.
TEST_F(SqlConnectionTest, AFailedStatementGetsItsLineAndIsRecorded) {
    openIt();
    OutputCapture capture;
    EXPECT_EQ(execute("SELECT 1"), SQLITE_OK);
    EXPECT_EQ(execute("SELECT a FROM Nowhere"), SQLITE_ERROR);
    EXPECT_EQ(connection.execute("x", "reported: ", OnFailure::ReportOnly), SQLITE_ERROR);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: failed: no such table: Nowhere\n"
              "kivDB: reported: near \"x\": syntax error\n");
    EXPECT_EQ(recorded, Texts{"no such table: Nowhere"});
    EXPECT_EQ(connection.lastError(), "near \"x\": syntax error");
    EXPECT_EQ(connection.lastErrorCode(), SQLITE_ERROR);
}

/// A prepared statement that fails gets its line and is recorded as a written one, and is ready for
/// new bindings afterwards.
TEST_F(SqlConnectionTest, APreparedStatementFailsLikeAWrittenOne) {
    openIt();
    execute("CREATE TABLE T(a UNIQUE)");
    SqlStatement insertion = connection.prepare("INSERT INTO T VALUES(?1)");
    const std::string text = "twice";
    OutputCapture capture;
    insertion.bindBorrowed(1, text);
    EXPECT_EQ(connection.execute(insertion, "failed: "), SQLITE_OK);
    insertion.bindBorrowed(1, text);
    EXPECT_EQ(connection.execute(insertion, "failed: "), SQLITE_CONSTRAINT);
    EXPECT_FALSE(connection.failedForNow());
    insertion.bindBorrowed(1, text);
    EXPECT_EQ(connection.execute(insertion, "reported: ", OnFailure::ReportOnly),
              SQLITE_CONSTRAINT);
    EXPECT_EQ(connection.execute(insertion, "failed: "), SQLITE_OK) << "nothing bound is NULL";
    SqlStatement none = connection.prepare("x");
    EXPECT_EQ(connection.execute(none, "failed: "), SQLITE_MISUSE);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: failed: UNIQUE constraint failed: T.a\n"
              "kivDB: reported: UNIQUE constraint failed: T.a\n"
              "kivDB: failed: near \"x\": syntax error\n");
    EXPECT_EQ(recorded, (Texts{"UNIQUE constraint failed: T.a", "near \"x\": syntax error"}));
    EXPECT_EQ(PlainDatabase(path).rows("SELECT a FROM T"), (Texts{"twice", "NULL"}));
}

/// Without an open file every statement fails.
TEST_F(SqlConnectionTest, WithoutAnOpenFileEveryStatementFails) {
    OutputCapture capture;
    EXPECT_EQ(execute("SELECT 1"), SQLITE_MISUSE);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: failed: bad parameter or other API misuse\n");
    EXPECT_EQ(recorded, Texts{"bad parameter or other API misuse"});
    EXPECT_FALSE(connection.prepare("SELECT 1").isPrepared());
    EXPECT_EQ(connection.readPragma("PRAGMA page_size"), 0);
    connection.releaseMemory();
}

/// A connection that is given nothing to record with only writes the line.
TEST_F(SqlConnectionTest, WithoutARecorderAFailureOnlyGetsItsLine) {
    SqlConnection plain;
    OutputCapture capture;
    plain.execute("SELECT 1", "failed: ");
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: failed: bad parameter or other API misuse\n");
}

/// A pragma's number is read; without an answer it is 0.
TEST_F(SqlConnectionTest, ReadsTheNumberOfAPragma) {
    openIt();
    EXPECT_EQ(connection.readPragma("PRAGMA page_size"), 4096);
    EXPECT_EQ(connection.readPragma("PRAGMA no_such_pragma"), 0);
}

/// The statement callback prints its columns only when verbose, "NULL" for none.
TEST_F(SqlConnectionTest, PrintsWhatAStatementAnswersOnlyWhenVerbose) {
    openIt();
    const std::string select = "SELECT 'text' AS one, NULL AS two";
    OutputCapture capture;
    execute(select);
    EXPECT_EQ(capture.out(), "");
    SqlConnection::m_log.setVerbose(true);
    execute(select);
    SqlConnection::m_log.setVerbose(false);
    capture.stop();
    EXPECT_EQ(capture.out(), "*** sql callback: kivDB:  one = text\n two = NULL\n\n");
}

/// Whether the last executed statement met another's lock is known until the next one.
TEST_F(SqlConnectionTest, KnowsWhetherTheLastStatementMetALock) {
    openIt();
    EXPECT_FALSE(connection.metLock());
    {
        PlainDatabase locker(path);
        locker.run("BEGIN EXCLUSIVE");
        OutputCapture capture;
        EXPECT_EQ(execute("CREATE TABLE T(a)"), SQLITE_BUSY);
        EXPECT_TRUE(connection.metLock());
        EXPECT_EQ(connection.prepare("SELECT 1").step(), SQLITE_ROW);
        EXPECT_TRUE(connection.metLock()) << "a prepared one does not count";
        EXPECT_EQ(execute("x"), SQLITE_ERROR);
        EXPECT_FALSE(connection.metLock());
    }
    EXPECT_EQ(execute("CREATE TABLE T(a)"), SQLITE_OK);
    EXPECT_FALSE(connection.metLock());
}

/// Whether the last executed statement failed for a reason that may pass is known; without an open
/// file it may.
TEST_F(SqlConnectionTest, KnowsWhetherTheLastFailureMayPass) {
    EXPECT_TRUE(connection.failedForNow()) << "nothing is open";
    openIt();
    OutputCapture capture;
    execute("CREATE TABLE T(a)");
    EXPECT_FALSE(connection.failedForNow());
    execute("x");
    EXPECT_FALSE(connection.failedForNow());
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    execute("INSERT INTO T VALUES(1)");
    EXPECT_TRUE(connection.failedForNow());
}

/// It is in use while it has a statement or a transaction.
TEST_F(SqlConnectionTest, KnowsWhetherItIsInUse) {
    EXPECT_FALSE(connection.isInUse());
    openIt();
    EXPECT_FALSE(connection.isInUse());
    {
        const SqlStatement statement = connection.prepare("SELECT 1");
        EXPECT_TRUE(connection.isInUse());
    }
    EXPECT_FALSE(connection.isInUse());
    execute("BEGIN");
    EXPECT_TRUE(connection.isInUse());
}

/// A statement ends where it is told to stop, and runs again afterwards.
TEST_F(SqlConnectionTest, AStatementEndsWhereItIsToldTo) {
    const std::string endless =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT MAX(i) FROM n";
    openIt();
    int questions = 0;
    connection.runWhile([&questions] { return ++questions < 5; });
    EXPECT_EQ(connection.prepare(endless).step(), SQLITE_INTERRUPT);
    EXPECT_EQ(questions, 5);
    connection.runWhile(nullptr);
    EXPECT_EQ(connection.prepare("SELECT 1").step(), SQLITE_ROW);
}

/// A change is on the disk after a flush, so that a full one is noticed before the commit.
TEST_F(SqlConnectionTest, AFlushMeetsWhatTheCommitWouldMeet) {
    EXPECT_EQ(connection.flush(), SQLITE_MISUSE) << "nothing is open";
    openIt();
    execute("CREATE TABLE T(a)");
    execute("BEGIN; INSERT INTO T VALUES(zeroblob(100000))");
    EXPECT_EQ(connection.flush(), SQLITE_OK);
    execute("INSERT INTO T VALUES(zeroblob(100000))");
    StoreFaults faults;
    faults.failEach(StoreFaults::Call::Write, ENOSPC);
    EXPECT_NE(connection.flush(), SQLITE_OK);
}

/// A text longer than any store is refused, whoever wrote it into the file.
TEST_F(SqlConnectionTest, NoTextIsTooLongForTheMemory) {
    openIt();
    EXPECT_EQ(connection.prepare("SELECT zeroblob(5000000)").step(), SQLITE_TOOBIG);
}

// --- damage ---

/// Each statement tells of a damaged file: executed, prepared or stepped.
TEST_F(SqlConnectionTest, AStepThatMeetsADamagedPageTellsOfIt) {
    makeDamagedFile();
    openIt();
    SqlStatement read = connection.prepare("SELECT COUNT(a) FROM T");
    ASSERT_TRUE(read.isPrepared());
    EXPECT_FALSE(connection.foundDamage());
    EXPECT_EQ(read.step(), SQLITE_CORRUPT);
    EXPECT_TRUE(connection.foundDamage());
}

/// Each statement tells of a damaged file: executed, prepared or stepped.
TEST_F(SqlConnectionTest, APreparedStatementTellsOfAFileThatIsNotADatabase) {
    dir.write("Db", std::string(8192, 'x'));
    openIt();
    EXPECT_TRUE(connection.foundDamage()) << "the set-up reads the header";
    EXPECT_FALSE(connection.prepare("SELECT a FROM T").isPrepared());
    EXPECT_TRUE(connection.foundDamage());
}

/// Each statement tells of a damaged file: executed, prepared or stepped.
TEST_F(SqlConnectionTest, AnExecutedStatementTellsOfDamageUntilTheNextOpen) {
    dir.write("Db", std::string(8192, 'x'));
    openIt();
    OutputCapture capture;
    EXPECT_EQ(execute("SELECT a FROM T"), SQLITE_NOTADB);
    EXPECT_TRUE(connection.foundDamage());
    path = dir.file("Sound");
    openIt();
    EXPECT_FALSE(connection.foundDamage());
    execute("SELECT a FROM Nowhere");
    EXPECT_FALSE(connection.foundDamage()) << "an error of the statement itself";
}

// --- transactions ---

class SqlTransactionTest : public SqlConnectionTest {
  protected:
    void SetUp() override {
        SqlConnectionTest::SetUp();
        openIt();
        execute("CREATE TABLE T(a)");
    }

    /// Counts the calls that tell that nothing is sure any more.
    std::function<void()> counting() {
        return [this] { ++doubts; };
    }

    int doubts = 0;
};

/// A transaction that is committed stays.
TEST_F(SqlTransactionTest, WhatIsCommittedStays) {
    {
        SqlConnection::Transaction transaction(connection, "BEGIN IMMEDIATE", counting());
        EXPECT_TRUE(transaction.hasBegun());
        EXPECT_FALSE(transaction.hasEnded());
        EXPECT_TRUE(transaction.execute("INSERT INTO T VALUES(1)", "insert: "));
        EXPECT_TRUE(transaction.commit());
        EXPECT_TRUE(transaction.hasEnded());
    }
    EXPECT_EQ(value("SELECT a FROM T"), "1");
    EXPECT_EQ(doubts, 0);
}

/// A transaction that nobody ended is rolled back at its end.
TEST_F(SqlTransactionTest, WhatNobodyEndedIsRolledBack) {
    {
        SqlConnection::Transaction transaction(connection, "BEGIN IMMEDIATE", counting());
        transaction.execute("INSERT INTO T VALUES(1)", "insert: ");
    }
    EXPECT_FALSE(connection.isInTransaction());
    EXPECT_EQ(value("SELECT COUNT(*) FROM T"), "0");
    EXPECT_EQ(doubts, 1);
}

/// A failed statement of a transaction rolls it back, with its line.
TEST_F(SqlTransactionTest, AFailedStatementRollsItBack) {
    OutputCapture capture;
    {
        SqlConnection::Transaction transaction(connection, "BEGIN IMMEDIATE", counting());
        transaction.execute("INSERT INTO T VALUES(1)", "insert: ");
        EXPECT_FALSE(transaction.execute("INSERT INTO Nowhere VALUES(1)", "insert: "));
        EXPECT_TRUE(transaction.hasEnded());
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: insert: no such table: Nowhere\n");
    EXPECT_EQ(recorded, Texts{"no such table: Nowhere"});
    EXPECT_EQ(value("SELECT COUNT(*) FROM T"), "0");
    EXPECT_EQ(doubts, 0) << "what was counted is corrected by whoever sees the failure";
}

/// A failed commit gets its line, is told, and leaves nothing open.
TEST_F(SqlTransactionTest, AFailedCommitIsToldAndRolledBack) {
    execute(
        "PRAGMA foreign_keys=ON; CREATE TABLE Parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE Child(id INTEGER REFERENCES Parent(id) DEFERRABLE INITIALLY DEFERRED)");
    OutputCapture capture;
    {
        SqlConnection::Transaction transaction(connection, "BEGIN IMMEDIATE", counting());
        EXPECT_TRUE(transaction.execute("INSERT INTO Child VALUES(1)", "insert: "));
        EXPECT_FALSE(transaction.commit());
        EXPECT_GE(doubts, 1);
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n");
    EXPECT_FALSE(connection.isInTransaction());
    EXPECT_EQ(value("SELECT COUNT(*) FROM Child"), "0");
}

/// A transaction that cannot begin gets its line and ends nothing.
TEST_F(SqlTransactionTest, ATransactionThatCannotBeginEndsNothing) {
    SqlConnection::Transaction outer(connection, "BEGIN IMMEDIATE", counting());
    OutputCapture capture;
    {
        SqlConnection::Transaction inner(connection, "BEGIN IMMEDIATE", counting());
        EXPECT_FALSE(inner.hasBegun());
    }
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): cannot start a transaction within a "
              "transaction\n");
    EXPECT_TRUE(connection.isInTransaction()) << "the outer one";
    EXPECT_EQ(doubts, 0);
}

/// A transaction that SQLite ended by itself counts as ended.
TEST_F(SqlTransactionTest, ATransactionThatSqliteEndedCountsAsEnded) {
    sqlite3_db_config(SqlConnectionPeer::handle(connection), SQLITE_DBCONFIG_ENABLE_TRIGGER, 1,
                      nullptr);
    execute("CREATE TRIGGER No BEFORE INSERT ON T BEGIN SELECT RAISE(ROLLBACK,'all gone'); END");
    OutputCapture capture;
    SqlConnection::Transaction transaction(connection, "BEGIN IMMEDIATE", counting());
    connection.execute("INSERT INTO T VALUES(1)", "insert: ");
    EXPECT_TRUE(transaction.hasEnded());
    EXPECT_TRUE(transaction.hasBegun());
}

/// Without an open file no transaction begins.
TEST_F(SqlTransactionTest, WithoutAnOpenFileNoneBegins) {
    connection.close();
    OutputCapture capture;
    SqlConnection::Transaction transaction(connection, "BEGIN IMMEDIATE", counting());
    EXPECT_FALSE(transaction.hasBegun());
    EXPECT_TRUE(transaction.hasEnded());
}

}  // namespace
