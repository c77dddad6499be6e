#include "EventTable.h"

#include <string>
#include <vector>

#include "support/StoreTest.h"

namespace {

class EventTableRowsTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
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
TEST_F(EventTableRowsTest, StoresAnEventWithStatusZeroAndTheTextAsItIs) {
    db->addEvent(3, 4, 5000000000LL, "ui.key.press", "{\"a\": \"\xc3\xa9\\n\"}");
    EXPECT_EQ(rows("SELECT bootCount,standbyCount,kernelTime,type,status,data,typeof(data) "
                   "FROM Events"),
              Texts{"3|4|5000000000|ui.key.press|0|{\"a\": \"\xc3\xa9\\n\"}|text"});
}

/// An event counts its length plus 1, the store that sum plus 1.
///
/// The size of an empty store stays unknown, -1.
TEST_F(EventTableRowsTest, AnEventCountsItsTextPlusOneAndTheStoreOneMore) {
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
TEST_F(EventTableRowsTest, TheSizeIsCountedAgainOnlyWhenUnknown) {
    db->addEvent(1, 1, 1, "t", "0123456789");
    aside("DELETE FROM Events");
    EXPECT_EQ(db->totalEventSize(), 12);
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), -1);
}

/// A known size is incremented, an unknown one recounted.
TEST_F(EventTableRowsTest, IncrementsAKnownSizeAndRecountsAnUnknownOne) {
    EXPECT_EQ(db->incrementEventSize(5), -1);
    aside("INSERT INTO Events VALUES(1,1,1,'t',0,'12345678')");
    EXPECT_EQ(db->incrementEventSize(5), 10);
    EXPECT_EQ(db->incrementEventSize(5), 15);
    EXPECT_EQ(db->incrementEventSize(-3), 12);
}

/// The increment counts bytes, the recount characters.
TEST_F(EventTableRowsTest, TheIncrementCountsBytesAndTheRecountCharacters) {
    db->addEvent(1, 1, 1, "t", "x");
    EXPECT_EQ(db->addEvent(1, 1, 2, "t", "\xc3\xa9\xc3\xa9"), 8);
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), 6);
}

/// A successful insert clears the error.
TEST_F(EventTableRowsTest, ASuccessfulInsertClearsTheError) {
    DB::m_dbError = true;
    db->addEvent(1, 1, 1, "t", "x");
    EXPECT_FALSE(DB::m_dbError);
}

/// A single quote in data or type fails the insert with "SQL error (insert event): ", sets the
/// error and keeps the size.
TEST_F(EventTableRowsTest, AQuoteInTheDataFailsWithSqlitesMessage) {
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
TEST_F(EventTableRowsTest, AQuoteInTheTypeFails) {
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 2, "it's", "x"), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): near \"s\": syntax error\n");
    EXPECT_TRUE(storedData().empty());
}

/// A statement smuggled in by a quote is never run.
TEST_F(EventTableRowsTest, AStatementSmuggledInByAQuoteIsNeverRun) {
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
TEST_F(EventTableRowsTest, ANulInTheTextFailsTheInsert) {
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", std::string("a\0b", 3)), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): unrecognized token: \"'a\"\n");
    EXPECT_TRUE(storedData().empty());
}

/// A NUL, a lock, a missing table or a read-only database fail the insert with their line.
TEST_F(EventTableRowsTest, ALockedDatabaseFailsTheInsert) {
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
TEST_F(EventTableRowsTest, AMissingTableFailsTheInsert) {
    onStore("DROP TABLE Events");
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): no such table: Events\n");
}

/// A NUL, a lock, a missing table or a read-only database fail the insert with their line.
TEST_F(EventTableRowsTest, AReadOnlyDatabaseFailsTheInsert) {
    onStore("PRAGMA query_only = ON");
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), -1);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): attempt to write a readonly database\n");
}

/// A full database refuses to grow beyond 3 MiB, fails the insert and calls back.
TEST_F(EventTableRowsTest, AFullDatabaseFailsTheInsertAndCallsBack) {
    int calls = 0;
    DB::setFullCallback([&calls] { ++calls; });
    OutputCapture capture;
    aside("CREATE TABLE Filler(x); INSERT INTO Filler VALUES(zeroblob(3050000))");
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
TEST_F(EventTableRowsTest, SaysWhatItStoresWhenVerbose) {
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
TEST_F(EventTableRowsTest, ARecountSaysThatItTakesTheLockWhenVerbose) {
    DB::setVerbose(true);
    OutputCapture capture;
    db->totalEventSize();
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivDB: Take lock for totalEventSize\n");
}

// --- reading ---

/// The oldest event is the first in stored order; none is the empty text.
TEST_F(EventTableRowsTest, TheOldestEventIsTheFirstInStoredOrder) {
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
TEST_F(EventTableRowsTest, AnUnreadableOldestEventIsAnEmptyTextWithoutAWord) {
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
TEST_F(EventTableRowsTest, AllEventsComeInStoredOrder) {
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
TEST_F(EventTableRowsTest, OneCycleGivesTheEventsOfTheOldestCycleOnly) {
    db->addEvent(1, 2, 1, "t", "other standby");
    db->addEvent(1, 1, 7, "t", "b");
    db->addEvent(1, 1, 6, "t", "a");
    db->addEvent(2, 1, 5, "t", "other boot");
    DB::EventSet set = db->getEvents(true);
    for (const char* expected : {"a", "b", ""}) EXPECT_EQ(set.getNextAndMark(), expected);
}

/// `getEvents(true)` gives the oldest cycle only; of an empty table it is inactive.
TEST_F(EventTableRowsTest, OneCycleOfAnEmptyTableIsInactive) {
    DB::EventSet set = db->getEvents(true);
    EXPECT_FALSE(set.isOpen());
    EXPECT_FALSE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "");
}

// --- deleting ---

/// Exactly the marked events are deleted, and the size is unknown afterwards.
TEST_F(EventTableRowsTest, DeletesExactlyTheMarkedEvents) {
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

/// A successful delete sets the error, which the trims after it clear.
TEST_F(EventTableRowsTest, ADeleteTrimsThePerCycleTablesAndTheirCommitsClearTheError) {
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

/// A successful delete sets the error, which the trims after it clear.
TEST_F(EventTableRowsTest, ASuccessfulDeleteSetsTheErrorUntilATrimClearsIt) {
    db->addEvent(1, 1, 1, "t", "a");
    makeTrigger(
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
TEST_F(EventTableRowsTest, NoMarksDeleteNothing) {
    db->addEvent(1, 1, 1, "t", "a");
    OutputCapture capture;
    EXPECT_TRUE(db->deleteMarkedEvents(db->getEvents(false)));
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(storedData(), Texts{"a"});
}

/// Verbose, a delete tells query, lock and success.
TEST_F(EventTableRowsTest, SaysWhatItDeletesWhenVerbose) {
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
TEST_F(EventTableRowsTest, ALockedDatabaseFailsTheDelete) {
    db->addEvent(1, 1, 1, "t", "a");
    addForgottenCycles();
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
TEST_F(EventTableRowsTest, AFailedDeleteIsRolledBack) {
    db->addEvent(1, 1, 1, "t", "a");
    db->addEvent(1, 1, 2, "t", "b");
    makeTrigger(
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
TEST_F(EventTableRowsTest, AFailedCommitIsRolledBack) {
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

}  // namespace
