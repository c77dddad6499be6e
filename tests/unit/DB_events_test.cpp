#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "SqlStatement.h"
#include "support/PoisonedOutput.h"
#include "support/StoreTest.h"
#include "support/WaitUntil.h"

namespace {

class DBEventsTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }

    static std::vector<DB::NewEvent> events(int count, const std::string& data = "e") {
        std::vector<DB::NewEvent> made;
        for (int i = 0; i < count; ++i) made.push_back({1, 1, i, "t", data + std::to_string(i)});
        return made;
    }

    /// A set with every stored event marked.
    DB::EventSet allMarked() {
        DB::EventSet set = db->getEvents(false);
        while (!set.getNextAndMark().empty()) continue;
        return set;
    }

    bool transactionIsOpen() { return sqlite3_get_autocommit(DBPeer::connection(*db)) == 0; }
};

// --- single events ---

/// An event is stored with status 0 and its text unaltered.
TEST_F(DBEventsTest, StoresAnEventWithStatusZeroAndTheTextAsItIs) {
    db->addEvent(3, 4, 5000000000LL, "ui.key.press", "{\"a\": \"\xc3\xa9\\n\"}");
    EXPECT_EQ(rows("SELECT bootCount,standbyCount,kernelTime,type,status,data,typeof(data) "
                   "FROM Events"),
              Texts{"3|4|5000000000|ui.key.press|0|{\"a\": \"\xc3\xa9\\n\"}|text"});
}

/// An event counts its length plus 1, the store that sum plus 1.
///
/// The size of an empty store stays unknown, -1.
TEST_F(DBEventsTest, AnEventCountsItsTextPlusOneAndTheStoreOneMore) {
    EXPECT_EQ(db->totalEventSize(), -1);
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "0123456789"), 12);
    EXPECT_EQ(db->totalEventSize(), 12);
    EXPECT_EQ(db->addEvent(1, 1, 2, "t", "01234"), 18);
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), 18);
    EXPECT_EQ(DB::m_TotalEventSize, 18);
}

/// The size of an empty store stays unknown, -1.
///
/// A known size is incremented, an unknown one recounted.
TEST_F(DBEventsTest, TheSizeIsCountedAgainOnlyWhenUnknown) {
    db->addEvent(1, 1, 1, "t", "0123456789");
    aside("DELETE FROM Events");
    EXPECT_EQ(db->totalEventSize(), 12);
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), -1);
}

/// A known size is incremented, an unknown one recounted.
TEST_F(DBEventsTest, IncrementsAKnownSizeAndRecountsAnUnknownOne) {
    EXPECT_EQ(db->incrementEventSize(5), -1);
    aside("INSERT INTO Events VALUES(1,1,1,'t',0,'12345678')");
    EXPECT_EQ(db->incrementEventSize(5), 10);
    EXPECT_EQ(db->incrementEventSize(5), 15);
    EXPECT_EQ(db->incrementEventSize(-3), 12);
}

/// The increment counts bytes, the recount characters.
TEST_F(DBEventsTest, TheIncrementCountsBytesAndTheRecountCharacters) {
    db->addEvent(1, 1, 1, "t", "x");
    EXPECT_EQ(db->addEvent(1, 1, 2, "t", "\xc3\xa9\xc3\xa9"), 8);
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), 6);
}

/// A successful insert clears the error.
TEST_F(DBEventsTest, ASuccessfulInsertClearsTheError) {
    DB::m_dbError = true;
    db->addEvent(1, 1, 1, "t", "x");
    EXPECT_FALSE(DB::m_dbError);
}

/// A single quote in data or type fails the insert with "SQL error (insert event): ", sets the
/// error and keeps the size.
TEST_F(DBEventsTest, AQuoteInTheDataFailsWithSqlitesMessage) {
    db->addEvent(1, 1, 1, "t", "x");
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 2, "t", "it's"), 3);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): near \"s\": syntax error\n");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::lastErrorMessage(), "near \"s\": syntax error");
    EXPECT_EQ(storedData(), Texts{"x"});
}

/// A single quote in data or type fails the insert with "SQL error (insert event): ", sets the
/// error and keeps the size.
TEST_F(DBEventsTest, AQuoteInTheTypeFails) {
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 2, "it's", "x"), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): near \"s\": syntax error\n");
    EXPECT_TRUE(storedData().empty());
}

/// A statement smuggled in by a quote is never run.
TEST_F(DBEventsTest, AStatementSmuggledInByAQuoteIsNeverRun) {
    db->addEvent(1, 1, 1, "t", "x");
    db->addFile("a", "b", "c");
    OutputCapture capture;
    for (const char* data :
         {"y'); DELETE FROM Events; --", "y'); DROP TABLE Files; --", "y'), (1,1,1,'t',0,'z"}) {
        EXPECT_EQ(db->addEvent(1, 1, 2, "t", data), 3) << data;
        EXPECT_EQ(DB::lastErrorMessage(), "single quote in the event's text") << data;
    }
    db->addEvent(1, 1, 2, "t", "doubled '' quotes");
    db->addEvent(1, 1, 2, "u', 0, 'v'); DELETE FROM Events; --", "x");
    capture.stop();
    const std::string line = "kivDB: SQL error (insert event): single quote in the event's text\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line + line + line + line);
    EXPECT_EQ(storedData(), Texts{"x"});
    EXPECT_EQ(db->getNumberOfFiles(), 1);
}

/// A NUL, a lock, a missing table or a read-only database fail the insert with their line.
TEST_F(DBEventsTest, ANulInTheTextFailsTheInsert) {
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", std::string("a\0b", 3)), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): unrecognized token: \"'a\"\n");
    EXPECT_TRUE(storedData().empty());
}

/// A NUL, a lock, a missing table or a read-only database fail the insert with their line.
TEST_F(DBEventsTest, ALockedDatabaseFailsTheInsert) {
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), -1);
    capture.stop();
    locker.run("ROLLBACK");
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): database is locked\n");
    EXPECT_EQ(DB::lastErrorMessage(), "database is locked");
}

/// A NUL, a lock, a missing table or a read-only database fail the insert with their line.
TEST_F(DBEventsTest, AMissingTableFailsTheInsert) {
    onStore("DROP TABLE Events");
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): no such table: Events\n");
}

/// A NUL, a lock, a missing table or a read-only database fail the insert with their line.
TEST_F(DBEventsTest, AReadOnlyDatabaseFailsTheInsert) {
    onStore("PRAGMA query_only = ON");
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): attempt to write a readonly database\n");
}

/// A full database refuses to grow beyond 3 MiB, fails the insert and calls back.
TEST_F(DBEventsTest, ADatabaseFilledByFilesFailsTheInsertAndCallsBack) {
    int calls = 0;
    DB::setFullCallback([&calls] { ++calls; });
    OutputCapture capture;
    for (int i = 0; i < 100; ++i) {
        db->addFile("file" + std::to_string(i), "/tmp/f", std::string(100000, 'i'));
    }
    EXPECT_NE(capture.err(), "");
    EXPECT_LT(db->getNumberOfFiles(), 40);
    EXPECT_EQ(calls, 0);
    long last = 0;
    for (int i = 0; i < 100 && calls == 0; ++i) {
        last = db->addEvent(1, 1, i, "t", std::string(1000, 'x'));
    }
    capture.stop();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(last, DB::m_TotalEventSize);
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::lastErrorMessage(), "database or disk is full");
    EXPECT_LE(std::stol(value("PRAGMA page_count")) * 4096, 3145728);
}

/// Verbose, an insert tells lock, query, success and new size.
TEST_F(DBEventsTest, SaysWhatItStoresWhenVerbose) {
    db->addEvent(1, 1, 1, "t", "x");
    DB::setVerbose(true);
    OutputCapture capture;
    db->addEvent(-7, 8, 5000000000LL, "ty pe", "{\"a\": 1}");
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDB: Take lock for adding event\n"
              "kivDB: Query is INSERT INTO Events (bootCount, standbyCount, kernelTime, type, "
              "status, data) VALUES (-7, 8, 5000000000, 'ty pe', 0, '{\"a\": 1}' );\n"
              "kivDB: Records created successfully\n"
              "kivDB:  Updated total event size to: 12\n");
}

/// Verbose, a recount tells its lock.
TEST_F(DBEventsTest, ARecountSaysThatItTakesTheLockWhenVerbose) {
    DB::setVerbose(true);
    OutputCapture capture;
    db->totalEventSize();
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivDB: Take lock for totalEventSize\n");
}

// --- reading ---

/// The oldest event is the first in stored order; none is the empty text.
TEST_F(DBEventsTest, TheOldestEventIsTheFirstInStoredOrder) {
    EXPECT_EQ(db->getOldestEvent(), "");
    db->addEvent(2, 1, 1, "t", "later boot");
    db->addEvent(1, 2, 1, "t", "later standby");
    db->addEvent(1, 1, 9, "t", "later");
    db->addEvent(1, 1, 8, "t", "oldest");
    DB::setVerbose(true);
    OutputCapture capture;
    EXPECT_EQ(db->getOldestEvent(), "oldest");
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivDB: Take lock for getOldestEvent\n");
}

/// Reads of events that fail are empty, without a line.
TEST_F(DBEventsTest, AnUnreadableOldestEventIsAnEmptyTextWithoutAWord) {
    onStore("DROP TABLE Events");
    OutputCapture capture;
    EXPECT_EQ(db->getOldestEvent(), "");
    EXPECT_FALSE(db->getEvents(true).isOpen());
    EXPECT_FALSE(db->getEvents(false).isActive());
    EXPECT_EQ(db->totalEventSize(), -1);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// `getEvents(false)` gives all events by boot, standby, kernel time.
TEST_F(DBEventsTest, AllEventsComeInStoredOrder) {
    db->addEvent(2, 0, 1, "t", "d");
    db->addEvent(1, 10, 1, "t", "c");
    db->addEvent(1, 9, 30, "t", "b");
    db->addEvent(1, 9, 4, "t", "a");
    DB::EventSet set = db->getEvents(false);
    for (const char* expected : {"a", "b", "c", "d", ""}) {
        EXPECT_EQ(set.getNextAndMark(), expected);
    }
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{4, 3, 2, 1}));
    EXPECT_FALSE(set.isOpen());
}

/// `getEvents(true)` gives the oldest cycle only; of an empty table it is inactive.
TEST_F(DBEventsTest, OneCycleGivesTheEventsOfTheOldestCycleOnly) {
    db->addEvent(1, 2, 1, "t", "other standby");
    db->addEvent(1, 1, 7, "t", "b");
    db->addEvent(1, 1, 6, "t", "a");
    db->addEvent(2, 1, 5, "t", "other boot");
    DB::EventSet set = db->getEvents(true);
    for (const char* expected : {"a", "b", ""}) EXPECT_EQ(set.getNextAndMark(), expected);
}

/// `getEvents(true)` gives the oldest cycle only; of an empty table it is inactive.
TEST_F(DBEventsTest, OneCycleOfAnEmptyTableIsInactive) {
    DB::EventSet set = db->getEvents(true);
    EXPECT_FALSE(set.isOpen());
    EXPECT_FALSE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "");
}

// --- deleting ---

/// Exactly the marked events are deleted, and the size is unknown afterwards.
TEST_F(DBEventsTest, DeletesExactlyTheMarkedEvents) {
    for (const char* data : {"a", "b", "c"}) db->addEvent(1, 1, data[0], "t", data);
    DB::EventSet set = db->getEvents(false);
    for (int i = 0; i < 3; ++i) set.getNextAndMark();
    set.unmarkLast();
    set.close();
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    EXPECT_EQ(storedData(), Texts{"c"});
    EXPECT_EQ(DB::m_TotalEventSize, -1);
    EXPECT_EQ(db->totalEventSize(), 3);
}

/// A successful delete sets the error; the trims that follow clear it.
TEST_F(DBEventsTest, ADeleteTrimsThePerCycleTablesAndTheirCommitsClearTheError) {
    db->addEvent(1, 1, 1, "t", "a");
    db->setStartTime(1, 1, 5);
    db->setStartTime(2, 1, 6);
    db->setOpTime(1, 1, 5);
    db->setOpTime(2, 1, 6);
    EXPECT_TRUE(db->deleteMarkedEvents(allMarked()));
    EXPECT_EQ(rows("SELECT bootCount FROM TimeOffsets"), Texts{"2"});
    EXPECT_EQ(rows("SELECT bootCount FROM OpTimes"), Texts{"2"});
    EXPECT_FALSE(DB::m_dbError);
}

/// A successful delete sets the error; the trims that follow clear it.
TEST_F(DBEventsTest, ASuccessfulDeleteSetsTheErrorUntilATrimClearsIt) {
    db->addEvent(1, 1, 1, "t", "a");
    aside(
        "INSERT INTO TimeOffsets VALUES(1,1,0,1,0),(2,1,0,1,0);"
        "INSERT INTO OpTimes VALUES(1,1,1),(2,1,1);"
        "CREATE TRIGGER KeepT BEFORE DELETE ON TimeOffsets BEGIN SELECT RAISE(ABORT,'t'); END;"
        "CREATE TRIGGER KeepO BEFORE DELETE ON OpTimes BEGIN SELECT RAISE(ABORT,'o'); END;");
    OutputCapture capture;
    EXPECT_TRUE(db->deleteMarkedEvents(allMarked()));
    capture.stop();
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (delete from TimeOffsets): t\n"
              "kivDB: SQL error (delete from OpTimes): o\n");
}

/// Exactly the marked events are deleted, and the size is unknown afterwards.
TEST_F(DBEventsTest, NoMarksDeleteNothing) {
    db->addEvent(1, 1, 1, "t", "a");
    OutputCapture capture;
    EXPECT_TRUE(db->deleteMarkedEvents(db->getEvents(false)));
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(storedData(), Texts{"a"});
}

/// Verbose, a delete tells query, lock and success.
TEST_F(DBEventsTest, SaysWhatItDeletesWhenVerbose) {
    for (const char* data : {"a", "b", "c"}) db->addEvent(1, 1, data[0], "t", data);
    const DB::EventSet set = allMarked();
    DB::setVerbose(true);
    OutputCapture capture;
    db->deleteMarkedEvents(set);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDB: Query is DELETE FROM Events WHERE ROWID IN (1,2,3);\n"
              "kivDB: Taking lock for deleteMarkedEvents\n"
              "kivDB: Records deleted successfully\n"
              "kivDB: Take lock for pruneSessionBasedTable\n"
              "kivDB: Records in TimeOffsets deleted successfully\n"
              "kivDB: Take lock for pruneSessionBasedTable\n"
              "kivDB: Records in OpTimes deleted successfully\n");
}

/// A delete that cannot begin, run or commit gets its line, is rolled back and deletes nothing.
TEST_F(DBEventsTest, ALockedDatabaseFailsTheDelete) {
    db->addEvent(1, 1, 1, "t", "a");
    const DB::EventSet set = allMarked();
    PlainDatabase reader(path);
    reader.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    EXPECT_FALSE(db->deleteMarkedEvents(set));
    capture.stop();
    reader.run("ROLLBACK");
    const std::string line = "kivDB: SQL error (begin transaction): database is locked\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line + line) << "the trims fail as well";
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::m_TotalEventSize, -1);
    EXPECT_EQ(storedData(), Texts{"a"});
}

/// A delete that cannot begin, run or commit gets its line, is rolled back and deletes nothing.
TEST_F(DBEventsTest, AFailedDeleteIsRolledBack) {
    db->addEvent(1, 1, 1, "t", "a");
    db->addEvent(1, 1, 2, "t", "b");
    aside(
        "CREATE TRIGGER KeepB BEFORE DELETE ON Events WHEN old.data='b' "
        "BEGIN SELECT RAISE(FAIL,'b stays'); END");
    OutputCapture capture;
    EXPECT_FALSE(db->deleteMarkedEvents(allMarked()));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (delete): b stays\n");
    EXPECT_EQ(DB::lastErrorMessage(), "b stays");
    EXPECT_EQ(storedData(), (Texts{"a", "b"}));
    EXPECT_EQ(DB::m_TotalEventSize, -1);
    EXPECT_FALSE(transactionIsOpen());
}

/// A delete that cannot begin, run or commit gets its line, is rolled back and deletes nothing.
TEST_F(DBEventsTest, AFailedCommitIsRolledBack) {
    db->addEvent(1, 1, 1, "t", "a");
    const DB::EventSet set = allMarked();
    breakCommitsAfter("DELETE ON Events");
    OutputCapture capture;
    EXPECT_FALSE(db->deleteMarkedEvents(set));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n");
    EXPECT_EQ(DB::lastErrorMessage(), "FOREIGN KEY constraint failed");
    EXPECT_EQ(storedData(), Texts{"a"});
    EXPECT_FALSE(transactionIsOpen());
    EXPECT_EQ(db->addEvent(1, 1, 2, "t", "b"), 5);
}

// --- batches ---

/// A batch is one transaction of at most 256 events.
TEST_F(DBEventsTest, ABatchStoresAtMost256Events) {
    const auto all = events(600);
    std::size_t taken = 99;
    std::vector<DB::NewEvent> rest = all;
    std::vector<std::size_t> steps;
    while (!rest.empty()) {
        const long total = db->addEvents(rest, taken);
        steps.push_back(taken);
        EXPECT_EQ(total, DB::m_TotalEventSize);
        rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(taken));
    }
    EXPECT_EQ(steps, (std::vector<std::size_t>{256, 256, 88}));
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "600");
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), 600 * 2 + 10 + 90 * 2 + 500 * 3 + 1);
}

/// A batch is one transaction of at most 256 events.
TEST_F(DBEventsTest, AnEmptyBatchIsNothing) {
    DB::m_TotalEventSize = 17;
    std::size_t taken = 99;
    EXPECT_EQ(db->addEvents({}, taken), 17);
    EXPECT_EQ(taken, 0u);
}

/// A batch returns what its last event would have, and ends above the threshold.
TEST_F(DBEventsTest, ABatchReturnsWhatTheLastEventWouldHave) {
    std::size_t taken = 0;
    EXPECT_EQ(db->addEvents(events(3), taken), 3 * 3 + 1);
    EXPECT_EQ(taken, 3u);
}

/// A batch returns what its last event would have, and ends above the threshold.
TEST_F(DBEventsTest, ABatchEndsWhenTheSizePassesTheThreshold) {
    DBPeer::setPruneSizes(*db, 100, 1000000);
    std::size_t taken = 0;
    const long total = db->addEvents(events(200, std::string(18, 'x')), taken);
    EXPECT_EQ(taken, 5u) << "1 + 5 * 20";
    EXPECT_EQ(total, 101);
    EXPECT_EQ(storedData().size(), 5u);
}

/// A batch is one transaction of at most 256 events.
TEST_F(DBEventsTest, ABatchIsOneTransaction) {
    std::atomic<int> commits{0};
    sqlite3_commit_hook(
        DBPeer::connection(*db),
        [](void* counter) {
            ++*static_cast<std::atomic<int>*>(counter);
            return 0;
        },
        &commits);
    std::size_t taken = 0;
    db->addEvents(events(200), taken);
    EXPECT_EQ(commits, 1);
    db->addEvents(events(20), taken);
    EXPECT_EQ(commits, 2);
}

/// An event that fails alone in a batch fails alone.
TEST_F(DBEventsTest, AnEventThatFailsAloneInABatchFailsAlone) {
    auto batch = events(5);
    batch[2].data = "it's";
    batch[4].type = "it's";
    OutputCapture capture;
    std::size_t taken = 0;
    EXPECT_EQ(db->addEvents(batch, taken), 3 * 3 + 1);
    capture.stop();
    EXPECT_EQ(taken, 5u);
    const std::string line = "kivDB: SQL error (insert event): near \"s\": syntax error\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    EXPECT_EQ(storedData(), (Texts{"e0", "e1", "e3"}));
}

/// An event that fails alone in a batch fails alone.
TEST_F(DBEventsTest, AConstraintThatRefusesOneEventOfABatchCostsNoOther) {
    aside(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.data='e1' "
        "BEGIN SELECT RAISE(ABORT,'refused'); END");
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(3), taken);
    capture.stop();
    EXPECT_EQ(taken, 3u);
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (insert event): refused\n");
    EXPECT_EQ(storedData(), (Texts{"e0", "e2"}));
}

/// When SQLite ends the transaction or the commit fails, the batch is stored again one by one.
TEST_F(DBEventsTest, WhatAFullDatabaseTookFromABatchIsStoredSingly) {
    onStore("PRAGMA max_page_count = " + std::to_string(std::stoi(value("PRAGMA page_count")) + 4));
    std::atomic<int> calls{0};
    DB::setFullCallback([&calls] { ++calls; });
    const auto batch = events(50, std::string(1000, 'x'));
    OutputCapture capture;
    std::size_t taken = 0;
    const long total = db->addEvents(batch, taken);
    capture.stop();
    const Texts stored = storedData();
    ASSERT_GT(stored.size(), 5u);
    ASSERT_LT(stored.size(), 50u);
    EXPECT_EQ(taken, stored.size() + 1) << "all before the one that did not fit, and that one";
    for (std::size_t i = 0; i < stored.size(); ++i) EXPECT_EQ(stored[i], batch[i].data);
    const std::string line = "kivDB: SQL error (insert event): database or disk is full\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_FALSE(transactionIsOpen());
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), total);
}

/// When SQLite ends the transaction or the commit fails, the batch is stored again one by one.
TEST_F(DBEventsTest, ATransactionEndedBySqliteItselfLosesNoEventOfABatch) {
    aside(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.data='e3' "
        "BEGIN SELECT RAISE(ROLLBACK,'all gone'); END");
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(6), taken);
    capture.stop();
    EXPECT_EQ(taken, 4u);
    EXPECT_EQ(storedData(), (Texts{"e0", "e1", "e2"}));
    const std::string line = "kivDB: SQL error (insert event): all gone\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    EXPECT_FALSE(transactionIsOpen());
}

/// When SQLite ends the transaction or the commit fails, the batch is stored again one by one.
TEST_F(DBEventsTest, AFailedCommitOfABatchIsRolledBackAndTriedSingly) {
    // Whatever transaction stores "e2" cannot be committed.
    onStore(
        "PRAGMA foreign_keys=ON;"
        "CREATE TABLE Parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE Child(id INTEGER REFERENCES Parent(id) DEFERRABLE INITIALLY DEFERRED);"
        "CREATE TRIGGER Orphan AFTER INSERT ON Events WHEN new.data='e2' "
        "BEGIN INSERT INTO Child VALUES(1); END;");
    int rollbacks = 0;
    sqlite3_rollback_hook(
        DBPeer::connection(*db), [](void* counter) { ++*static_cast<int*>(counter); }, &rollbacks);
    OutputCapture capture;
    std::size_t taken = 0;
    const long total = db->addEvents(events(4), taken);
    capture.stop();
    EXPECT_EQ(taken, 4u);
    // Singly, "e2" breaks its own commit only.
    EXPECT_EQ(storedData(), (Texts{"e0", "e1", "e3"}));
    EXPECT_EQ(total, 10);
    EXPECT_GE(rollbacks, 1);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n"
              "kivDB: SQL error (insert event): FOREIGN KEY constraint failed\n");
    EXPECT_FALSE(transactionIsOpen());
}

/// Other readers and writers delay a batch and cost no event.
TEST_F(DBEventsTest, AReaderThatBlocksTheCommitForLongMakesTheBatchWait) {
    db->addEvent(1, 1, 0, "t", "first");
    DB::EventSet reader = db->getEvents(false);
    reader.getNextAndMark();
    OutputCapture capture;
    std::size_t taken = 7;
    const long total = db->addEvents(events(2), taken);
    capture.stop();
    EXPECT_EQ(taken, 0u) << "to be tried again, nothing is lost";
    EXPECT_EQ(total, 7);
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (commit): database is locked\n");
    reader.close();
    EXPECT_EQ(storedData(), Texts{"first"});
    EXPECT_FALSE(transactionIsOpen());
    db->addEvents(events(2), taken);
    EXPECT_EQ(taken, 2u);
    EXPECT_EQ(storedData().size(), 3u);
}

/// Other readers and writers delay a batch and cost no event.
TEST_F(DBEventsTest, AWriterThatBlocksTheBeginForLongMakesTheBatchWait) {
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    std::size_t taken = 7;
    EXPECT_EQ(db->addEvents(events(2), taken), -1);
    capture.stop();
    locker.run("ROLLBACK");
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n");
}

/// Other readers and writers delay a batch and cost no event.
TEST_F(DBEventsTest, AReaderThatReadsForAMomentDelaysTheBatchOnly) {
    db->addEvent(1, 1, 0, "t", "first");
    std::atomic<bool> reading{false};
    std::thread reader([&] {
        PlainDatabase other(path);
        other.run("BEGIN");
        other.rows("SELECT * FROM Events");
        reading = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        other.run("ROLLBACK");
    });
    EXPECT_TRUE(WaitUntil([&] { return reading.load(); }));
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(2), taken);
    reader.join();
    capture.stop();
    EXPECT_EQ(taken, 2u);
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(storedData().size(), 3u);
}

/// A store that another process locks for less than 30 s loses no event; after that each is
/// tried once.
TEST_F(DBEventsTest, AForeignLockOfMoreThanThirtySecondsCostsTheBatch) {
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    DBPeer::setBusySince(*db, std::chrono::steady_clock::now() - std::chrono::seconds(31));
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(2), taken);
    capture.stop();
    locker.run("ROLLBACK");
    EXPECT_EQ(taken, 2u);
    const std::string line = "kivDB: SQL error (insert event): database is locked\n";
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n" + line + line);
    EXPECT_TRUE(storedData().empty());
}

/// An exception among events that are stored singly costs that event alone.
TEST_F(DBEventsTest, AnExceptionAmidSinglyStoredEventsCostsThatEventAlone) {
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    DBPeer::setBusySince(*db, std::chrono::steady_clock::now() - std::chrono::seconds(31));
    std::size_t taken = 0;
    OutputCapture capture;
    DB::setVerbose(true);
    {
        const PoisonedOutput output("'e1'", [] { DB::setVerbose(false); });
        db->addEvents(events(3), taken);
    }
    capture.stop();
    locker.run("ROLLBACK");
    EXPECT_EQ(taken, 3u) << "none is tried again";
    const std::string line = "kivDB: SQL error (insert event): database is locked\n";
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n" + line +
                  "kivDB: Event could not be stored: poisoned\n" + line);
    SqlStatement timeout(DBPeer::connection(*db), "PRAGMA busy_timeout");
    ASSERT_EQ(timeout.step(), SQLITE_ROW);
    EXPECT_EQ(timeout.columnInt64(0), 1000) << "statements wait for readers again";
}

/// A store that another process locks for less than 30 s loses no event; after that each is
/// tried once.
TEST_F(DBEventsTest, AForeignLockIsTimedFromItsOwnBeginning) {
    DBPeer::setBusySince(*db, std::chrono::steady_clock::now() - std::chrono::seconds(31));
    std::size_t taken = 0;
    db->addEvents(events(1), taken);
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    db->addEvents(events(2), taken);
    locker.run("ROLLBACK");
    EXPECT_EQ(taken, 0u) << "waits";
}

/// An exception in the middle of a batch rolls the batch back; it is stored later, once.
TEST_F(DBEventsTest, AnExceptionAmidABatchLeavesNothingOfItAndNoTransaction) {
    db->addEvent(1, 1, 0, "t", "first");
    std::size_t taken = 0;
    DB::setVerbose(true);
    {
        const PoisonedOutput output("'e2'", [] { DB::setVerbose(false); });
        EXPECT_THROW(db->addEvents(events(4), taken), std::runtime_error);
    }
    EXPECT_FALSE(transactionIsOpen());
    EXPECT_EQ(DB::m_TotalEventSize, -1);
    EXPECT_EQ(storedData(), Texts{"first"});
    db->addEvents(events(4), taken);
    EXPECT_EQ(storedData(), (Texts{"first", "e0", "e1", "e2", "e3"}));
}

/// Without a connection a batch fails event by event.
TEST_F(DBEventsTest, ABatchWithoutAConnectionFailsEventByEvent) {
    DB closed;
    OutputCapture capture;
    std::size_t taken = 0;
    EXPECT_EQ(closed.addEvents(events(1), taken), -1);
    capture.stop();
    EXPECT_EQ(taken, 1u);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): bad parameter or other API misuse\n"
              "kivDB: SQL error (insert event): bad parameter or other API misuse\n");
}

// --- power cuts and several connections ---

/// A killed writer leaves whole batches and a sound file.
TEST_F(DBEventsTest, AKilledWriterLeavesWholeBatchesOnly) {
    constexpr int kBatch = 100;
    db.reset();
    int progress[2];
    ASSERT_EQ(::pipe(progress), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        DB writer;
        DBPeer::setPruneSizes(writer, 100000000, 100000000);
        writer.open(path, false);
        for (;;) {
            std::size_t taken = 0;
            writer.addEvents(events(kBatch), taken);
            const char done = taken == kBatch ? '.' : '!';
            if (::write(progress[1], &done, 1) != 1) ::_exit(1);
        }
    }
    ::close(progress[1]);
    int whole = 0;
    char done = 0;
    while (whole < 20 && ::read(progress[0], &done, 1) == 1 && done == '.') ++whole;
    EXPECT_EQ(whole, 20);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    while (::read(progress[0], &done, 1) == 1 && done == '.') ++whole;
    ::close(progress[0]);

    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    const int stored = std::stoi(value("SELECT COUNT(*) FROM Events"));
    EXPECT_EQ(stored % kBatch, 0);
    EXPECT_GE(stored, whole * kBatch);
    EXPECT_LE(stored, (whole + 1) * kBatch);
    DB again;
    again.open(path, false);
    const long total = again.addEvent(9, 9, 9, "t", "usable");
    EXPECT_EQ(total, std::stol(value("SELECT SUM(length(data)+1)+1 FROM Events")));
}

/// Connections of several threads lose no event.
TEST_F(DBEventsTest, ConnectionsOfSeveralThreadsLoseNoEvent) {
    constexpr int kThreads = 4;
    constexpr int kEach = 60;
    OutputCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            DB own;
            own.open(path, false);
            for (int i = 0; i < kEach; ++i) {
                own.addEvent(t, 1, i, "t", "x");
                own.setStartTime(t, 1, 0, i);
                own.totalEventSize();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), std::to_string(kThreads * kEach));
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
}

}  // namespace
