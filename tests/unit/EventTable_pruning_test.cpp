#include "EventTable.h"

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include "EventType.h"
#include "JsonObject.h"
#include "support/HoldingOutput.h"
#include "support/NewThreads.h"
#include "support/StoreTest.h"
#include "support/WaitUntil.h"

namespace {

constexpr long kThreshold = 131072;
constexpr long kTarget = 94208;

class EventTablePruningTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }

    /// Adds `count` events of `size` bytes each (with the one that counts for the row), kernel
    /// times from `first` on.
    void addMany(int count, int size, int first = 0) {
        for (int i = first; i < first + count; ++i) {
            db->addEvent(1, 1, i, "t", std::string(static_cast<std::size_t>(size - 1), 'x'));
        }
    }

    void addInBatches(std::vector<DB::NewEvent> events) {
        while (!events.empty()) {
            std::size_t taken = 0;
            db->addEvents(events, taken);
            events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(taken));
        }
    }

    static std::string overflowText(long long lowest, long long highest) {
        return "{\"event-type\": \"logging.overflow\", \"eventid\": " +
               std::to_string(EventType("logging.overflow").getId()) +
               ", \"boot-count\": 1, \"standby-count\": 1, \"kernel-time\": " +
               std::to_string(lowest) +
               ", \"data\": {\"lowest-boot-count\": 1, \"lowest-standby-count\": 1, "
               "\"lowest-kernel-time\": " +
               std::to_string(lowest) +
               ", \"highest-boot-count\": 1, \"highest-standby-count\": 1, "
               "\"highest-kernel-time\": " +
               std::to_string(highest) + "}}";
    }

    long recount() { return std::stol(value("SELECT SUM(length(data)+1)+1 FROM Events")); }

    /// Kernel times of the events in `texts`, and all that the overflow events among them name.
    static void collect(const Texts& timesAndTexts, std::multiset<long long>& times) {
        for (const auto& row : timesAndTexts) {
            const auto bar = row.find('|');
            const JsonObject event = JsonObject::parse(row.substr(bar + 1));
            if (event.optString("event-type") != "logging.overflow") {
                times.insert(std::stoll(row.substr(0, bar)));
                continue;
            }
            const JsonObject range = event.getObject("data");
            for (long long t = range.optInteger("lowest-kernel-time", -1);
                 t <= range.optInteger("highest-kernel-time", -2); ++t) {
                times.insert(t);
            }
        }
    }
    void collectStored(std::multiset<long long>& times) {
        collect(rows("SELECT kernelTime,data FROM Events"), times);
    }

    bool transactionIsOpen() { return sqlite3_get_autocommit(DBPeer::connection(*db)) == 0; }
};

// --- what pruning does ---

/// Pruning removes oldest first down to the limit and adds one overflow event in the oldest's
/// place.
///
/// Pruning clears the error, corrects the cached size and trims the per-cycle tables.
TEST_F(EventTablePruningTest, RemovesTheOldestUntilTheRestIsAtOrBelowTheLimit) {
    DBPeer::setPruneSizes(*db, 1000000, 1000000);
    std::vector<DB::NewEvent> events;
    for (int i = 0; i < 1310; ++i) events.push_back({1, 1, i, "t", std::string(99, 'x')});
    events.push_back({1, 1, 1310, "t", std::string(98, 'x')});
    addInBatches(events);
    ASSERT_EQ(db->totalEventSize(), 131100);
    db->pruneAboveSize(kTarget);
    // 36892 bytes above the limit: 369 events of 100 bytes.
    EXPECT_EQ(rows("SELECT bootCount,standbyCount,kernelTime,type,status,data FROM Events "
                   "ORDER BY bootCount,standbyCount,kernelTime LIMIT 1"),
              Texts{"1|1|0|logging.overflow|0|" + overflowText(0, 368)});
    EXPECT_EQ(rows("SELECT COUNT(*),MIN(kernelTime),MAX(kernelTime) FROM Events WHERE type='t'"),
              Texts{"942|369|1310"});
    const long overflow = static_cast<long>(overflowText(0, 368).size()) + 1;
    EXPECT_EQ(DB::m_TotalEventSize, 131100 - 36900 + overflow);
    EXPECT_EQ(DB::m_TotalEventSize, recount());
}

/// Pruning removes oldest first down to the limit and adds one overflow event in the oldest's
/// place.
TEST_F(EventTablePruningTest, TheOverflowEventIsTheFirstOfTheNextUpload) {
    addMany(5, 50);
    db->pruneAboveSize(120);
    DB::EventSet set = db->getEvents(false);
    EXPECT_EQ(set.getNextAndMark(), overflowText(0, 2));
    EXPECT_EQ(set.getNextAndMark(), std::string(49, 'x'));
}

/// Where one deletion is enough both ends of the range are equal.
TEST_F(EventTablePruningTest, ASingleDeletedEventGivesEqualEnds) {
    addMany(5, 50);
    db->pruneAboveSize(250);
    EXPECT_EQ(db->getOldestEvent(), overflowText(0, 0));
    EXPECT_EQ(storedData().size(), 5u);
}

/// At or below the limit pruning only logs.
TEST_F(EventTablePruningTest, AtOrBelowTheLimitItDoesNothingButLog) {
    addMany(5, 50);
    aside("INSERT INTO OpTimes VALUES(0,0,1),(0,1,1)");
    DB::m_dbError = true;
    DB::setVerbose(true);
    OutputCapture capture;
    db->pruneAboveSize(251);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDB: Take lock for pruneAboveSize\n"
              "kivDB: Take lock for totalEventSize\n"
              "kivDB:  PruneAboveSize invoked for limit 251 while size is 251\n");
    EXPECT_EQ(storedData().size(), 5u);
    EXPECT_EQ(value("SELECT COUNT(*) FROM OpTimes"), "2");
    EXPECT_TRUE(DB::m_dbError);
}

/// Verbose, pruning tells what it found and added.
TEST_F(EventTablePruningTest, SaysWhatItDoesWhenVerbose) {
    addMany(3, 50);
    DB::setVerbose(true);
    OutputCapture capture;
    db->pruneAboveSize(51);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDB: Take lock for pruneAboveSize\n"
              "kivDB: Take lock for totalEventSize\n"
              "kivDB:  PruneAboveSize invoked for limit 51 while size is 151\n"
              "kivDB:  Found 2 events to be deleted, totalling 100 bytes\n"
              "kivDB:  Adding new event: " +
                  JsonObject::parse(overflowText(0, 1)).getStringRep() +
                  "\n"
                  "kivDB: Completing pruning transaction ...\n"
                  "kivDB: Take lock for pruneSessionBasedTable\n"
                  "kivDB: Records in TimeOffsets deleted successfully\n"
                  "kivDB: Take lock for pruneSessionBasedTable\n"
                  "kivDB: Records in OpTimes deleted successfully\n");
    EXPECT_EQ(capture.err(), "");
}

/// Pruning clears the error, corrects the cached size and trims the per-cycle tables.
TEST_F(EventTablePruningTest, ClearsTheErrorAndTrimsThePerCycleTables) {
    db->addEvent(1, 1, 1, "t", "x");
    db->addEvent(2, 1, 1, "t", "x");
    db->addEvent(3, 1, 1, "t", "x");
    for (int boot = 1; boot <= 4; ++boot) {
        db->setStartTime(boot, 1, 5);
        db->setOpTime(boot, 1, 5);
    }
    DB::m_dbError = true;
    db->pruneAboveSize(3);
    EXPECT_EQ(rows("SELECT bootCount FROM TimeOffsets"), (Texts{"1", "3", "4"}))
        << "cycle 1 has the overflow event";
    EXPECT_EQ(rows("SELECT bootCount FROM OpTimes"), (Texts{"1", "3", "4"}));
    EXPECT_FALSE(DB::m_dbError);
}

/// Pruning that selects nothing does nothing.
TEST_F(EventTablePruningTest, SelectingNothingDoesNothing) {
    DB::m_TotalEventSize = 5000;
    db->setOpTime(1, 1, 5);
    db->setOpTime(2, 1, 5);
    OutputCapture capture;
    db->pruneAboveSize(100);
    onStore("ALTER TABLE Events RENAME TO Elsewhere");
    db->pruneAboveSize(100);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(DB::m_TotalEventSize, 5000);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Elsewhere"), "0");
    EXPECT_EQ(value("SELECT COUNT(*) FROM OpTimes"), "2");
}

/// A pruned overflow event hands its range on.
TEST_F(EventTablePruningTest, APrunedOverflowEventHandsItsRangeOn) {
    addMany(9, 1000);
    db->pruneAboveSize(5001);
    EXPECT_EQ(db->getOldestEvent(), overflowText(0, 3));
    db->pruneAboveSize(db->totalEventSize() - 1);
    EXPECT_EQ(db->getOldestEvent(), overflowText(0, 3)) << "pruned all by itself";
    db->pruneAboveSize(4001);
    EXPECT_EQ(db->getOldestEvent(), overflowText(0, 4));
    EXPECT_EQ(storedData().size(), 5u);
}

// --- failures ---

/// A prune whose begin, delete, overflow insert or commit fails gets its line, is rolled back
/// and keeps the events.
TEST_F(EventTablePruningTest, ALockedDatabaseFailsTheBegin) {
    addMany(3, 50);
    addForgottenCycles();
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    db->pruneAboveSize(51);
    capture.stop();
    locker.run("ROLLBACK");
    const std::string line = "kivDB: SQL error (begin transaction): database is locked\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line + line) << "the trims fail as well";
    EXPECT_EQ(storedData().size(), 3u);
    EXPECT_EQ(DB::m_TotalEventSize, 151);
}

/// A prune whose begin, delete, overflow insert or commit fails gets its line, is rolled back
/// and keeps the events.
TEST_F(EventTablePruningTest, AFailedDeleteIsRolledBack) {
    addMany(3, 50);
    makeTrigger(
        "CREATE TRIGGER Keep BEFORE DELETE ON Events WHEN old.kernelTime=1 "
        "BEGIN SELECT RAISE(FAIL,'kept'); END");
    OutputCapture capture;
    db->pruneAboveSize(51);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (delete events): kept\n");
    EXPECT_EQ(DB::lastErrorMessage(), "kept");
    EXPECT_EQ(storedData().size(), 3u);
    EXPECT_EQ(DB::m_TotalEventSize, 151);
    EXPECT_FALSE(transactionIsOpen());
}

/// A prune whose begin, delete, overflow insert or commit fails gets its line, is rolled back
/// and keeps the events.
TEST_F(EventTablePruningTest, AFailedOverflowInsertRollsTheDeleteBack) {
    addMany(3, 50);
    makeTrigger(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.type='logging.overflow' "
        "BEGIN SELECT RAISE(FAIL,'no'); END");
    OutputCapture capture;
    db->pruneAboveSize(51);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (insert overflow event): no\n");
    EXPECT_EQ(DB::lastErrorMessage(), "no");
    EXPECT_EQ(storedData().size(), 3u);
    EXPECT_EQ(DB::m_TotalEventSize, 151);
    EXPECT_FALSE(transactionIsOpen());
}

/// A database that fills up at the overflow insert keeps the events and calls back.
TEST_F(EventTablePruningTest, ADatabaseThatFillsUpAtTheOverflowInsertKeepsTheEventsAndCallsBack) {
    addMany(3, 50);
    makeTrigger(
        "CREATE TRIGGER Fill AFTER INSERT ON Events WHEN new.type='logging.overflow' "
        "BEGIN INSERT INTO Files(id,info) VALUES('big',zeroblob(4000000)); END");
    int calls = 0;
    DB::setFullCallback([&calls] { ++calls; });
    OutputCapture capture;
    db->pruneAboveSize(51);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert overflow event): database or disk is full\n");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(storedData().size(), 3u);
    EXPECT_EQ(db->getNumberOfFiles(), 0);
    EXPECT_FALSE(transactionIsOpen());
}

/// A prune whose begin, delete, overflow insert or commit fails gets its line, is rolled back
/// and keeps the events.
TEST_F(EventTablePruningTest, ACommitThatAReaderBlocksIsRolledBackAndTheSizeForgotten) {
    useRollbackJournal();
    addMany(3, 50);
    addForgottenCycles();
    DB::EventSet reader = db->getEvents(false);
    reader.getNextAndMark();
    OutputCapture capture;
    db->pruneAboveSize(51);
    capture.stop();
    reader.close();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): database is locked\n"
              "kivDB: SQL error (begin transaction): database is locked\n"
              "kivDB: SQL error (begin transaction): database is locked\n");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::m_TotalEventSize, -1);
    EXPECT_EQ(storedData().size(), 3u);
    EXPECT_FALSE(transactionIsOpen());
}

// --- rows that pruning removes while their packet is under way ---

/// A row that pruning removed is taken out of the marks of running sets; the others are still
/// deleted.
TEST_F(EventTablePruningTest, ARowThatPruningRemovedIsTakenOutOfTheMarks) {
    addMany(3, 50);
    DB::EventSet set = db->getEvents(false);
    while (!set.getNextAndMark().empty()) continue;
    ASSERT_EQ(set.getReturnedRows(), (std::vector<long>{1, 2, 3}));
    db->pruneAboveSize(10);
    db->addEvent(1, 1, 50, "t", "new");
    ASSERT_EQ(rows("SELECT ROWID FROM Events ORDER BY 1"), (Texts{"1", "2"})) << "used again";
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    EXPECT_EQ(storedData(), (Texts{overflowText(0, 2), "new"}));
}

/// A row that pruning removed is taken out of the marks of running sets; the others are still
/// deleted.
TEST_F(EventTablePruningTest, RowsThatPruningLeftAreStillDeleted) {
    addMany(3, 1000);
    DB::EventSet set = db->getEvents(false);
    while (!set.getNextAndMark().empty()) continue;
    const DB::EventSet copy(set);
    db->pruneAboveSize(2001);
    DB::setVerbose(true);
    OutputCapture capture;
    EXPECT_TRUE(db->deleteMarkedEvents(copy));
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes().substr(0, 61),
              "kivDB: Query is DELETE FROM Events WHERE ROWID IN (2,3);\nkivD");
    EXPECT_EQ(storedData(), Texts{overflowText(0, 0)});
}

/// A row that pruning removed is taken out of the marks of running sets; the others are still
/// deleted.
TEST_F(EventTablePruningTest, ARowThatWasPrunedBeforeTheSetReadItsSuccessorCountsAsMarked) {
    addMany(3, 50);
    DB::EventSet set = db->getEvents(false);
    db->pruneAboveSize(10);
    EXPECT_EQ(set.getNextAndMark(), overflowText(0, 2));
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{1}));
    EXPECT_EQ(set.getNextAndMark(), "");
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    EXPECT_TRUE(storedData().empty());
}

/// A prune that is rolled back leaves the marks.
TEST_F(EventTablePruningTest, ARolledBackPruneLeavesTheMarks) {
    addMany(3, 50);
    DB::EventSet set = db->getEvents(false);
    while (!set.getNextAndMark().empty()) continue;
    DBPeer::allowTriggers(*db);
    onStore(
        "CREATE TEMP TRIGGER No BEFORE INSERT ON Events WHEN new.type='logging.overflow' "
        "BEGIN SELECT RAISE(FAIL,'no'); END");
    OutputCapture capture;
    db->pruneAboveSize(10);
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    EXPECT_TRUE(storedData().empty());
}

/// A prune that is rolled back leaves the marks.
TEST_F(EventTablePruningTest, APruneWhoseCommitFailsLeavesTheMarks) {
    addMany(3, 50);
    DB::EventSet set = db->getEvents(false);
    while (!set.getNextAndMark().empty()) continue;
    breakCommitsAfter("DELETE ON Events");
    OutputCapture capture;
    db->pruneAboveSize(10);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n");
    onStore("DROP TRIGGER OrphanMaker");
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    EXPECT_TRUE(storedData().empty()) << "the rows were accepted, and are still stored";
}

// --- when it runs ---

/// An insert above 131072 bytes starts a pruning thread and does not wait for it; one at it
/// does not.
TEST_F(EventTablePruningTest, AnInsertAtTheThresholdStartsNoThreadAndOneAboveDoes) {
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    const NewThreads pruners;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", std::string(kThreshold - 2, 'x')), kThreshold);
    EXPECT_EQ(pruners.count(), 0);
    EXPECT_EQ(db->addEvent(1, 1, 2, "t", ""), kThreshold + 1);
    EXPECT_EQ(pruners.count(), 1);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "2") << "the insert does not wait for it";
    lock.unlock();
    DBPeer::waitForPruners(*db);
    EXPECT_EQ(storedData(), (Texts{overflowText(1, 1), ""}));
}

/// A flood starts one thread while one waits, and inserts let it go first.
TEST_F(EventTablePruningTest, AFloodStartsOneThreadWhileThatOneWaits) {
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    const NewThreads pruners;
    DBPeer::setPruneSizes(*db, 100, 50);
    addMany(100, 20);
    EXPECT_EQ(pruners.count(), 1);
    EXPECT_EQ(storedData().size(), 100u);
    lock.unlock();
    DBPeer::waitForPruners(*db);
    EXPECT_LE(storedData().size(), 4u);
}

/// An insert above 131072 bytes starts a pruning thread and does not wait for it; one at it
/// does not.
TEST_F(EventTablePruningTest, ABatchThatPassesTheThresholdIsPruned) {
    std::vector<DB::NewEvent> batch;
    for (int i = 0; i < 256; ++i) batch.push_back({1, 1, i, "t", std::string(999, 'x')});
    std::size_t taken = 0;
    EXPECT_GT(db->addEvents(batch, taken), kThreshold);
    EXPECT_EQ(taken, 132u);
    DBPeer::waitForPruners(*db);
    EXPECT_EQ(value("SELECT MIN(kernelTime) FROM Events WHERE type='t'"), "38");
    EXPECT_EQ(db->getOldestEvent(), overflowText(0, 37));
}

/// A pruner that has the lock counts no longer as the one that waits.
TEST_F(EventTablePruningTest, APrunerThatHasTheLockIsNoLongerTheOneThatWaits) {
    DBPeer::setPruneSizes(*db, 1000, 500);
    HoldingOutput output("PruneAboveSize invoked");
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    db->addEvent(1, 1, 1, "t", std::string(2000, 'x'));
    DB::setVerbose(true);
    lock.unlock();
    EXPECT_TRUE(WaitUntil([&] { return output.holds(); }));
    EXPECT_FALSE(PrunerThreads::takeHeadStart()) << "nobody waits";
    output.release();
    DBPeer::waitForPruners(*db);
    DB::setVerbose(false);
}

/// A flood starts one thread while one waits, and inserts let it go first.
TEST_F(EventTablePruningTest, InsertsLetTheWaitingPrunerGoFirst) {
    DBPeer::setPruneSizes(*db, 1000, 500);
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    db->addEvent(5, 1, 1, "t", std::string(2000, 'x'));
    ASSERT_TRUE(PrunerThreads::takeHeadStart()) << "which is the only one";
    DB::setVerbose(true);
    OutputCapture capture;
    // Older than everything: in the store before the pruner, they would be pruned.
    std::thread single([this] { db->addEvent(1, 1, 1, "t", "single"); });
    std::thread batch([this] {
        std::size_t taken = 0;
        db->addEvents({{1, 1, 2, "t", "batch"}}, taken);
    });
    EXPECT_FALSE(
        WaitUntil([&] { return capture.out().find("Take lock for adding") != std::string::npos; },
                  std::chrono::milliseconds(50)));
    lock.unlock();
    single.join();
    batch.join();
    DBPeer::waitForPruners(*db);
    DB::setVerbose(false);
    capture.stop();
    EXPECT_EQ(rows("SELECT bootCount,kernelTime,type FROM Events ORDER BY 1,2"),
              (Texts{"1|1|t", "1|2|t", "5|1|logging.overflow"}));
}

/// A flood starts one thread while one waits, and inserts let it go first.
TEST_F(EventTablePruningTest, OneBatchGoesAheadOfAWaitingPrunerButIsNoLargerThanWhatItRemoves) {
    DBPeer::setPruneSizes(*db, 1000, 500);
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    db->addEvent(1, 1, 0, "t", std::string(1999, 'x'));  // the pruner waits from here on
    const std::vector<DB::NewEvent> batch(20, {1, 1, 1, "t", std::string(99, 'y')});
    std::size_t taken = 0;
    db->addEvents(batch, taken);
    EXPECT_EQ(taken, 6u) << "600 bytes are the first to exceed 500";
    EXPECT_FALSE(PrunerThreads::takeHeadStart());
    lock.unlock();
    DBPeer::waitForPruners(*db);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events WHERE type='t'"), "4")
        << "one prune has removed the first event and two of the batch";
}

/// That batch is as large where the size must be counted first.
TEST_F(EventTablePruningTest, TheBatchAheadIsAsLargeWhereTheSizeMustBeCountedFirst) {
    DBPeer::setPruneSizes(*db, 1000, 500);
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    db->addEvent(1, 1, 0, "t", std::string(1999, 'x'));  // the pruner waits from here on
    DB::m_TotalEventSize = -1;                           // as an upload leaves it
    const std::vector<DB::NewEvent> batch(20, {1, 1, 1, "t", std::string(99, 'y')});
    std::size_t taken = 0;
    db->addEvents(batch, taken);
    EXPECT_EQ(taken, 6u) << "600 bytes are the first to exceed 500";
    lock.unlock();
    DBPeer::waitForPruners(*db);
}

/// Destruction waits for the object's own pruners.
TEST_F(EventTablePruningTest, DestructionWaitsForTheOwnPruners) {
    std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
    DBPeer::setPruneSizes(*db, 100, 50);
    addMany(1, 200);
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        db.reset();
        destroyed = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return destroyed.load(); }, std::chrono::milliseconds(50)));
    lock.unlock();
    destroyer.join();
    EXPECT_EQ(storedData(), Texts{overflowText(0, 0)}) << "the pruner had its turn";
}

// --- a flood ---

/// A flood loses nothing that no overflow event names, also during uploads.
TEST_F(EventTablePruningTest, AFloodLosesNothingThatNoOverflowEventNames) {
    constexpr int kEvents = 3000;
    DBPeer::setPruneSizes(*db, 8000, 4000);
    OutputCapture capture;
    for (int i = 0; i < kEvents;) {
        if (i % 3 == 0) {
            db->addEvent(1, 1, i, "t", std::string(60, 'x'));
            ++i;
            continue;
        }
        std::vector<DB::NewEvent> batch;
        for (int j = i; j < i + 100 && j < kEvents; ++j) {
            batch.push_back({1, 1, j, "t", std::string(60, 'x')});
        }
        std::size_t taken = 0;
        db->addEvents(batch, taken);
        i += static_cast<int>(taken);
    }
    DBPeer::waitForPruners(*db);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    EXPECT_LE(recount(), 8000 + 61 * 256);
    std::multiset<long long> times;
    collectStored(times);
    std::multiset<long long> all;
    for (int i = 0; i < kEvents; ++i) all.insert(i);
    EXPECT_EQ(times, all) << "each exactly once";
}

/// A flood loses nothing that no overflow event names, also during uploads.
TEST_F(EventTablePruningTest, AFloodDuringUploadsLosesNothingThatIsNeitherSentNorNamed) {
    constexpr int kEvents = 2000;
    DBPeer::setPruneSizes(*db, 6000, 3000);
    DB uploader;
    uploader.open(path, false);
    std::atomic<bool> flooding{true};
    Texts sent;
    std::atomic<int> packets{0};
    std::atomic<int> added{0};
    OutputCapture capture;
    std::thread upload([&] {
        for (int next = 20; flooding; next += 20) {
            WaitUntil([&] { return added >= next || !flooding; });
            std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
            DB::EventSet set = uploader.getEvents(false);
            Texts packet;
            for (std::string text = set.getNextAndMark(); !text.empty() && packet.size() < 20;
                 text = set.getNextAndMark()) {
                packet.push_back(text);
            }
            if (set.isActive()) set.unmarkLast();
            set.close();
            lock.unlock();
            std::this_thread::yield();  // the packet is under way
            if (uploader.deleteMarkedEvents(set)) {
                sent.insert(sent.end(), packet.begin(), packet.end());
                ++packets;
            }
        }
    });
    for (int i = 0; i < kEvents; i += 10) {
        std::vector<DB::NewEvent> batch;
        for (int j = i; j < i + 10; ++j) {
            batch.push_back({1, 1, j, "t", "{\"kernel-time\": " + std::to_string(j) + "}"});
        }
        addInBatches(batch);
        added += 10;
    }
    EXPECT_TRUE(WaitUntil([&] { return packets > 3; }));
    flooding = false;
    upload.join();
    DBPeer::waitForPruners(*db);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    std::multiset<long long> times;
    collectStored(times);
    Texts sentWithTimes;
    for (const auto& text : sent) {
        const auto event = JsonObject::parse(text);
        sentWithTimes.push_back(std::to_string(event.optInteger("kernel-time", -1)) + "|" + text);
    }
    collect(sentWithTimes, times);
    for (int i = 0; i < kEvents; ++i) ASSERT_NE(times.count(i), 0u) << "event " << i;
}

}  // namespace

/// A set that lives on while others are pruned remembers no more than the rows that it handed out.
TEST_F(EventTablePruningTest, RemembersOfPrunedRowsOnlyThoseOfTheSet) {
    const auto pruneMany = [this] {
        std::vector<DB::NewEvent> events;
        for (int i = 0; i < 20000; ++i) events.push_back({1, 1, i, "t", "x"});
        addInBatches(std::move(events));
        db->pruneAboveSize(0);
    };
    pruneMany();  // what SQLite keeps for itself
    DB::EventSet sent = db->getEvents(false);
    sent.getNextAndMark();
    sent.close();
    const auto before = ::mallinfo2().uordblks;
    pruneMany();
    const auto after = ::mallinfo2().uordblks;
    EXPECT_LT(after < before ? 0 : after - before, 200000u) << "a row takes 40 bytes or more";
    EXPECT_EQ(sent.getReturnedRows().size(), 1u);
}
