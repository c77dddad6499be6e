#include "EventTable.h"

#include <string>

#include "CGlobalInfoImpl.h"
#include "Singleton.h"
#include "support/StoreTest.h"

namespace {

class EventTableTrimTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }

    void addCycles(const Texts& cycles) {
        for (const auto& cycle : cycles) {
            aside("INSERT INTO TimeOffsets VALUES(" + cycle + ",0,1,0)");
            aside("INSERT INTO OpTimes VALUES(" + cycle + ",1)");
        }
    }
    Texts cyclesOf(const std::string& table) {
        return rows("SELECT bootCount,standbyCount FROM " + table + " ORDER BY 1,2");
    }
};

/// Trimming deletes the cycles without events, except the newest of the table.
TEST_F(EventTableTrimTest, DeletesTheCyclesWithoutEventsExceptTheNewest) {
    addCycles({"3,0", "3,1", "4,0"});
    db->addEvent(3, 1, 10, "t", "x");
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"3|1", "4|0"}));
    EXPECT_EQ(cyclesOf("OpTimes"), (Texts{"3|0", "3|1", "4|0"}));
    db->pruneSessionBasedTable("OpTimes");
    EXPECT_EQ(cyclesOf("OpTimes"), (Texts{"3|1", "4|0"}));
}

/// Trimming deletes the cycles without events, except the newest of the table.
TEST_F(EventTableTrimTest, TheNewestCycleIsTheHighestStandbyOfTheHighestBoot) {
    addCycles({"3,9", "4,0", "4,2", "4,1"});
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), Texts{"4|2"});
}

/// Trimming keeps the running cycle and every source of a kept one.
TEST_F(EventTableTrimTest, KeepsTheRunningCycleAlsoWhenItIsNotTheHighest) {
    const Singleton<CGlobalInfoImpl> info;
    info->setBootCounts(2, 1);
    addCycles({"1,1", "2,1", "900,4", "2,0"});
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"2|1", "900|4"}));
}

/// Counts are 32-bit and signed on every host, as on a set.
TEST_F(EventTableTrimTest, KeepsCountsAsASetWithThirtyTwoBitsDoes) {
    const Singleton<CGlobalInfoImpl> info;
    info->setBootCounts(4294967295U, 2147483648U);
    const auto boot = static_cast<long>(4294967295U);  // -1 where long has 32 bits
    const auto standby = static_cast<long>(2147483648U);
    db->setStartTime(boot, standby, 1234);
    db->setOpTime(boot, standby, 5);
    db->addEvent(boot, standby, 10, "t", "x");
    addCycles({"900,4"});
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"-1|-2147483648", "900|4"}));
    EXPECT_EQ(cyclesOf("Events"), Texts{"-1|-2147483648"});
    EXPECT_EQ(db->getStartTime(boot, standby), 1234);
    EXPECT_EQ(db->getOpTime(boot, standby), 5U);
}

/// Counts are 32-bit and signed on every host, as on a set.
TEST_F(EventTableTrimTest, KeepsTheRunningCycleOfALargeCountWithoutEvents) {
    const Singleton<CGlobalInfoImpl> info;
    info->setBootCounts(4294967295U, 0);
    addCycles({"-1,0", "900,4"});
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"-1|0", "900|4"}));
}

/// Trimming keeps the running cycle and every source of a kept one.
TEST_F(EventTableTrimTest, KeepsEverySourceOfACycle) {
    aside("INSERT INTO TimeOffsets VALUES(3,0,0,1,0),(3,0,1,2,1),(4,0,0,3,0),(4,0,1,4,1)");
    db->addEvent(3, 0, 10, "t", "x");
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"3|0", "3|0", "4|0", "4|0"}));
}

/// Trimming clears the error and tells its success when verbose.
TEST_F(EventTableTrimTest, ClearsTheErrorAndSaysWhatItDidWhenVerbose) {
    addCycles({"3,0", "4,0"});
    DB::m_dbError = true;
    DB::setVerbose(true);
    OutputCapture capture;
    db->pruneSessionBasedTable("TimeOffsets");
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDB: Take lock for pruneSessionBasedTable\n"
              "kivDB: Records in TimeOffsets deleted successfully\n");
    EXPECT_FALSE(DB::m_dbError);
}

/// Trimming clears the error and tells its success when verbose.
TEST_F(EventTableTrimTest, AnEmptyTableIsTrimmedWithoutAWord) {
    OutputCapture capture;
    db->pruneSessionBasedTable("OpTimes");
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// A trim that cannot begin, delete or commit gets its line, is recorded and rolled back.
TEST_F(EventTableTrimTest, ALockedDatabaseFailsTheBegin) {
    addCycles({"3,0", "4,0"});
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    db->pruneSessionBasedTable("TimeOffsets");
    capture.stop();
    locker.run("ROLLBACK");
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::lastErrorMessage(), "database is locked");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"3|0", "4|0"}));
}

/// A trim that cannot begin, delete or commit gets its line, is recorded and rolled back.
TEST_F(EventTableTrimTest, AFailedDeleteIsRolledBackAndRecorded) {
    addCycles({"3,0", "4,0"});
    makeTrigger(
        "CREATE TRIGGER Keep BEFORE DELETE ON OpTimes BEGIN SELECT RAISE(FAIL,'kept'); END");
    OutputCapture capture;
    db->pruneSessionBasedTable("OpTimes");
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (delete from OpTimes): kept\n");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(cyclesOf("OpTimes"), (Texts{"3|0", "4|0"}));
    EXPECT_NE(sqlite3_get_autocommit(DBPeer::connection(*db)), 0);
}

/// A trim that cannot begin, delete or commit gets its line, is recorded and rolled back.
TEST_F(EventTableTrimTest, AFailedCommitIsRolledBackAndRecorded) {
    addCycles({"3,0", "4,0"});
    breakCommitsAfter("DELETE ON TimeOffsets");
    OutputCapture capture;
    db->pruneSessionBasedTable("TimeOffsets");
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_NE(sqlite3_get_autocommit(DBPeer::connection(*db)), 0);
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"3|0", "4|0"}));
}

/// An unreadable Events table costs no cycle its row.
TEST_F(EventTableTrimTest, AnUnreadableEventsTableCostsNoCycleItsRow) {
    addCycles({"3,0", "4,0"});
    onStore("DROP TABLE Events");
    db->pruneSessionBasedTable("TimeOffsets");
    EXPECT_EQ(cyclesOf("TimeOffsets"), (Texts{"3|0", "4|0"}));
}

}  // namespace
